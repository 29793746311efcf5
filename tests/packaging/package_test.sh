#!/usr/bin/env bash
# Builds the Debian packages from the build tree, unpacks them into an empty root, checks what
# they hold and their units, and runs the unpacked daemon against the unpacked broker
# configuration, as systemd would: readiness on its notify socket, levels for the journal.
#   package_test.sh BUILD_DIR
set -euo pipefail

build=$(cd "$1" && pwd)
tmp=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$tmp"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
# Waits up to 20 s for a command to succeed.
until_ok() {
  for _ in $(seq 200); do "$@" 2>/dev/null && return 0; sleep 0.1; done
  return 1
}
wait_for() { until_ok grep -q -- "$1" "$2" || fail "no '$1' in $2: $(tail -5 "$2" 2>/dev/null)"; }

(cd "$build" && cpack -G DEB -B "$tmp/packages" >"$tmp/cpack.log" 2>&1) ||
  fail "cpack: $(tail -20 "$tmp/cpack.log")"
root=$tmp/root
mkdir "$root"
for deb in "$tmp"/packages/nkdevicediscovery_*.deb "$tmp"/packages/nkcloud-emu_*.deb; do
  [[ -f "$deb" ]] || fail "no package $deb"
  dpkg-deb -x "$deb" "$root"
done

units=(nkex-broker nkdevicediscovery nksifter nkcloud-emu)
mapfile -t expected < <(grep -v "^#" "$(dirname "$0")/data/files.txt")
for unit in "${units[@]}"; do expected+=("usr/lib/systemd/system/$unit.service"); done
for file in "${expected[@]}"; do [[ -e "$root/$file" ]] || fail "missing /$file"; done
dpkg-deb -f "$tmp"/packages/nkdevicediscovery_*.deb Depends | grep -q mosquitto ||
  fail "the daemon's package does not depend on mosquitto"

# The units against the unpacked tree, with the host's own units beside them; commands of
# other packages are looked up on the host.
cp -n /lib/systemd/system/*.target /lib/systemd/system/*.slice /lib/systemd/system/*.socket \
  "$root/usr/lib/systemd/system/" 2>/dev/null || true
verify=$(systemd-analyze verify --man=no --root="$root" "${units[@]/%/.service}" 2>&1 || true)
while IFS= read -r line; do
  [[ -z "$line" ]] && continue
  if [[ "$line" =~ Command\ (/[^ ]+)\ is\ not\ executable ]]; then
    command=${BASH_REMATCH[1]}
    [[ ! "$command" =~ ^/usr/(s?bin|libexec)/nk && -x "$command" ]] && continue
  fi
  fail "systemd-analyze verify: $line"
done <<<"$verify"

# The installed broker, with the configuration its unit makes.
socket=$tmp/nkex.sock
"$root/usr/libexec/nkdevicediscovery/bus-credentials" "$tmp/bus"
"$root/usr/libexec/nkdevicediscovery/broker-config" "$socket" "$tmp/bus" >"$tmp/mosquitto.conf"
broker=(mosquitto -c "$tmp/mosquitto.conf")
if [[ $(id -u) -eq 0 ]]; then
  chmod 755 "$tmp"
  broker=(setpriv --reuid=mosquitto --regid=mosquitto --init-groups
    --inh-caps=+dac_override --ambient-caps=+dac_override -- "${broker[@]}")
fi
"${broker[@]}" 2>"$tmp/broker.log" &
pids+=($!)
until_ok test -S "$socket" || fail "broker: $(cat "$tmp/broker.log")"

# systemd's side: a notify socket, and stderr as the journal stream.
python3 -c '
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.bind(sys.argv[1])
while True:
    print(s.recv(4096).decode(), flush=True)
' "$tmp/notify" >"$tmp/notify.log" &
pids+=($!)
until_ok test -S "$tmp/notify" || fail "no notify socket"
: >"$tmp/daemon.log"
journal=$(stat -c '%d:%i' "$tmp/daemon.log")
NOTIFY_SOCKET=$tmp/notify JOURNAL_STREAM=$journal NKEX_CREDENTIALS_DIR=$tmp/bus \
  NK_LIBEXEC_DIR=$root/usr/libexec/nkdevicediscovery ASAN_OPTIONS=detect_leaks=0 \
  "$root/usr/sbin/nkdevicediscovery" -f --settings "$tmp/settings" --devmgmt "$tmp/devmgmt" \
  --broker "unix:$socket" --log-level 3 2>>"$tmp/daemon.log" &
daemon=$!
pids+=($daemon)
wait_for "READY=1" "$tmp/notify.log"
grep -q "disco ready" "$tmp/daemon.log" || fail "ready before 'disco ready': $(cat "$tmp/daemon.log")"
grep -q '^<7>.*disco ready' "$tmp/daemon.log" || fail "no journal level: $(head -3 "$tmp/daemon.log")"
if grep -q "refused" "$tmp/daemon.log"; then
  fail "the broker refused the daemon: $(grep refused "$tmp/daemon.log")"
fi
kill -TERM "$daemon"
status=0
wait "$daemon" || status=$?
[[ $status -eq 0 ]] || fail "daemon exited with $status: $(tail -5 "$tmp/daemon.log")"
wait_for "STOPPING=1" "$tmp/notify.log"
echo "packages, units and the installed daemon: ok"

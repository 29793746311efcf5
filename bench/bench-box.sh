# A BOX on the bench, sourced by bench/footprint and bench/flash-writes: a private broker, a
# settings store on disk (under NK_BENCH_DIR, default /var/tmp), the device table on /dev/shm,
# the cloud emulator and the daemon, in a network namespace of its own whose interface lan0
# (198.18.0.1/21 from the benchmarking range, a veth pair with both ends inside) is the LAN and
# the default route. Up to 2000 clients fit; nothing is sent anywhere, additional info is off.
# Needs root.
# NK_BENCH_BUILD (default build/bench) is the build directory. Everything made is removed on
# exit, whatever the exit.

build=${NK_BENCH_BUILD:-build/bench}
box_ns=nkbench$$
box_lan=198.18
box_dir=
box_devmgmt=
box_pids=()
daemon=
sniffer=

box_require() {
  [[ $(id -u) -eq 0 ]] || { echo "$0: needs root (a network namespace, and capture for nksifter)" >&2; exit 77; }
  local tool
  for tool in src/nkdevicediscovery src/nkdevinfo sniffer/nksifter tools/nkdevices tools/nkcloud-emu \
    tools/nkset bench/devid_latency; do
    [[ -x "$build/$tool" ]] || { echo "$0: no $build/$tool (see docs/daemon.md, Figures)" >&2; exit 1; }
  done
}

box_stop_pid() {
  kill -TERM "$1" 2>/dev/null && wait "$1" 2>/dev/null || true
}

box_cleanup() {
  [[ -n "$sniffer" ]] && box_stop_pid "$sniffer"
  [[ -n "$daemon" ]] && box_stop_pid "$daemon"
  local i
  for ((i = ${#box_pids[@]} - 1; i >= 0; i--)); do box_stop_pid "${box_pids[$i]}"; done
  ip netns del "$box_ns" 2>/dev/null || true
  [[ -n "$box_dir" ]] && rm -rf "$box_dir"
  [[ -n "$box_devmgmt" ]] && rm -rf "$box_devmgmt"
  return 0
}

# A fresh BOX: namespace, store, table, broker, emulator; the daemon is started apart.
box_up() {
  box_dir=$(mktemp -d "${NK_BENCH_DIR:-/var/tmp}/nkbench.XXXXXX")
  box_devmgmt=$(mktemp -d /dev/shm/nkbench.XXXXXX)
  ip netns add "$box_ns"
  ip -n "$box_ns" link set lo up
  ip -n "$box_ns" link add lan0 type veth peer name lan0-peer  # both ends in the namespace
  ip -n "$box_ns" addr add "$box_lan.0.1/21" dev lan0
  ip -n "$box_ns" link set lan0-peer up
  ip -n "$box_ns" link set lan0 up
  ip -n "$box_ns" route add default dev lan0

  local socket=$box_dir/nkex.sock
  scripts/broker-config "$socket" >"$box_dir/mosquitto.conf"
  setpriv --reuid=mosquitto --regid=mosquitto --init-groups --inh-caps=+dac_override \
    --ambient-caps=+dac_override -- mosquitto -c "$box_dir/mosquitto.conf" 2>"$box_devmgmt/broker.log" &
  box_pids+=($!)
  local _
  for _ in $(seq 100); do [[ -S "$socket" ]] && break; sleep 0.05; done
  [[ -S "$socket" ]] || { echo "broker did not start" >&2; exit 1; }
  export NKEX_BROKER=unix:$socket

  mkdir "$box_dir/settings"
  nkset set /network/interfaces/roles/lan0 lan
  nkset set /network/interfaces/roles/wan0 wan
  nkset set /network/dhcp/leases_mode 0
  nkset set /network/dhcp/lease_files "$box_dir/dnsmasq.leases"
  nkset set /features/ids/0 1
  : >"$box_dir/dnsmasq.leases"
  : >"$box_dir/known"

  "$build/tools/nkcloud-emu" -f --settings "$box_dir/settings" --db "$box_dir/cloud.db" serve \
    2>"$box_devmgmt/cloud.log" &
  box_pids+=($!)
  for _ in $(seq 100); do nkset get /daemons/nkcloudd/device_id >/dev/null 2>&1 && break; sleep 0.05; done
}

nkset() { "$build/tools/nkset" --settings "$box_dir/settings" "$@"; }
cloud() { "$build/tools/nkcloud-emu" --db "$box_dir/cloud.db" "$@"; }

# Client i: a MAC and an address of the LAN, "MAC IP".
box_client() {
  printf '02:aa:00:00:%02x:%02x %s.%d.%d\n' $(($1 / 256)) $(($1 % 256)) "$box_lan" $(($1 / 250)) $((2 + $1 % 250))
}

# N clients in the dnsmasq lease file (and in $box_dir/known, for devid_latency).
box_leases() {
  local expiry=$(($(date +%s) + 86400)) i mac ip
  for ((i = 0; i < $1; i++)); do
    read -r mac ip < <(box_client "$i")
    echo "$expiry $mac $ip client-$i *" >>"$box_dir/dnsmasq.leases"
    echo "$mac $ip" >>"$box_dir/known"
  done
}

# The daemon logs at its default level to tmpfs, as a box logs to RAM.
box_start_daemon() {
  : >"$box_devmgmt/daemon.log"
  ip netns exec "$box_ns" "$build/src/nkdevicediscovery" -f --settings "$box_dir/settings" \
    --devmgmt "$box_devmgmt" 2>"$box_devmgmt/daemon.log" &
  daemon=$!
}

box_stop_daemon() {
  box_stop_pid "$daemon"
  daemon=
}

box_start_sniffer() {
  ip netns exec "$box_ns" "$build/sniffer/nksifter" --settings "$box_dir/settings" \
    2>"$box_devmgmt/sniffer.log" &
  sniffer=$!
}

# Waits up to SECONDS for the log line LINE of the daemon.
box_wait_log() {
  local line=$1 seconds=$2 _
  for _ in $(seq $((seconds * 10))); do
    grep -q "$line" "$box_devmgmt/daemon.log" && return 0
    kill -0 "$daemon" 2>/dev/null || break
    sleep 0.1
  done
  echo "$0: the daemon did not log \"$line\":" >&2
  tail -n 20 "$box_devmgmt/daemon.log" >&2
  exit 1
}

# Waits until the cloud lists N devices besides the BOX.
box_wait_registered() {
  local n=$1 _
  for _ in $(seq $((600 + n))); do
    [[ $(cloud list 2>/dev/null | wc -l) -gt $n ]] && return 0
    sleep 0.5
  done
  echo "$0: the cloud lists $(($(cloud list | wc -l) - 1)) of $n clients:" >&2
  tail -n 20 "$box_devmgmt/daemon.log" >&2
  exit 1
}

box_collector() {
  pgrep -P "$daemon" -x nkdevinfo || true
}

# Private memory in KiB, "PRIVATE/DIRTY": what the process alone maps (Private_Clean +
# Private_Dirty), and of it what it wrote itself. The clean rest is program and library text
# that no other process maps at the time: it depends on what else runs.
private_kib() {
  [[ -n "$1" && -r /proc/$1/smaps_rollup ]] || { echo -; return; }
  awk '/^Private_Clean:/ { clean += $2 } /^Private_Dirty:/ { dirty += $2 }
    END { printf "%d/%d\n", clean + dirty, dirty }' "/proc/$1/smaps_rollup"
}

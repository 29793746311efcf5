#!/usr/bin/env bash
# The LAN's persona clients (scripts/persona-client).
#   persona_test.sh files   malformed persona files are refused with one clear line (data/refused.tsv),
#                           usage errors exit 64, every shipped persona passes
#   persona_test.sh lan     as root, on a LAN of its own: an apple-03 client gets a dnsmasq lease
#                           with its host name and client id 01:MAC, and after a rotation a new
#                           lease with its new MAC, the old one left unreleased as an iPhone does
# Exit status 77: skipped (the reason is printed).
set -uo pipefail

top=$(cd "$(dirname "$0")/../.." && pwd)
data="$top/tests/lan/data"
client="$top/scripts/persona-client"
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }
skip() { echo "SKIP: $*"; exit 77; }

files() {
  local file status fault err got
  while IFS=$'\t' read -r file status fault; do
    [[ -z "$file" || "$file" == \#* ]] && continue
    err=$("$client" --check "$data/$file" 2>&1 >/dev/null)
    got=$?
    [[ $got -eq $status ]] || fail "$file: status $got, not $status"
    [[ $(wc -l <<<"$err") -eq 1 ]] || fail "$file: not one line: $err"
    [[ "$err" == "persona-client: $data/$file: $fault"* ]] || fail "$file: '$err'"
  done <"$data/refused.tsv"
  local persona="$top/scripts/personas/apple-03.json"
  for args in "" "--check" "--hostname a_b $persona eth0" "$persona" "--bogus $persona eth0"; do
    # shellcheck disable=SC2086
    "$client" $args >/dev/null 2>&1
    got=$?
    [[ $got -eq 64 ]] || fail "persona-client $args: status $got, not 64"
  done
  for file in "$top"/scripts/personas/*.json; do
    err=$("$client" --check "$file" 2>&1) || fail "shipped $(basename "$file"): $err"
  done
}

# Waits up to 60 s for the lease of MAC with host name HOST and client id 01:MAC.
wait_for_lease() {
  local mac=$1 host=$2
  for _ in $(seq 600); do
    awk -v mac="$mac" -v host="$host" '$2 == mac && $4 == host && $5 == "01:" mac { found = 1 }
      END { exit !found }' "$lan_dir/dnsmasq.leases" 2>/dev/null && return 0
    sleep 0.1
  done
  fail "no lease for $mac as $host with client id 01:$mac: $(cat "$lan_dir/dnsmasq.leases")"
  return 1
}

lan() {
  [[ $(id -u) -eq 0 ]] || skip "the simulated LAN needs root (network namespaces)"
  unshare --net --mount true 2>/dev/null || skip "network namespaces are not available here"
  local tool
  for tool in dnsmasq busybox avahi-daemon dbus-daemon; do
    command -v "$tool" >/dev/null || skip "$tool is not installed (scripts/deps installs it)"
  done
  /usr/bin/python3 -c 'import scapy' 2>/dev/null ||
    skip "python3-scapy is not installed (scripts/deps installs it)"
  tmp=$(mktemp -d)
  lan_dir="$tmp/lan"
  trap cleanup EXIT
  local lan=("$top/scripts/lan" --dir "$lan_dir") mac new
  "${lan[@]}" up --empty >/dev/null || { fail "scripts/lan up"; return; }
  "${lan[@]}" add phone --persona apple-03 >/dev/null || { fail "scripts/lan add --persona"; return; }
  mac=$(cat "$lan_dir/clients/phone/mac")
  wait_for_lease "$mac" Lucas-iPhone || return
  "${lan[@]}" rotate phone >/dev/null || { fail "scripts/lan rotate"; return; }
  new=$(cat "$lan_dir/clients/phone/mac")
  [[ "$new" != "$mac" && $((0x${new:0:2} & 3)) -eq 2 ]] ||
    fail "rotated to $new: not a new unicast, locally administered MAC"
  wait_for_lease "$new" Lucas-iPhone || return
  grep -q " $mac " "$lan_dir/dnsmasq.leases" || fail "the lease of $mac was released"
}

cleanup() {
  local prefix
  prefix=$(cat "$lan_dir/prefix" 2>/dev/null)
  "$top/scripts/lan" --dir "$lan_dir" down >/dev/null 2>&1 || fail "scripts/lan down"
  if [[ -n "$prefix" ]] && ip netns list | grep -q "^$prefix-"; then
    fail "namespaces left behind: $(ip netns list | grep "^$prefix-" | paste -sd' ' -)"
  fi
  rm -rf "$tmp"
  exit $((failures > 0))
}

case ${1:-} in
  files) files ;;
  lan) lan ;;
  *) echo "usage: persona_test.sh files|lan" >&2; exit 64 ;;
esac
exit $((failures > 0))

#!/usr/bin/env bash
# The scanner shared through saned and scanned with the net backend, on a
# loopback of a private network namespace: Debian's net backend only speaks
# to saned's standard port (6566), which must not collide with a saned of the
# machine or of a test running beside this one.
#   sane_network.sh <build dir> bytes    remote scans are byte for byte the local ones
#   sane_network.sh <build dir> overlap  with a 5 MB/s scanner, most of the image has
#                                        reached the client before a local scan ends
set -euo pipefail
build=$(realpath "$1") check=$2
if [ -z "${ZENTARY_NETNS:-}" ]; then
  for tool in saned scanimage ip unshare; do
    command -v "$tool" > /dev/null || { echo "SKIP: $tool is missing (scripts/bootstrap installs it)"; exit 77; }
  done
  unshare -rn true 2> /dev/null || { echo "SKIP: no user and network namespaces here"; exit 77; }
  exec env ZENTARY_NETNS=1 unshare -rn "$0" "$@"
fi
ip link set lo up

work=$(mktemp -d)
saned_pid=
# shellcheck disable=SC2317 # run by the trap
cleanup() {
  [ -z "$saned_pid" ] || { kill "$saned_pid" 2> /dev/null; wait "$saned_pid" 2> /dev/null || true; }
  rm -rf "$work"
}
trap cleanup EXIT
status=0
fail() { echo "FAIL: $*" >&2; status=1; }

scanner=emulator
[ "$check" = overlap ] && scanner=emulator:mbps=5
# The server's configuration: our backend, and localhost allowed in.
mkdir -p "$work/server" "$work/client" "$work/tmp"
echo zentary > "$work/server/dll.conf"
cp "$build/sane/zentary.conf" "$work/server/"
echo 127.0.0.1 > "$work/server/saned.conf"
# The client's: only the net backend, pointed at the server.
echo net > "$work/client/dll.conf"
printf 'connect_timeout = 10\n127.0.0.1\n' > "$work/client/net.conf"
export TMPDIR=$work/tmp ZENTARY_SCANNER=$scanner
local_scan() { SANE_CONFIG_DIR=$work/server LD_LIBRARY_PATH=$build/sane scanimage -d zentary:emulator "$@"; }
remote_scan() { SANE_CONFIG_DIR=$work/client scanimage -d net:127.0.0.1:zentary:emulator "$@"; }

SANE_CONFIG_DIR=$work/server LD_LIBRARY_PATH=$build/sane saned -l -b 127.0.0.1 -e -d 1 2> "$work/saned.log" &
saned_pid=$!
# Listening: port 6566 (0x19A6) in state LISTEN (0A).
for _ in $(seq 100); do
  grep -q ':19A6 00000000:0000 0A' /proc/net/tcp && break
  sleep 0.05
done
grep -q ':19A6 00000000:0000 0A' /proc/net/tcp || { cat "$work/saned.log"; echo "FAIL: saned did not listen"; exit 1; }

now() { date +%s%N; }
case $check in
bytes)
  SANE_CONFIG_DIR=$work/client scanimage -L 2> /dev/null | grep -q "^device \`net:127.0.0.1:zentary:emulator'" ||
    fail "the client does not list net:127.0.0.1:zentary:emulator"
  while read -r args; do
    # shellcheck disable=SC2086 # each line is a list of options
    local_scan $args > "$work/local.pnm" 2> "$work/err" || { fail "local scan $args: $(cat "$work/err")"; continue; }
    # shellcheck disable=SC2086
    remote_scan $args > "$work/remote.pnm" 2> "$work/err" || { fail "remote scan $args: $(cat "$work/err")"; continue; }
    cmp -s "$work/local.pnm" "$work/remote.pnm" || fail "the remote scan $args differs from the local one"
  done << EOF
--mode Color --resolution 150 -l 10 -t 20 -x 80 -y 60
--mode Gray --resolution 300 -l 0 -t 0 -x 40 -y 25.4
--mode Color --resolution 600 -l 100 -t 250 -x 12.7 -y 12.7
EOF
  ;;
overlap)
  # A strip of 8.5 x 3 in at 300 dpi: about 9 MB from the scanner, two seconds at 5 MB/s.
  args=(--mode Color --resolution 300 -l 0 -t 0 -x 215.9 -y 76.2)
  start=$(now)
  local_scan "${args[@]}" > "$work/local.pnm" 2> "$work/err" || { cat "$work/err"; exit 1; }
  local_ns=$(($(now) - start))
  size=$(stat -c %s "$work/local.pnm")
  start=$(now)
  remote_scan "${args[@]}" > "$work/remote.pnm" 2> "$work/err" &
  remote=$!
  # When the local scan is 90 % through, a client that gets the rows as they
  # are scanned holds more than half of them (the network adds a quarter of
  # a second before the first); one that gets them only after the scan holds
  # next to nothing.
  sleep "$(awk -v ns="$local_ns" 'BEGIN { printf "%.3f", ns * 0.9 / 1e9 }')"
  early=$(stat -c %s "$work/remote.pnm")
  wait "$remote" || fail "remote scan: $(cat "$work/err")"
  remote_ns=$(($(now) - start))
  echo "local scan $((local_ns / 1000000)) ms, remote $((remote_ns / 1000000)) ms;" \
    "the client had $((early * 100 / size)) % of the image at 90 % of the local time"
  [ $((early * 2)) -gt "$size" ] || fail "the client had $early of $size bytes when the local scan was 90 % through"
  cmp -s "$work/local.pnm" "$work/remote.pnm" || fail "the remote scan differs from the local one"
  ;;
*) echo "unknown check $check" >&2; exit 2 ;;
esac
exit $status

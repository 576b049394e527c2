#!/bin/sh
# scanimage through our backend against SANE's test backend, same geometry:
# a 300 dpi colour letter page, median of 5 runs each, in seconds.
# Usage: sane_scanimage.sh <build dir>
set -eu
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
printf 'zentary\ntest\n' > "$work/dll.conf"
cp "$build/sane/zentary.conf" "$work/zentary.conf"
export SANE_CONFIG_DIR="$work" LD_LIBRARY_PATH="$build/sane" ZENTARY_SCANNER=emulator TMPDIR="$work"
median() {
  for i in 1 2 3 4 5; do
    start=$(date +%s.%N)
    scanimage "$@" --mode Color --resolution 300 -l 0 -t 0 -x 215.9 -y 279.4 > /dev/null
    end=$(date +%s.%N)
    echo "$end - $start" | bc
  done | sort -n | sed -n 3p
}
printf '%-24s %s\n' "zentary:emulator" "$(median -d zentary:emulator)"
printf '%-24s %s\n' "test" "$(median -d test)"

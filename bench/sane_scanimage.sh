#!/bin/sh
# scanimage through our backend against SANE's test backend at 300 dpi
# colour, median of 5 runs each, in seconds: a letter page through ours, and
# 200 x 200 mm (the test backend's largest area) through both.
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
    scanimage "$@" --mode Color --resolution 300 -l 0 -t 0 > /dev/null 2>&1
    end=$(date +%s.%N)
    echo "$end - $start" | bc
  done | sort -n | sed -n 3p
}
printf '%-36s %s\n' "zentary:emulator letter" "$(median -d zentary:emulator -x 215.9 -y 279.4)"
printf '%-36s %s\n' "zentary:emulator 200x200mm" "$(median -d zentary:emulator -x 200 -y 200)"
printf '%-36s %s\n' "test 200x200mm" "$(median -d test -x 200 -y 200)"

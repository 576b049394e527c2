#!/bin/sh
# scanimage through our backend beside SANE's test backend: a letter page at
# 1200 dpi colour through each (the same size within a pixel: ours 10200 x
# 13200, the test backend 10199 x 13199 as it rounds down; 404 MB of
# PNM), wall time and scanimage's peak RSS, median of RUNS runs (default 3).
# A frame of 1 x 1 mm through each gives the fixed cost of a scan, which for
# ours is the scanner protocol's 0.3 s wait after the buffer reset: it is
# reported on its own line and taken out of the second ratio. Last, the page
# once more with TMPDIR on a 20 MB tmpfs: a backend that spools fails there.
# Usage: sane_scanimage.sh <build dir>    (RUNS=5 for more runs)
set -eu
build=$1
runs=${RUNS:-3}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
printf 'zentary\ntest\n' > "$work/dll.conf"
cp "$build/sane/zentary.conf" "$work/zentary.conf"
# The test backend stops at 200 mm and 1200 dpi unless told otherwise.
cat > "$work/test.conf" << EOF
geometry_min 0.0
geometry_max 300.0
geometry_quant 0.0
resolution_min 1.0
resolution_max 1200.0
resolution_quant 1.0
test-picture "Color pattern"
EOF
export SANE_CONFIG_DIR="$work" LD_LIBRARY_PATH="$build/sane" ZENTARY_SCANNER=emulator TMPDIR="$work"

# One line per run: seconds and peak resident KiB of scanimage.
measure() {
  for _ in $(seq "$runs"); do
    /usr/bin/time -f '%e %M' -o "$work/time" scanimage "$@" --mode Color -l 0 -t 0 > /dev/null 2> "$work/err" ||
      { cat "$work/err" >&2; exit 1; }
    cat "$work/time"
  done | sort -n | awk '{ t[NR] = $1; r[NR] = $2 } END {
      m = int((NR + 1) / 2); rmax = 0; for (i = 1; i <= NR; i++) if (r[i] > rmax) rmax = r[i]
      printf "%.3f %.3f %.3f %.1f\n", t[m], t[1], t[NR], rmax / 1024 }'
}
row() { printf '%-40s %8s s  [%s..%s]  peak RSS %6s MiB\n' "$@"; }

read -r ot ot_min ot_max ot_rss << EOF
$(measure -d zentary:emulator --resolution 1200 -x 1 -y 1)
EOF
read -r tt tt_min tt_max tt_rss << EOF
$(measure -d test --resolution 1200 -x 1 -y 1)
EOF
read -r op op_min op_max op_rss << EOF
$(measure -d zentary:emulator --resolution 1200 -x 215.9 -y 279.4)
EOF
read -r tp tp_min tp_max tp_rss << EOF
$(measure -d test --resolution 1200 -x 215.9 -y 279.4)
EOF
row "zentary:emulator 1 x 1 mm 1200 dpi" "$ot" "$ot_min" "$ot_max" "$ot_rss"
row "test 1 x 1 mm 1200 dpi" "$tt" "$tt_min" "$tt_max" "$tt_rss"
row "zentary:emulator letter 1200 dpi colour" "$op" "$op_min" "$op_max" "$op_rss"
row "test letter 1200 dpi colour" "$tp" "$tp_min" "$tp_max" "$tp_rss"
awk -v ot="$ot" -v tt="$tt" -v op="$op" -v tp="$tp" 'BEGIN {
  fixed = ot - tt; if (fixed < 0) fixed = 0
  printf "fixed cost of a scan (ours - test, 1 x 1 mm): %.3f s\n", fixed
  printf "ratio ours / test, letter 1200 dpi colour: %.2fx; without the fixed cost: %.2fx\n", op / tp, (op - fixed) / tp
}'
# Nothing of the image may go to disk: the same page with TMPDIR on a 20 MB
# tmpfs, mounted in a private user and mount namespace (no root needed).
mkdir "$work/small"
# shellcheck disable=SC2016 # the inner shell expands its arguments
if ! unshare -rm true 2> /dev/null; then
  result="not run (no user namespaces here)"
elif unshare -rm sh -c 'mount -t tmpfs -o size=20m tmpfs "$1" && TMPDIR="$1" exec scanimage -d zentary:emulator \
    --mode Color --resolution 1200 -l 0 -t 0 -x 215.9 -y 279.4 > /dev/null 2> "$2"' sh "$work/small" "$work/err"; then
  result=succeeds
else
  result="fails: $(tail -n 1 "$work/err")"
fi
echo "letter 1200 dpi colour with TMPDIR on a 20 MB tmpfs: $result"

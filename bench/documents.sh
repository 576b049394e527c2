#!/bin/sh
# Documents: a 300 dpi gray letter page (the typeset page of tests/data on the
# emulated glass) to PDF, in pages per minute, median of 5 runs each:
#   zentary-scan, one page and three pages, without and with --ocr eng;
#   scanimage --format=pdf through our SANE backend, the same page.
# The OCR time is the one-page time with --ocr less the one without (the
# last page's recognition overlaps no scan); with three pages the first two
# pages' recognition runs while the next page is scanned.
# OCR is measured as the tool runs it (one OpenMP thread) and with
# Tesseract's own OpenMP threads.
# Usage: documents.sh <build dir>   (zentary-scan and sane-zentary built)
set -eu
build=$(cd "$1" && pwd)
root=$(cd "$(dirname "$0")/.." && pwd)
page=$root/tests/data/garden-letter.png
tool=$build/tools/zentary-scan/zentary-scan
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
printf 'zentary\n' > "$work/dll.conf"
cp "$build/sane/zentary.conf" "$work/zentary.conf"
export SANE_CONFIG_DIR="$work" LD_LIBRARY_PATH="$build/sane" TMPDIR="$work"
device="emulator:image=$page"

median() {
  for i in 1 2 3 4 5; do
    rm -f "$work"/out*
    start=$(date +%s.%N)
    "$@" > /dev/null 2>&1 || { echo "failed: $*" >&2; exit 1; }
    end=$(date +%s.%N)
    echo "$end - $start" | bc
  done | sort -n | sed -n 3p
}
ours() {
  median "$tool" --device "$device" --mode gray --resolution 300 --area letter "$@"
}
perminute() { echo "scale=1; 60 * $1 / $2" | bc; }

tiff=$(ours "$work/out.tif")
one=$(ours "$work/out.pdf")
three=$(ours --pages 3 "$work/out.pdf")
one_ocr=$(ours --ocr eng "$work/out.pdf")
three_ocr=$(ours --ocr eng --pages 3 "$work/out.pdf")
# The tool runs Tesseract on one OpenMP thread unless told otherwise;
# against Tesseract's own choice of threads (no real limit).
one_ocr1=$(OMP_THREAD_LIMIT=64 ours --ocr eng "$work/out.pdf")
three_ocr1=$(OMP_THREAD_LIMIT=64 ours --ocr eng --pages 3 "$work/out.pdf")
# A 0.1 inch frame: what each path costs besides the page (the TWAIN scan
# cycle's fixed waits on our side).
tiny=$(median "$tool" --device "$device" --mode gray --resolution 300 --area 0,0,0.1,0.1 "$work/out.pdf")
sane_tiny=$(ZENTARY_SCANNER=$device median scanimage -d zentary:emulator --mode Gray --resolution 300 \
  -l 0 -t 0 -x 2.54 -y 2.54 --format=pdf -o "$work/out-sane.pdf")
sane=$(ZENTARY_SCANNER=$device median scanimage -d zentary:emulator --mode Gray --resolution 300 \
  -l 0 -t 0 -x 215.9 -y 279.4 --format=pdf -o "$work/out-sane.pdf")

printf '%-44s %10s %12s\n' "300 dpi gray letter page to PDF" "seconds" "pages/min"
printf '%-44s %10s %12s\n' "zentary-scan, 1 page to TIFF (file transfer)" "$tiff" "$(perminute 1 "$tiff")"
printf '%-44s %10s %12s\n' "zentary-scan, 1 page" "$one" "$(perminute 1 "$one")"
printf '%-44s %10s %12s\n' "zentary-scan, 3 pages" "$three" "$(perminute 3 "$three")"
printf '%-44s %10s %12s\n' "zentary-scan --ocr eng, 1 page" "$one_ocr" "$(perminute 1 "$one_ocr")"
printf '%-44s %10s %12s\n' "zentary-scan --ocr eng, 3 pages" "$three_ocr" "$(perminute 3 "$three_ocr")"
printf '%-44s %10s %12s\n' "  with Tesseract's OpenMP threads, 1 page" "$one_ocr1" "$(perminute 1 "$one_ocr1")"
printf '%-44s %10s %12s\n' "  with Tesseract's OpenMP threads, 3 pages" "$three_ocr1" "$(perminute 3 "$three_ocr1")"
printf '%-44s %10s %12s\n' "scanimage --format=pdf (zentary backend)" "$sane" "$(perminute 1 "$sane")"
printf '%-44s %10s\n' "OCR of one page (1 page with - without)" "$(echo "$one_ocr - $one" | bc)"
printf '%-44s %10s\n' "  with Tesseract's OpenMP threads" "$(echo "$one_ocr1 - $one" | bc)"
printf '%-44s %10s\n' "zentary-scan / scanimage time, 1 page" "$(echo "scale=2; $one / $sane" | bc)"
printf '%-44s %10s %12s\n' "0.1 in frame: zentary-scan, scanimage" "$tiny" "$sane_tiny"
printf '%-44s %10s\n' "the same ratio less the 0.1 in frame" "$(echo "scale=2; ($one - $tiny) / ($sane - $sane_tiny)" | bc)"

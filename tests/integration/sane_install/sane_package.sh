#!/usr/bin/env bash
# The Debian package as CPack builds it: the SANE backend where Debian's
# libsane loads backends, its configuration as conffiles, its manual page;
# then scanimage, with nothing but the unpacked package, finds and scans.
# Usage: sane_package.sh <build dir> <source dir>
set -euo pipefail
build=$1 source=$2
for tool in cpack dpkg-deb scanimage readelf; do
  command -v "$tool" > /dev/null || { echo "SKIP: $tool is missing (scripts/bootstrap installs it)"; exit 77; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0
fail() { echo "FAIL: $*" >&2; status=1; }

# Where this system's libsane loads backends from: beside its own net backend.
loader_dir=$(dirname "$(dpkg -L libsane1 | grep '/libsane-net\.so\.1$')")

# Compression and the dependency scan cost seconds and change no path.
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/pkg" \
  -D CPACK_DEBIAN_PACKAGE_SHLIBDEPS=OFF -D CPACK_DEBIAN_COMPRESSION_TYPE=none > "$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log"; exit 1; }
deb=$(echo "$work"/pkg/*.deb)

dir_pattern=${loader_dir//./\\.}
# The layout: type, path and link target of each entry, as dpkg-deb lists them.
listing=$(dpkg-deb -c "$deb" | awk '{ t = substr($1, 1, 1); $1 = $2 = $3 = $4 = $5 = ""; sub(/^ +/, ""); print t, $0 }')
while read -r pattern; do
  grep -Eqx -- "$pattern" <<< "$listing" || fail "the package has no entry matching: $pattern"
done << EOF
- \./etc/sane\.d/zentary\.conf
- \./etc/sane\.d/dll\.d/zentary
l \.$dir_pattern/libsane-zentary\.so\.1 -> libsane-zentary\.so\.1\.[0-9]+\.[0-9]+
- \.$dir_pattern/libsane-zentary\.so\.1\.[0-9]+\.[0-9]+
- \./usr/share/man/man5/sane-zentary\.5\.gz
EOF
grep -q 'libsane-zentary\.so ' <<< "$listing" && fail "the package ships the development link libsane-zentary.so"
conffiles=$(dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./conffiles 2> /dev/null | sort || true)
[ "$conffiles" = $'/etc/sane.d/dll.d/zentary\n/etc/sane.d/zentary.conf' ] ||
  fail "conffiles should be the two files under /etc/sane.d, are: ${conffiles:-none}"

root=$work/root
dpkg-deb -x "$deb" "$root"
backend=$root$loader_dir/libsane-zentary.so.1
readelf -d "$backend" | grep -q 'SONAME.*\[libsane-zentary\.so\.1\]' || fail "the backend's SONAME is not libsane-zentary.so.1"
grep -qx zentary "$root/etc/sane.d/dll.d/zentary" || fail "dll.d/zentary does not name the backend"
capabilities=$(awk '$1 == "capabilities" { print $2 }' "$root/etc/sane.d/zentary.conf")
compgen -G "$root$capabilities/*.plist" > /dev/null ||
  fail "zentary.conf names $capabilities, which holds no capability definitions in the package"
if command -v groff > /dev/null; then
  warnings=$(zcat "$root/usr/share/man/man5/sane-zentary.5.gz" | groff -man -ww -z 2>&1)
  [ -z "$warnings" ] || fail "the manual page does not format cleanly: $warnings"
fi
# The description file speaks of the device the package's udev rule is for.
desc=$source/src/sane/zentary.desc
rule=$(cat "$root"/usr/lib/udev/rules.d/*zentary*.rules)
if ! grep -q ':usbid "0x2e5d" "0x4a21"' "$desc" || ! grep -q 'idVendor}=="2e5d", ATTR{idProduct}=="4a21"' <<< "$rule"; then
  fail "zentary.desc and the udev rule name different devices"
fi
grep -qx ":version \"$(dpkg-deb -f "$deb" Version)\"" "$desc" || fail "zentary.desc's :version is not the package's"

# scanimage against the unpacked tree: the loader finds the backend through
# dll.d alone (dll.conf lists nothing) in the directory the package chose.
etc=$work/etc
cp -r "$root/etc/sane.d" "$etc"
: > "$etc/dll.conf"
sed -i "s|^capabilities .*|capabilities $root$capabilities|" "$etc/zentary.conf"
export SANE_CONFIG_DIR=$etc LD_LIBRARY_PATH=$root$loader_dir ZENTARY_SCANNER=emulator TMPDIR=$work
scanimage -L 2> "$work/err" | grep -q "^device \`zentary:emulator'" || fail "scanimage -L does not list zentary:emulator: $(cat "$work/err")"
scanimage -d zentary:emulator --mode Gray --resolution 150 -x 25.4 -y 25.4 > "$work/out.pnm" 2> "$work/err" ||
  fail "a scan from the installed tree failed: $(cat "$work/err")"
[ "$(head -c 35 "$work/out.pnm")" = $'P5\n# SANE data follows\n150 150\n255' ] || fail "the scan is not a 150 x 150 gray picture"
exit $status

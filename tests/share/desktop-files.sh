#!/bin/sh
# What a desktop and a software centre find once calvarine is installed: the
# desktop entry, the AppStream metainfo (validated by appstreamcli against the
# installed tree, so its launchable must be there), and the icon as SVG and as
# PNGs of the size their hicolor folder says.
#
#   desktop-files.sh BUILD_DIR
#
# Exits 77 (skipped, not passed) without appstreamcli (package appstream).
set -u
build=$1
if ! command -v appstreamcli >/dev/null; then
  echo "SKIPPED: no appstreamcli (scripts/install-deps installs appstream)"
  exit 77
fi
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
failures=0
failed() {
  echo "FAILED: $1"
  failures=$((failures + 1))
}

cmake --install "$build" --prefix "$prefix" >"$prefix/install.log" 2>&1 || { cat "$prefix/install.log"; exit 1; }
share=$prefix/share
[ -f "$share/applications/calvarine.desktop" ] || failed "no desktop entry installed"
grep -q '^Icon=calvarine$' "$share/applications/calvarine.desktop" || failed "the desktop entry names another icon"
[ -f "$share/metainfo/org.calvarine.calvarine.metainfo.xml" ] || failed "no metainfo installed"
# Warnings fail as errors do; pedantic hints are only shown.
appstreamcli validate-tree --no-net --pedantic "$prefix" || failed "appstreamcli refuses the installed tree"

# A PNG's width and height are the big-endian words at bytes 16 and 20.
dimension() {
  od -An -tu1 -j"$2" -N4 "$1" | awk '{print $1 * 16777216 + $2 * 65536 + $3 * 256 + $4}'
}
[ -f "$share/icons/hicolor/scalable/apps/calvarine.svg" ] || failed "no SVG icon"
for size in 16 22 24 32 48 64 128 256; do
  png=$share/icons/hicolor/${size}x$size/apps/calvarine.png
  if [ ! -f "$png" ]; then
    failed "no ${size}x$size icon"
    continue
  fi
  [ "$(od -An -c -j1 -N3 "$png" | tr -d ' ')" = PNG ] || failed "$png is not a PNG"
  [ "$(dimension "$png" 16)x$(dimension "$png" 20)" = "${size}x$size" ] || failed "$png is $(dimension "$png" 16)x$(dimension "$png" 20)"
done

[ "$failures" -eq 0 ] && echo "desktop files: entry, metainfo and icons (SVG, 8 PNG sizes) installed and valid"
exit "$failures"

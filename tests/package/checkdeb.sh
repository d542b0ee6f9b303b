#!/usr/bin/env bash
# Makes the .deb with cpack in a scratch folder and checks it as a user's
# apt would meet it, without installing anything.
set -euo pipefail
build=$1
version=$2

for tool in cpack dpkg-deb dpkg-shlibdeps lintian readelf; do
  command -v "$tool" >/dev/null || { echo "SKIP: $tool is not installed (scripts/install-deps)"; exit 77; }
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

arch=$(dpkg --print-architecture)
deb="$work/orvane_${version}_${arch}.deb"
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work" >"$work/cpack.log" 2>&1 \
  || { cat "$work/cpack.log"; echo "FAIL: cpack"; exit 1; }
[ -f "$deb" ] || { ls "$work"; echo "FAIL: no $(basename "$deb")"; exit 1; }

# The files users get, and nothing of the build (libraries, headers, tests).
dpkg-deb -c "$deb" | awk '{print $6}' | sed 's|^\./|/|' | grep -v '/$' | sort >"$work/files"
expected=(
  /usr/bin/orvane
  /usr/bin/orvane-trim
  /usr/share/applications/app.orvane.Orvane.desktop
  /usr/share/metainfo/app.orvane.Orvane.metainfo.xml
  /usr/share/icons/hicolor/scalable/apps/app.orvane.Orvane.svg
  /usr/share/icons/hicolor/48x48/apps/app.orvane.Orvane.png
  /usr/share/icons/hicolor/256x256/apps/app.orvane.Orvane.png
  /usr/share/man/man1/orvane.1.gz
  /usr/share/man/man1/orvane-trim.1.gz
  /usr/share/doc/orvane/copyright
  /usr/share/doc/orvane/changelog.gz
)
for f in "${expected[@]}"; do grep -qx "$f" "$work/files" || fail "$f is not in the package"; done
unexpected=$(grep -Ev '^/usr/(bin/orvane(-trim)?|share/(applications|metainfo|icons/hicolor|man/man1|doc/orvane)/.*)$' "$work/files" || true)
[ -z "$unexpected" ] || fail "unexpected files: $unexpected"

# Dependencies found by dpkg-shlibdeps, with versions, plus the run-time plugins.
depends=$(dpkg-deb -f "$deb" Depends)
for p in 'libc6 (>=' 'libqt6widgets6 (>=' 'libqt6network6 (>=' 'libvips42 (' 'libsodium23 (>=' \
         qt6-qpa-plugins libqt6svg6; do
  [[ $depends == *"$p"* ]] || fail "Depends lacks $p: $depends"
done
[ "$(dpkg-deb -f "$deb" Package)" = orvane ] || fail "the package is not called orvane"
[ "$(dpkg-deb -f "$deb" Version)" = "$version" ] || fail "the version is not $version"

# lintian: no errors (warnings are reported, not fatal).
if ! lintian --fail-on error --tag-display-limit 0 "$deb" >"$work/lintian.log" 2>&1; then
  cat "$work/lintian.log"
  fail "lintian reports errors"
fi

# The unpacked programs: no RUNPATH or RPATH, and orvane-trim runs.
dpkg-deb -x "$deb" "$work/root"
for exe in "$work/root/usr/bin/orvane" "$work/root/usr/bin/orvane-trim"; do
  if readelf -d "$exe" | grep -Eq 'RUNPATH|RPATH'; then fail "$(basename "$exe") has a RUNPATH"; fi
done
out=$("$work/root/usr/bin/orvane-trim" --version) || fail "orvane-trim --version failed"
[[ $out == *"$version"* ]] || fail "orvane-trim --version says \"$out\", not $version"
zcat "$work/root/usr/share/man/man1/orvane-trim.1.gz" | grep -qF -- '\-\-in\-place' \
  || fail "the manual page does not describe orvane-trim's options"

[ "$failures" -eq 0 ] || exit 1
echo "orvane_${version}_${arch}.deb: $(wc -l <"$work/files") files; Depends: $depends"

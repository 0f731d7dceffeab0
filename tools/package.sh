#!/usr/bin/env bash
# Builds the Debian package from a copy of the working tree (dpkg-buildpackage
# writes into the parent folder), checks it with lintian (an error fails) and
# verifies the systemd units against the package's own binary.
# usage: tools/package.sh [OUTPUT_DIR]   (default: build-package)
set -euo pipefail
cd "$(dirname "$0")/.."
out=$(realpath -m "${1:-build-package}")
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

echo "-- copying the tree"
mkdir "$tmp/sentrel"
git ls-files -z --cached --others --exclude-standard | tar --null -T - -cf - | tar -xf - -C "$tmp/sentrel"

echo "-- dpkg-buildpackage"
start=$SECONDS
(cd "$tmp/sentrel" && DEB_BUILD_OPTIONS="parallel=2 ${DEB_BUILD_OPTIONS:-}" \
  dpkg-buildpackage -b -us -uc >"$tmp/build.log" 2>&1) || { tail -n 60 "$tmp/build.log"; exit 1; }
echo "($((SECONDS - start)) s)"
deb=$(ls "$tmp"/sentrel_*.deb)
mkdir -p "$out"
cp "$tmp"/*.deb "$tmp"/*.buildinfo "$tmp"/*.changes "$out"/
echo "built $out/$(basename "$deb")"

echo "-- lintian"
# Errors fail; warnings and the rest are shown.
lintian --fail-on error --display-info "$deb"

echo "-- systemd-analyze verify"
dpkg-deb -x "$deb" "$tmp/root"
units="$tmp/units"
mkdir "$units"
# verify wants the ExecStart binary to exist: point it at the package's own.
sed "s|/usr/bin/sentrel|$tmp/root/usr/bin/sentrel|" "$tmp/root/lib/systemd/system/sentrel.service" \
  >"$units/sentrel.service"
cp "$tmp/root/lib/systemd/system/sentrel.timer" "$units/"
sed "s|/usr/sbin/sentrel-attestd|$tmp/root/usr/sbin/sentrel-attestd|" \
  "$tmp/root/lib/systemd/system/sentrel-attestd.service" >"$units/sentrel-attestd.service"
# Its Documentation= is checked with man: the package's own page.
MANPATH="$tmp/root/usr/share/man" SYSTEMD_LOG_LEVEL=notice systemd-analyze verify "$units/sentrel.service" \
  "$units/sentrel.timer" "$units/sentrel-attestd.service"
# The attestz service's sandbox: an exposure of at most 2.0 (20 on this scale).
systemd-analyze security --offline=true --threshold=20 "$units/sentrel-attestd.service" | grep "Overall exposure level"
"$tmp/root/usr/bin/sentrel" --version
"$tmp/root/usr/sbin/sentrel-attestd" --version
"$tmp/root/usr/bin/sentrel-verify" --version
echo "package: passed"

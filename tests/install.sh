#!/usr/bin/env bash
# Installs the build into a staging folder, moves the tree elsewhere and runs
# the moved sentrel on the sample switch: the installed tree must find its
# agent and framework through its own relative paths, wherever it lies.
# usage: install.sh BUILD_DIR SOURCE_DIR VERSION BINDIR MANDIR UNITDIR SBINDIR
set -euo pipefail
build=$1 source=$2 version=$3 bindir=$4 mandir=$5 unitdir=$6 sbindir=$7
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "install test: $*" >&2; exit 1; }

DESTDIR="$tmp/staged" cmake --install "$build" --prefix /usr >/dev/null
mv "$tmp/staged" "$tmp/moved"
root="$tmp/moved"
prefix="$root/usr"
sentrel="$prefix/$bindir/sentrel"
[[ $unitdir == /* ]] && units="$root$unitdir" || units="$prefix/$unitdir"

verify="$prefix/$bindir/sentrel-verify"
for f in "$prefix/$mandir/man1/sentrel.1" "$prefix/$mandir/man1/sentrel-verify.1" "$units/sentrel.service" "$units/sentrel.timer" \
         "$prefix/$mandir/man8/sentrel-attestd.8" "$units/sentrel-attestd.service" \
         "$prefix/lib/modules-load.d/sentrel.conf" "$prefix/share/doc/sentrel/examples/defaults.json" \
         "$prefix/share/doc/sentrel/examples/toggles/Sentrel.json"; do
  [[ -f $f ]] || fail "not installed: ${f#"$root"}"
done

[[ $("$sentrel" --version) == "sentrel $version" ]] || fail "--version printed '$("$sentrel" --version)'"
attestd="$prefix/$sbindir/sentrel-attestd"
[[ $("$attestd" --version) == "sentrel-attestd $version" ]] || fail "sentrel-attestd --version printed '$("$attestd" --version)'"
grep -qx ".TH SENTREL 1 .* \"sentrel $version\" .*" "$prefix/$mandir/man1/sentrel.1" ||
  fail "the manual page names another version: $(head -1 "$prefix/$mandir/man1/sentrel.1")"

# The framework comes from the moved tree, not from the build folder.
for program in "$sentrel" "$verify"; do
  framework=$(ldd "$program" | awk '/libSentrelPlatform/ {print $3}')
  [[ $framework == "$prefix"/* ]] || fail "the framework of $(basename "$program") resolves to '$framework'"
done
[[ $("$verify" --version) == "sentrel-verify $version" ]] || fail "--version printed '$("$verify" --version)'"

# The moved tree's agent ran: its first fact and warning are in the report.
report=$(SENTREL="$sentrel" "$source/examples/run.sh" intel --no-syslog --format json) ||
  fail "the sample switch run exited with $?"
grep -q '"cpuVendor": "GenuineIntel"' <<<"$report" && grep -q '"name": "TARN_DEPRECATION_WARNING"' <<<"$report" ||
  fail "unexpected report: $report"

if command -v man >/dev/null; then
  for page in "$prefix/$mandir/man1/sentrel.1" "$prefix/$mandir/man1/sentrel-verify.1" \
              "$prefix/$mandir/man8/sentrel-attestd.8"; do
    warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
    [[ -z $warnings ]] || fail "the manual page ${page##*/}: $warnings"
  done
fi
echo "install test: passed"

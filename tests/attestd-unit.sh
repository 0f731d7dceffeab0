#!/usr/bin/env bash
# sentrel-attestd.service as systemd reads it: systemd-analyze verify (with
# ExecStart pointed at the built program and the manual page of the build),
# and its sandbox's exposure at most 2.0 in systemd-analyze security.
# usage: attestd-unit.sh UNIT_FILE ATTESTD MAN_PAGE
set -euo pipefail
unit=$1 attestd=$2 page=$3
if ! command -v systemd-analyze >/dev/null; then
  echo "systemd-analyze is not installed: skipped"
  exit 77
fi
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
mkdir -p "$tmp/units" "$tmp/man/man8"
sed "s|/usr/sbin/sentrel-attestd|$attestd|" "$unit" >"$tmp/units/sentrel-attestd.service"
cp "$page" "$tmp/man/man8/"
MANPATH="$tmp/man" SYSTEMD_LOG_LEVEL=notice systemd-analyze verify "$tmp/units/sentrel-attestd.service"
# The threshold is on the scale of 0 to 100 that shows as 0.0 to 10.0.
systemd-analyze security --offline=true --threshold=20 "$tmp/units/sentrel-attestd.service" |
  grep "Overall exposure level"
echo "sentrel-attestd.service: passed"

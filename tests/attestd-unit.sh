#!/usr/bin/env bash
# attestd-unit.sh UNIT ATTESTD MAN_PAGE: the unit passes systemd-analyze verify (ExecStart pointed at the built
# program, the build's manual page) and its sandbox's exposure is at most 2.0 (20 of 100) in systemd-analyze security.
set -euo pipefail
command -v systemd-analyze >/dev/null || { echo "systemd-analyze is not installed: skipped"; exit 77; }
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
install -Dt "$tmp/man/man8" "$3"
sed "s|/usr/sbin/sentrel-attestd|$2|" "$1" >"$tmp/sentrel-attestd.service"
MANPATH="$tmp/man" SYSTEMD_LOG_LEVEL=notice systemd-analyze verify "$tmp/sentrel-attestd.service"
systemd-analyze security --offline=true --threshold=20 "$tmp/sentrel-attestd.service" | grep "Overall exposure level"

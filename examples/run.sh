#!/usr/bin/env bash
# Runs the host on the sample switch: `examples/run.sh [intel|amd] [sentrel options]`.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
variant=intel
case "${1:-}" in intel|amd) variant=$1; shift ;; esac
sentrel="${SENTREL:-$here/../build/bin/sentrel}"
cd "$here/switch"
# SENTREL_WRAPPER runs the host under another program (valgrind, say).
PATH="$here/switch/$variant/bin:$PATH" exec ${SENTREL_WRAPPER:-} "$sentrel" --state state.json --sysroot "$variant/root" \
  --toggles toggles --script script.txt --no-syslog --event-log tpm/binary_bios_measurements \
  --baseline tpm/baseline.json "$@"

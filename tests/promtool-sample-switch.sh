#!/usr/bin/env bash
# `promtool check metrics` on the metrics of the sample switch, Intel and AMD:
# `tests/promtool-sample-switch.sh SENTREL PROMTOOL`.
set -euo pipefail
sentrel=$1 promtool=$2
here="$(cd "$(dirname "$0")" && pwd)"
out="$(mktemp)"
trap 'rm -f "$out"' EXIT
for variant in intel amd; do
  SENTREL="$sentrel" "$here/../examples/run.sh" "$variant" --no-syslog --format openmetrics >"$out"
  # The sample script's invoke prints its result as a comment, checked too.
  grep -q '^sentrel_fact{entity="tarn/sb/status",attribute="statusFlags"} ' "$out" || {
    echo "$variant: no statusFlags fact" >&2
    exit 1
  }
  # promtool prints lint findings and fails on them.
  "$promtool" check metrics <"$out" || { echo "$variant: promtool check metrics failed" >&2; exit 1; }
  echo "$variant: promtool check metrics passed"
done

#!/usr/bin/env bash
# Runs every fuzzer of a libFuzzer build for the given seconds, starting from
# a copy of its seed corpus: `tools/fuzz.sh BUILD_DIR SECONDS`.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-fuzz}
seconds=${2:-60}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
for seeds in fuzz/corpus/*/; do
  name=$(basename "$seeds")
  mkdir -p "$work/$name"
  cp -r "$seeds". "$work/$name/"
  # The JSON readers take inputs long enough to nest 100,000 levels deep;
  # the line-based ones see all they need in 4 KiB; an event log seed, or a
  # switch's response, is a few kilobytes.
  case "$name" in
    host_state_fuzz|host_script_fuzz|vexo_json_fuzz) max_len=1048576 ;;
    event_log_fuzz|baseline_fuzz|attest_response_fuzz) max_len=65536 ;;
    *) max_len=4096 ;;
  esac
  echo "-- $name"
  if ! "$build/bin/$name" -max_total_time="$seconds" -max_len="$max_len" -timeout=10 -rss_limit_mb=4096 \
       -artifact_prefix="$work/$name-" "$work/$name" >"$work/$name.log" 2>&1; then
    tail -n 40 "$work/$name.log"
    failed=1
  else
    grep -E '^#[0-9]+.*DONE|Done [0-9]+ runs' "$work/$name.log" | tail -n 1
  fi
done
[ "$failed" -eq 0 ] && echo "fuzzers: $(ls -d fuzz/corpus/*/ | wc -l) passed, 0 failed"
exit $failed

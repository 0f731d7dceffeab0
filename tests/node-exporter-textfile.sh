#!/usr/bin/env bash
# The metrics file as node_exporter's textfile collector serves it: writes the
# sample switch's metrics with --output into a folder, starts the real
# exporter on 127.0.0.1 reading that folder, scrapes /metrics and stops it.
# `tests/node-exporter-textfile.sh SENTREL NODE_EXPORTER CURL`.
set -euo pipefail
sentrel=$1 exporter=$2 curl=$3
here="$(cd "$(dirname "$0")" && pwd)"
tmp="$(mktemp -d)"
pid=""
stop() {
  if [ -n "$pid" ]; then
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  fi
  rm -rf "$tmp"
}
trap stop EXIT

# The sample script's output stands as comments in the file.
SENTREL="$sentrel" "$here/../examples/run.sh" intel --no-syslog --format openmetrics \
  --output "$tmp/sentrel.prom"

free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# A port found free may be taken before the exporter binds it: try a few.
scraped=""
for attempt in 1 2 3; do
  port="$(free_port)"
  "$exporter" --web.listen-address="127.0.0.1:$port" --collector.disable-defaults --collector.textfile \
    --collector.textfile.directory="$tmp" >"$tmp/exporter.log" 2>&1 &
  pid=$!
  for _ in $(seq 50); do
    if scraped="$("$curl" --silent --fail --noproxy '*' --max-time 2 "http://127.0.0.1:$port/metrics")"; then
      break 2
    fi
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
  done
  kill "$pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || true
  pid=""
done
if [ -z "$scraped" ]; then
  echo "node_exporter did not answer" >&2
  cat "$tmp/exporter.log" >&2
  exit 1
fi

fail=0
expect() {
  grep -qxF -- "$1" <<<"$scraped" || { echo "missing: $1" >&2; fail=1; }
}
# The exporter sorts the labels by name.
expect 'node_textfile_scrape_error 0'
expect 'sentrel_fact{attribute="statusFlags",entity="tarn/sb/status"} 33'
expect 'sentrel_fact_info{attribute="cpuVendor",entity="sentrel/firstInstructionSecurity",value="GenuineIntel"} 1'
expect 'sentrel_set_member{attribute="requiredPcrBank",entity="tarn/pcrConfig/status",member="sha384"} 1'
expect 'sentrel_map_entry{attribute="featureRev",entity="tarn/features/status",key="secureboot"} 26'
expect 'sentrel_entity_present{entity="hardware/sentrel/config/sentrel"} 1'
expect 'sentrel_warnings{name="SENTREL_WARNING"} 2'
grep -q '^sentrel_last_run_timestamp_seconds [0-9.e+]*$' <<<"$scraped" || { echo "missing: run time" >&2; fail=1; }
grep -q '^sentrel_build_info{version="[^"]*"} 1$' <<<"$scraped" || { echo "missing: build info" >&2; fail=1; }
if [ "$fail" -ne 0 ]; then
  grep '^sentrel_\|^node_textfile' <<<"$scraped" >&2
  exit 1
fi
echo "node_exporter serves the sentrel series"

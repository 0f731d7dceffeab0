#!/usr/bin/env bash
# Installs what is needed, builds, and runs the host on the sample switch.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSENTREL_TESTS=OFF -DSENTREL_BENCH=OFF
cmake --build build -j2 --target sentrel Sentrel
exec examples/run.sh "$@"

#!/usr/bin/env bash
# Installs only what building and running need, builds, and runs the host
# on the sample switch.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/deps.sh build
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSENTREL_TESTS=OFF -DSENTREL_BENCH=OFF
cmake --build build -j2 --target sentrel Sentrel
exec examples/run.sh "$@"

#!/usr/bin/env bash
# Installs what is needed, then builds with warnings as errors and runs every
# test: g++ (with a valgrind run of the host), clang with ASan and UBSan, and
# each fuzzer for a while under clang; last, builds and checks the Debian
# package.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/deps.sh test
jobs=2
fuzz_seconds=${SENTREL_FUZZ_SECONDS:-20}

echo "== g++: build and test"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSENTREL_TESTS=ON -DSENTREL_BENCH=ON
cmake --build build -j$jobs
ctest --test-dir build -j$jobs --output-on-failure --no-tests=error

echo "== clang with ASan and UBSan: build and test"
CC=clang CXX=clang++ cmake -S . -B build-sanitize -DCMAKE_BUILD_TYPE=Debug -DSENTREL_SANITIZE=ON -DSENTREL_TESTS=ON \
  -DSENTREL_BENCH=OFF
cmake --build build-sanitize -j$jobs
# valgrind does not mix with ASan.
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-sanitize -j$jobs --output-on-failure --no-tests=error -E valgrind

echo "== clang with libFuzzer: ${fuzz_seconds} s a fuzzer"
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSENTREL_FUZZ=ON \
  -DSENTREL_TESTS=OFF -DSENTREL_BENCH=OFF
cmake --build build-fuzz -j$jobs
tools/fuzz.sh build-fuzz "$fuzz_seconds"

echo "== Debian package"
tools/package.sh build-package

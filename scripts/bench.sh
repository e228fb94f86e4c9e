#!/usr/bin/env bash
# Installs what is missing, builds the benchmarks in Release into build/bench, runs them
# against a private bus daemon and prints the library / raw C ratios at the end.
# Extra arguments go to the benchmark binary (e.g. --benchmark_filter=encode).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh libbenchmark-dev
cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DORVIX_BUILD_BENCH=ON \
    -DORVIX_BUILD_TESTS=OFF -DORVIX_BUILD_EXAMPLES=OFF
cmake --build build/bench --target orvix_bench
build/bench/bench/orvix_bench --benchmark_min_time=0.2 "$@"

#!/usr/bin/env bash
# Builds the benchmarks in a Release build (build-bench/) with their peer
# libraries, runs them, and writes the tables of docs/benchmarks.md.
#
#   scripts/bench.sh [extra Google Benchmark flags, e.g. --benchmark_filter=Decode/]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh --build-dir build-bench --benchmarks
mkdir -p build-bench/results
build-bench/bin/JSONBenchmarks --benchmark_min_time=0.5 --benchmark_repetitions=3 \
  --benchmark_report_aggregates_only=true --benchmark_out=build-bench/results/json.json --benchmark_out_format=json "$@"
python3 Benchmarks/report.py build-bench/results/json.json > build-bench/results/json.md
echo "Tables written to build-bench/results/json.md"
# The desktop client's start and scrolling, when it was built (Qt 6 Widgets found).
if [ -x build-bench/bin/DesktopBenchmarks ]; then
  build-bench/bin/DesktopBenchmarks --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
    --benchmark_out=build-bench/results/desktop.json --benchmark_out_format=json
fi

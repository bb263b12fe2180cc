#!/usr/bin/env bash
# Builds the benchmarks (release) and runs them: the hot path's functions, then kvt end to end.
#   scripts/bench.sh [FILTER]      FILTER goes to Google Benchmark
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh test bench
cmake --preset bench -G Ninja >/dev/null
cmake --build build-bench -j "$(nproc)" >/dev/null
for program in build-bench/bench_*; do
    [[ -x $program && ! -d $program ]] || continue
    echo "--- ${program##*/} ---"
    "$program" --benchmark_filter="${1:-.}" --benchmark_min_time=0.3 --benchmark_repetitions=3 \
        --benchmark_report_aggregates_only=true --benchmark_counters_tabular=true
done
if [[ -z ${1:-} ]]; then
    bench/e2e_tcp.py build-bench
    bench/index_big.py build-bench
    bench/soak_echo.py build-bench
    bench/http_front.py build-bench
fi

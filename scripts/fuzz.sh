#!/usr/bin/env bash
# Runs each fuzz harness for a few seconds over its corpus.
#   scripts/fuzz.sh BUILD_FOLDER [SECONDS]
# New inputs are kept in BUILD_FOLDER/corpus; a crashing input is left in BUILD_FOLDER/artifacts.
set -euo pipefail
cd "$(dirname "$0")/.."
build=$1
seconds=${2:-5}
mkdir -p "$build/artifacts"
count=0
for harness in "$build"/fuzz_*; do
    [[ -x $harness && ! -d $harness ]] || continue
    name=${harness##*/}
    seeds=fuzz/corpus/${name#fuzz_}
    kept=$build/corpus/$name
    mkdir -p "$kept"
    echo "--- $name: $seconds s ---"
    if ! "$harness" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=0 -verbosity=0 \
        -artifact_prefix="$build/artifacts/$name-" "$kept" "$seeds" >"$build/$name.log" 2>&1; then
        tail -40 "$build/$name.log"
        exit 1
    fi
    count=$((count + 1))
done
((count > 0)) || { echo "no harness found in $build" >&2; exit 1; }
echo "fuzz: $count harnesses, no finding"

#!/usr/bin/env bash
# All tests, from a fresh checkout: unit tests, the same under sanitizers, fuzz corpora, end to end, checks.
#   scripts/test.sh [STAGE]...     without arguments all stages run in order; the first that fails ends the run
# Ends with the test runners' own closing lines and names the stage that failed.
set -euo pipefail
cd "$(dirname "$0")/.."

all_stages=(bootstrap checks build unit sanitize fuzz e2e)
stages=("$@")
((${#stages[@]})) || stages=("${all_stages[@]}")
jobs=$(nproc)
python=/usr/bin/python3
launcher=()
stage=none
trap 'status=$?; if ((status)); then echo "FAILED in stage: $stage" >&2; fi' EXIT

configure() { # PRESET
    command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    cmake --preset "$1" -G Ninja "${launcher[@]}" >/dev/null
}

run_stage() {
    case $1 in
    bootstrap)
        scripts/bootstrap.sh test
        ;;
    checks)
        scripts/check_includes.py
        scripts/check_format.sh
        for page in docs/man/*.[1-8]; do mandoc -Tlint -Wwarning "$page"; done
        ;;
    build)
        configure test
        cmake --build build-test -j "$jobs"
        ;;
    unit)
        ctest --test-dir build-test -j "$jobs" --output-on-failure --no-tests=error
        ;;
    sanitize)
        configure asan
        cmake --build build-asan -j "$jobs"
        # A death test's child leaves memory behind on purpose.
        ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 \
            ctest --test-dir build-asan -j "$jobs" --output-on-failure --no-tests=error
        ;;
    fuzz)
        configure fuzz
        cmake --build build-fuzz -j "$jobs"
        scripts/fuzz.sh build-fuzz "${KVT_FUZZ_SECONDS:-5}"
        ;;
    e2e)
        KVT_BUILD=$PWD/build-test $python -m pytest -q tests/e2e
        ;;
    *)
        echo "unknown stage: $1 (of: ${all_stages[*]})" >&2
        exit 2
        ;;
    esac
}

for stage in "${stages[@]}"; do
    echo "=== $stage ==="
    started=$SECONDS
    run_stage "$stage"
    echo "=== $stage: $((SECONDS - started)) s ==="
done

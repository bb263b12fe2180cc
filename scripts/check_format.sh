#!/usr/bin/env bash
# Checks that C++ sources are formatted; with --fix, formats them.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files '*.h' '*.cpp')
if [[ ${1:-} == --fix ]]; then
    clang-format -i "${files[@]}"
else
    clang-format --dry-run --Werror "${files[@]}"
    echo "format check: ${#files[@]} files"
fi

#!/usr/bin/env bash
# clang-format over all our sources, clang-tidy over what the debug build compiles.
#   tests/lint.sh [format|tidy]    (default both)
set -euo pipefail
cd "$(dirname "$0")/.."
what=${1:-all}
mapfile -t sources < <(git ls-files '*.cpp' '*.c' '*.h')
if [ "$what" != tidy ]; then
    clang-format --dry-run --Werror "${sources[@]}"
    echo "clang-format: ${#sources[@]} files are formatted"
fi
if [ "$what" != format ]; then
    cmake --preset debug >/dev/null
    cmake --build build/debug --parallel "$(nproc)" -- --quiet
    mapfile -t compiled < <(git ls-files 'src/*.cpp' 'lis/*.cpp' 'formatter/*.cpp' 'tools/*.cpp')
    printf '%s\n' "${compiled[@]}" | xargs -P "$(nproc)" -n 4 clang-tidy --quiet -p build/debug
    echo "clang-tidy: ${#compiled[@]} files are clean"
fi

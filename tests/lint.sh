#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# clang-format over all our sources and what it does not see: file-local names stand in an
# anonymous namespace, C++ includes <cstring> and not <string.h>. clang-tidy over what the
# debug build compiles; of tests, benchmarks and fuzzers it reads the names only.
#   tests/lint.sh [format|tidy]    (default both)
set -euo pipefail
cd "$(dirname "$0")/.."
what=${1:-all}
mapfile -t sources < <(git ls-files '*.cpp' '*.c' '*.h' '*.hpp')
if [ "$what" != tidy ]; then
    clang-format --dry-run --Werror "${sources[@]}"
    echo "clang-format: ${#sources[@]} files are formatted"
    mapfile -t unlicensed < <(git ls-files '*.cpp' '*.hpp' '*.c' '*.h' '*.py' '*.sh' '*CMakeLists.txt' '*.cmake' dev .ci |
        xargs grep -L 'SPDX-License-Identifier: Apache-2.0')
    if [ ${#unlicensed[@]} != 0 ]; then
        printf '%s: no SPDX line\n' "${unlicensed[@]}" >&2
        exit 1
    fi
    if git grep -nE '^static [^_]' -- '*.cpp' '*.h' ':!include/*'; then
        echo "file-local names belong into an anonymous namespace" >&2
        exit 1
    fi
    c_headers='assert|ctype|errno|inttypes|limits|locale|math|setjmp|signal|stdarg|stddef|stdint|stdio|stdlib|string|time|wchar|wctype'
    if git grep -nE "#include <($c_headers)\\.h>" -- '*.cpp' '*.h' ':!include/*'; then
        echo "C++ includes <cstring>, not <string.h>" >&2
        exit 1
    fi
fi
if [ "$what" != format ]; then
    cmake --preset debug >/dev/null
    cmake --build build/debug --parallel "$(nproc)" -- --quiet
    mapfile -t compiled < <(git ls-files 'src/*.cpp' 'lis/*.cpp' 'formatter/*.cpp' 'syslog/*.cpp' 'tools/*.cpp')
    printf '%s\n' "${compiled[@]}" | xargs -P "$(nproc)" -n 4 clang-tidy --quiet -p build/debug
    echo "clang-tidy: ${#compiled[@]} files are clean"
    mapfile -t around < <(git ls-files 'tests/*.cpp' 'bench/*.cpp' 'fuzz/*.cpp' 'examples/*.cpp')
    printf '%s\n' "${around[@]}" |
        xargs -P "$(nproc)" -n 2 clang-tidy --quiet -p build/debug --checks='-*,readability-identifier-naming' \
                --header-filter='/(src|lis|formatter|syslog|tools|tests|bench|fuzz|examples)/'
    echo "clang-tidy: names in ${#around[@]} further files are clean"
fi

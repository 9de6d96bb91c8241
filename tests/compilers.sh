#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Libraries, tools and examples without a warning by every compiler that this Debian has, between the first
# that we promise and the last that it knows. They are installed when they are missing.
#   tests/compilers.sh [NAME...]    gcc-12, clang-19 (default all)
set -euo pipefail
cd "$(dirname "$0")/.."
if [ $# = 0 ]; then
    for name in gcc-{11..15} clang-{13..21}; do
        [ -z "$(apt-cache search --names-only "^$name\$")" ] || set -- "$@" "$name"
    done
fi
root=()
[ "$(id -u)" = 0 ] || root=(sudo)
failed=0
for name in "$@"; do
    number=${name#*-}
    case $name in
        gcc-*) cxx=g++-$number packages=("gcc-$number" "g++-$number") ;;
        clang-*) cxx=clang++-$number packages=("clang-$number") ;;
    esac
    if ! command -v "$cxx" >/dev/null; then
        "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${packages[@]}" >/dev/null
    fi
    build=build/compilers/$name
    if cmake --preset release -B "$build" -DCMAKE_C_COMPILER="$name" -DCMAKE_CXX_COMPILER="$cxx" -DQDUL_TESTS=OFF \
        -DQDUL_MAN=OFF --log-level=NOTICE >/dev/null && cmake --build "$build" --parallel "$(nproc)" -- --quiet; then
        echo "$name: $("$name" -dumpfullversion 2>/dev/null || "$name" -dumpversion), no warning"
    else
        echo "FAILED: $name"
        failed=1
    fi
done
exit $failed

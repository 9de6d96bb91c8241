#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the benchmarks of the bench build and writes their figures as JSON beside
# the programs: bench/run.sh [compare|NAME...]   (default everything; config is config_bench)
set -euo pipefail
cd "$(dirname "$0")/.."
programs=build/bench/bench
[ $# -gt 0 ] || set -- compare $(cd bench && ls *_bench.cpp *_bench.sh 2>/dev/null | sed 's/\.[a-z]*$//')
for name in "$@"; do
    [ -e "bench/$name.cpp" ] || [ -e "bench/$name.sh" ] || name=${name}_bench
    echo "== $name"
    case $name in
        compare) "$programs/compare" --json "$programs/compare.json" "$programs/out" ;;
        *)
            if [ -x "bench/$name.sh" ]; then
                "bench/$name.sh" build/bench
            else
                "$programs/$name" --benchmark_out="$programs/$name.json" --benchmark_out_format=json
            fi
            ;;
    esac
done
echo "figures as JSON: $programs/*.json"

#!/usr/bin/env bash
# Runs every fuzzer of the fuzz build for a time: fuzz/run.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
for source in fuzz/*_fuzz.cpp; do
    name=$(basename "$source" .cpp)
    corpus=fuzz/corpus/${name%_fuzz}
    found=build/fuzz/found/${name%_fuzz}
    mkdir -p "$found"
    echo "== $name for $seconds s"
    build/fuzz/fuzz/"$name" -max_total_time="$seconds" -max_len=65536 -timeout=20 -print_final_stats=1 \
        -artifact_prefix="$found/crash-" "$found" "$corpus" 2>&1 | tail -n 8
done

#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the fuzzers of the fuzz build, as many at a time as there are processors, each from its
# corpus for a time, and prints what of the instrumented code each has reached.
#
#   fuzz/run.sh [SECONDS] [NAME...]   60 seconds, all fuzzers
#   fuzz/run.sh minimize [NAME...]    makes each corpus the smallest one that reaches as much,
#                                     together with what was found in build/fuzz/found
#
# An input that fails is left in build/fuzz/found/NAME/crash-*.
set -euo pipefail
cd "$(dirname "$0")/.."

LONGEST=8192 # bytes of an input
# Little is kept of what was freed, and no stacks: twice as many inputs. Run alone, an input that
# fails gives all of them.
export ASAN_OPTIONS=quarantine_size_mb=1:malloc_context_size=0${ASAN_OPTIONS:+:$ASAN_OPTIONS}

# The inputs beyond the corpus are kept apart, so that a run changes no source.
fuzz_one() { # SECONDS NAME
    local seconds=$1 name=$2 corpus=fuzz/corpus/$2 found=build/fuzz/found/$2 log status=0
    mkdir -p "$found"
    log=$found.log
    local TIMEFORMAT='processor %U %S'
    { time build/fuzz/fuzz/"${name}_fuzz" -max_total_time="$seconds" -max_len=$LONGEST -timeout=20 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$found/crash-" "$found" "$corpus" >"$log" 2>&1 </dev/null; } 2>"$log.time" ||
        status=$?
    cat "$log.time" >>"$log"
    awk -v name="$name" '
        /inline 8-bit counters\)/ { if (match($0, /\([0-9]+ inline/)) edges = substr($0, RSTART + 1, RLENGTH - 8) + 0 }
        / cov: / { for (i = 1; i < NF; ++i) { if ($i == "cov:") cov = $(i + 1); if ($i == "corp:") inputs = $(i + 1) } }
        /stat::number_of_executed_units/ { runs = $2 }
        $1 == "processor" { rate = runs / ($2 + $3 + 0.001) } # of one, however busy it is with others
        END { printf "%-16s %10d inputs, %6d a processor second, %5d of %5d edges, corpus %s\n", name, runs, rate, cov, edges, inputs }' "$log"
    if [ $status != 0 ]; then
        tail -n 40 "$log"
        echo "FAILED: $name, exit status $status; the input is in $found"
    fi
    return $status
}
minimize_one() { # NAME
    local name=$1 corpus=fuzz/corpus/$1 found=build/fuzz/found/$1 smallest=build/fuzz/smallest/$1
    rm -rf "$smallest"
    mkdir -p "$smallest" "$found"
    build/fuzz/fuzz/"${name}_fuzz" -merge=1 -use_counters=0 -max_len=$LONGEST -timeout=20 "$smallest" "$corpus" "$found" \
        >"$smallest.log" 2>&1 </dev/null || { tail -n 20 "$smallest.log"; return 1; }
    echo "$name: $(find "$corpus" -type f | wc -l) inputs become $(find "$smallest" -type f | wc -l)"
    rm -rf "$corpus"
    mv "$smallest" "$corpus"
}
export -f fuzz_one minimize_one
export LONGEST

what=fuzz_one
seconds=60
case ${1:-} in
    minimize) what=minimize_one seconds= && shift ;;
    [0-9]*) seconds=$1 && shift ;;
esac
names=("$@")
[ $# -gt 0 ] || mapfile -t names < <(basename -s _fuzz.cpp fuzz/*_fuzz.cpp)
# shellcheck disable=SC2016 # the shell that runs one expands them
printf '%s\0' "${names[@]}" | xargs -0 -P "$(nproc)" -I '{}' bash -c "$what $seconds \"\$1\"" run '{}'

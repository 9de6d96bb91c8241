#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The checks, one step after the other; a step that fails does not keep the others from
# running, but the end is a failure. At the end stands a line for each step, with what it has
# counted below it. CHECK_FACTOR (1) multiplies what is tried at random, and for how long:
# the nightly run has a larger one. What a step writes is in build/check/STEP.log, too.
#
#   tests/check.sh ci          format cross abi tests leaks asan: under 20 minutes on two cores
#   tests/check.sh quick       format leaks asan
#   tests/check.sh full        all steps (the default)
#   tests/check.sh STEP...     the named ones
#   tests/check.sh record-abi  writes the ABI that the step abi compares with
#
# format    clang-format over all sources
# tests     the quick tests, as ./dev test runs them
# shuffle   each test program whole, three times in another order, also as another user
# leaks     that a leak is found at all here: LeakSanitizer needs the right to trace
# asan      the quick tests with AddressSanitizer, UndefinedBehaviorSanitizer and leaks
# asan-long the tests that ./dev test leaves out, with the same sanitizers
# config    writers of one configuration file for CONFIG_SECONDS (20) in each of nine cases, and
#           CONFIG_KILLS (2000) of them killed
# recycle   two writers of one recycled series, processes and handles, RECYCLE_SECONDS (5) for
#           each of 36 settings; then eight processes with timed rollover
# kills     KILLS (1000) writers of large records killed on a series and on a log set, and two
#           and a half times as many of small ones; writers of series, of log sets and of a
#           configuration killed before, in and behind each of their system calls
# faults    one scenario of everything with each allocation and each system call failing, once
#           and from then on, with every errno that it can have; FAULT_CASES of them (all)
# cancels   CANCELLATIONS (5000) threads cancelled wherever they are in opening, logging, contexts
#           and settings
# damage    DAMAGED_FILES (20000) log files and configurations damaged in any way, each read,
#           listed, gone on with and changed
# mixed     processes, threads, forks, contexts and all that others can do to files and
#           configuration for MIXED_SECONDS (60), with a clock a hundred times as fast; then a
#           third of that with ThreadSanitizer and with AddressSanitizer
# tsan      the programs that use threads or fork, with ThreadSanitizer
# tidy      clang-tidy over everything but the tests
# cppcheck  cppcheck over everything but the tests
# abi       libqdul.so.3 against abi/libqdul.so.3.abi.gz
# bounds    memory and time of every tool in directories of BOUNDS_FILES (200000) log files, with
#           files, records, configurations and catalogues of any size, and compressed ones that
#           unpack to any
# model     5,000 random sequences of calls, with the library and with a model of the rules of
#           writing, every file compared after each step
# postgres  POSTGRES_SECONDS (60) of a PostgreSQL server that logs through libqdul-syslog.so, each
#           statement and connection counted; connections to sshd and jobs of cron likewise; each
#           skipped where it is not installed
# ship      what is exported, in the programs that it is for, and the spool's files after kills at
#           every system call and SPOOL_KILLS (300) at random; each part skipped where its program
#           is not installed; ROTATE_TIMES (4) rotations under live writers; two machines and a
#           central one in network namespaces, with SITES_RECORDS (10000) records each and kills of
#           everything, as root; what operators ask of STORES_RECORDS (100000) in PostgreSQL and DuckDB
# package   the Debian packages built, tried, upgraded and purged in clean roots, of PACKAGE_SUITES
#           ("bookworm trixie"); it, arm64 and s390x need root
# reproducible  libraries, tools and packages are the same bytes from any directory
# compilers without a warning by every GCC and clang that this Debian has
# cross     the libraries for arm64 and s390x by Debian's cross compilers, without a warning;
#           programs log with them by qemu
# arm64     cross-built, and the quick tests run by qemu; when it is named only
# s390x     the same, big-endian
# fuzz      every fuzzer for FUZZ_SECONDS (10), from its corpus
# coverage  the lines and branches of the libraries that the tests run, and why not the others
#           (tests/coverage.txt); only when it is named
set -uo pipefail
cd "$(dirname "$0")/.."

export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1:allocator_may_return_null=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
factor=${CHECK_FACTOR:-1}
abi_file=abi/libqdul.so.3.abi.gz

build() { # PRESET
    cmake --preset "$1" --log-level=NOTICE >/dev/null && cmake --build "build/$1" --parallel "$(nproc)" -- --quiet
}

run_tests() { # PRESET CTEST-ARGS
    local preset=$1
    shift
    ctest --test-dir "build/$preset" --parallel "$(nproc)" --output-on-failure --no-tests=error --progress "$@" |
        sed -u 's/.*\r//; s/^\(.*tests passed.*\)$/= \1/' | awk '/Failed|\*\*\*|FAILED|Error|ERROR|tests passed|tests failed|SUMMARY|runtime error/ || failing { print }
                                 /\*\*\*Failed|\*\*\*Exception|\*\*\*Timeout/ { failing = 60 } failing { --failing }'
}

step_format() { tests/lint.sh format; }

# Runs a test program whole in the order of a seed; shows what it says when it fails.
#   run_whole SEED PREFIX PROGRAM: PREFIX, words that select a user, may be empty
run_whole() {
    local output name
    name=$(basename "$3")
    # shellcheck disable=SC2086 # PREFIX is several words
    output=$(timeout 600 $2 "$3" --gtest_filter="-Long*" --gtest_brief=1 --gtest_shuffle \
        --gtest_random_seed="$1" 2>&1 </dev/null) || {
        local ended=$?
        printf '%s\n' "$output" | cut -c1-400 | head -60
        echo "FAILED: ${2:+$2 }$name --gtest_filter=-Long* --gtest_shuffle --gtest_random_seed=$1 (ended with $ended)"
        return 1
    }
}
export -f run_whole

step_tests() { build release && run_tests release -LE long; }

step_shuffle() {
    local users=("") user seed status=0
    build release || return 1
    [ "$(id -u)" != 0 ] || users+=("setpriv --reuid=65534 --regid=65534 --clear-groups")
    for user in "${users[@]}"; do
        for seed in $(seq $((3 * factor))); do
            printf '%s\0' "$PWD"/build/release/tests/*_test |
                xargs -0 -P "$(nproc)" -I '{}' bash -c 'run_whole "$@"' run_whole "$seed" "$user" '{}' || status=1
        done
    done
    [ $status != 0 ] || echo "= the programs pass in $((3 * factor)) orders, as ${#users[@]} user(s)"
    return $status
}

step_leaks() {
    local dir status=0
    dir=$(mktemp -d) || return 1
    echo '#include <stdlib.h>
        int main(void) { return *(volatile char *)calloc(1, 10000); }' >"$dir/leak.c"
    if ! cc -fsanitize=address -o "$dir/leak" "$dir/leak.c" || "$dir/leak" >"$dir/out" 2>&1 ||
        ! grep -q 'detected memory leaks' "$dir/out"; then
        cat "$dir/out"
        echo "a leak on purpose is not found; does this machine forbid ptrace?"
        status=1
    fi
    rm -rf "$dir"
    [ $status != 0 ] || echo "a leak on purpose is found"
    return $status
}

step_asan() { build asan && run_tests asan -LE long; }

step_asan-long() {
    build asan || return 1
    if ! ctest --test-dir build/asan -N -L long | grep -q 'Test *#'; then
        echo "there are no long tests"
        return 0
    fi
    run_tests asan -L long
}

step_config() {
    build release || return 1
    CONFIG_SECONDS=$((${CONFIG_SECONDS:-20} * factor)) CONFIG_READS=${CONFIG_READS:-1000000} \
        CONFIG_KILLS=$((${CONFIG_KILLS:-2000} * factor)) \
        build/release/tests/config_endurance_test --gtest_filter='Long*' --gtest_brief=1 |
        sed -u '/[0-9]/s/^\([^[]\)/= \1/'
}

# Runs one case and tells what it printed in one line; all of it when it fails.
#   run_counted CASE PROGRAM AWK-PROGRAM [PRESET]
run_counted() {
    local output started=$SECONDS preset=${4:-release}
    output=$(LD_LIBRARY_PATH=$PWD/build/$preset/lib "build/$preset/tests/$2" --gtest_filter="$1" \
        --gtest_brief=1 2>&1 </dev/null) || {
        printf '%s\n' "$output" | cut -c1-400 | head -60
        echo "FAILED: build/$preset/tests/$2 --gtest_filter=$1"
        return 1
    }
    printf '%s\n' "$output" | awk -v case="$1" -v seconds=$((SECONDS - started)) "$3" | sed 's/^/= /'
}

step_recycle() {
    local case status=0
    build release || return 1
    export QDUL_TEST_SECONDS=$((${RECYCLE_SECONDS:-5} * factor))
    for case in TwoProcesses TwoProcessesOfALogSet TwoHandlesOfALogSetInOneProcess; do
        run_counted LongRecycleRace.$case race_recycle_test '
            / busy and / { for (i = 2; i <= NF; ++i) if ($i == "busy") busy += $(i - 1)
                                                     else if ($i == "quiet") quiet += $(i - 1)
                                                     else if ($i == "files") files += $(i - 1)
                           ++settings }
            END { printf "%s: %d settings, %d busy and %d quiet messages, none lost or twice, %d files made, %d s\n",
                  case, settings, busy, quiet, files, seconds }' || status=1
    done
    run_counted LongRecycleRace.EightProcessesWithTimedRolloverOnOneLogSet race_recycle_test '
        / files, / { printf "%s: %s, %d s\n", case, $0, seconds }' || status=1
    return $status
}

step_kills() {
    local case status=0
    build release || return 1
    export QDUL_TEST_KILLS=$((${KILLS:-1000} * factor)) QDUL_TEST_KILL_ROUNDS=$factor
    for case in OfASeriesOfSmallRecords OfASeriesOfLargeRecords OfALogSetOfSmallRecords OfALogSetOfLargeRecords; do
        run_counted LongKilledWriters.$case race_kill_test '
            / kills, / { printf "%s: %s, %d s\n", case, $0, seconds }' || status=1
    done
    for case in LongKilledWriters.AtEachCallOfASeries LongKilledWriters.AtEachCallOfASeriesWithoutUnnamedFiles \
        LongKilledWriters.AtEachCallOfALogSet LongKilledWriters.AtEachCallOfALogSetWithoutUnnamedFiles \
        LongKilledConfigurationWriters.AtEachCall; do
        case $case in *Configuration*) set -- race_kill_config_test ;; *) set -- race_kill_test ;; esac
        run_counted $case "$1" '/ kills, / { printf "%s: %s, %d s\n", case, $0, seconds }' || status=1
    done
    return $status
}

step_faults() {
    local part parts status=0 log started=$SECONDS
    build release || return 1
    log=$(mktemp -d) || return 1
    parts=$(nproc)
    for part in $(seq 0 $((parts - 1))); do
        FAULT_PART=$part FAULT_PARTS=$parts TMPDIR=$(memory_directory) build/release/tests/fault_everything_test \
            --gtest_filter='LongFaultEverything.*' --gtest_brief=1 >"$log/$part" 2>&1 </dev/null &
    done
    wait
    for part in $(seq 0 $((parts - 1))); do
        grep -q 'PASSED.*1 test' "$log/$part" && ! grep -q 'FAILED' "$log/$part" && continue
        cut -c1-300 "$log/$part" | head -60
        status=1
    done
    awk -v seconds=$((SECONDS - started)) '/ failures injected/ { cases += $1; of = $4; injected += $5 }
        END { printf "= %d cases of %d, in which %d calls failed, %d s\n", cases, of, injected, seconds }' "$log"/*
    rm -rf "$log"
    return $status
}

step_cancels() {
    build release || return 1
    CANCELLATIONS=$((${CANCELLATIONS:-5000} * factor)) TMPDIR=$(memory_directory) run_counted \
        LongCancellation.ThreadsThatAreCancelledAnywhereLeaveNothing cancellation_test '
        / threads cancelled / { printf "%s, %d s\n", $0, seconds }'
}

step_damage() {
    local part parts each status=0 log started=$SECONDS
    build release || return 1
    log=$(mktemp -d) || return 1
    parts=$(nproc)
    each=$(((${DAMAGED_FILES:-20000} * factor + parts - 1) / parts))
    for part in $(seq 0 $((parts - 1))); do
        DAMAGED_FIRST=$((1 + part * each)) DAMAGED_FILES=$each TMPDIR=$(memory_directory) \
            build/release/tests/damaged_files_test --gtest_filter='LongDamagedFiles.*' --gtest_brief=1 \
            >"$log/$part" 2>&1 </dev/null &
    done
    wait
    for part in $(seq 0 $((parts - 1))); do
        grep -q ' log files and .* gone on with$' "$log/$part" && ! grep -q 'FAILED' "$log/$part" && continue
        cut -c1-300 "$log/$part" | head -60
        status=1
    done
    awk -v seconds=$((SECONDS - started)) '/ log files and / { logs += $1; configurations += $5 }
        END { printf "= %d log files and %d configurations damaged and gone on with, %d s\n", logs, configurations, seconds }' "$log"/*
    rm -rf "$log"
    return $status
}

step_mixed() {
    local preset seconds=$((${MIXED_SECONDS:-60} * factor)) status=0
    for preset in release tsan asan; do
        build $preset || return 1
        MIXED_SECONDS=$seconds TMPDIR=$(memory_directory) run_counted LongMixedRun.EachMessageIsThereOnce \
            mixed_run_test '/ messages accepted / { printf "%s: %s, %d s\n", case, $0, seconds }' $preset || status=1
        seconds=$(((${MIXED_SECONDS:-60} * factor + 2) / 3))
    done
    return $status
}

# A directory in memory for what writes much, if there is one.
memory_directory() {
    if [ -w /dev/shm ]; then echo /dev/shm; else echo "${TMPDIR:-/tmp}"; fi
}

# Numbers of the tests whose program uses threads or fork, for ctest -I.
threaded_tests() {
    grep -lE 'std::thread|pthread_create|std::async|\bfork\(|inChild\(' tests/*_test.cpp |
        sed 's|.*/||; s|\.cpp$||' >build/tsan/threaded.txt
    ctest --test-dir build/tsan --show-only=json-v1 | python3 -c '
import json, os, sys
wanted = set(open("build/tsan/threaded.txt").read().split())
tests = json.load(sys.stdin)["tests"]
print(",".join(str(number) for number, test in enumerate(tests, 1)
               if os.path.basename(test.get("command", [""])[0]) in wanted))'
}

step_tsan() {
    local numbers
    build tsan && numbers=$(threaded_tests) && [ -n "$numbers" ] && run_tests tsan -LE long -I "0,0,0,$numbers"
}

step_tidy() { tests/lint.sh tidy; }

step_cppcheck() {
    cppcheck --quiet --std=c++17 --language=c++ --platform=unix64 --enable=warning,performance,portability \
        --inline-suppr --suppressions-list=tests/cppcheck.txt --error-exitcode=1 -j "$(nproc)" \
        -I include -I src -I tools src lis formatter syslog tools examples && echo "cppcheck: nothing found"
}

step_abi() {
    build release &&
        gzip -dc $abi_file >build/recorded.abi &&
        abidiff --no-added-syms --harmless --leaf-changes-only build/recorded.abi build/release/lib/libqdul.so.3 &&
        echo "the ABI is the recorded one"
}

record_abi() {
    build release && mkdir -p "$(dirname $abi_file)" &&
        abidw --no-corpus-path --no-comp-dir-path --no-show-locs --headers-dir include --drop-private-types \
            build/release/lib/libqdul.so.3 | sed "s|$PWD/||g" | gzip -9n >$abi_file &&
        echo "recorded in $abi_file"
}

step_bounds() {
    build release || return 1
    BOUNDS_FILES=${BOUNDS_FILES:-200000} QDUL_BUILD=$PWD/build/release QDUL_SOURCE=$PWD PYTHONDONTWRITEBYTECODE=1 \
        tests/support/in_private_dir.sh "$PWD/tests/system/tools_bounds_test.py" |
        awk '{ print }
             $2 == "MB" { ++runs; most = $1 > most ? $1 : most }
             END { printf "= %d runs of tools, %.1f MB at most\n", runs, most }'
}

step_model() {
    local workers each worker log status=0 started=$SECONDS
    build release || return 1
    log=$(mktemp -d) || return 1
    workers=$(nproc)
    each=$(((5000 * factor + workers - 1) / workers))
    for worker in $(seq 0 $((workers - 1))); do
        MODEL_FIRST=$((1 + worker * each)) MODEL_SEQUENCES=$each build/release/tests/writing_model_test \
            --gtest_filter='WritingModel.*' --gtest_brief=1 >"$log/$worker" 2>&1 </dev/null &
    done
    wait
    for worker in $(seq 0 $((workers - 1))); do
        grep -q 'no difference$' "$log/$worker" && continue
        cut -c1-400 "$log/$worker" | head -200
        status=1
    done
    awk -v seconds=$((SECONDS - started)) '/no difference$/ { sequences += $1; steps += $3; records += $5; files += $7 }
        END { printf "= %d sequences, %d steps, %d records, %d files compared without difference in %d s\n",
              sequences, steps, records, files, seconds }' "$log"/*
    rm -rf "$log"
    return $status
}

step_postgres() {
    local script ended status=0
    build release || return 1
    for script in postgres syslog_daemons; do
        ended=0
        POSTGRES_SECONDS=$((${POSTGRES_SECONDS:-60} * factor)) QDUL_BUILD=$PWD/build/release QDUL_SOURCE=$PWD PYTHONDONTWRITEBYTECODE=1 \
            tests/support/in_private_dir.sh "$PWD/tests/system/${script}_test.py" || ended=$?
        [ $ended = 0 ] || [ $ended = 77 ] || status=1
    done
    return $status
}

step_ship() {
    local script ended status=0
    build release || return 1
    export QDUL_BUILD=$PWD/build/release QDUL_SOURCE=$PWD PYTHONDONTWRITEBYTECODE=1
    for script in qdlogview_spool rotate ship sites stores report; do
        ended=0
        echo "-- $script"
        SPOOL_KILLS=$((${SPOOL_KILLS:-300} * factor)) SPOOL_POINTS=1 \
            tests/support/in_private_dir.sh "$PWD/tests/system/${script}_test.py" 2>&1 | sed -u 's/^[0-9:]*  = /= /' || ended=$?
        [ $ended = 0 ] || [ $ended = 77 ] || status=1
    done
    return $status
}

step_package() {
    local suite status=0
    for suite in ${PACKAGE_SUITES:-bookworm trixie}; do
        tests/package.sh "$suite" || status=1
    done
    return $status
}

step_reproducible() { tests/reproducible.sh; }

step_compilers() { tests/compilers.sh; }

# Builds for another processor and runs its tests; all output of those that fail.
cross() {
    tests/cross.sh "$1" --progress -LE long | sed -u 's/.*\r//' |
        awk '/\*\*\*|tests passed|skipped|rror:/ || failing { print } /\*\*\*Failed|\*\*\*Exception|\*\*\*Timeout/ { failing = 60 } failing { --failing }'
}
step_cross() { tests/cross_libraries.sh; }
step_arm64() { cross arm64; }
step_s390x() { cross s390x; }

step_fuzz() { ./dev fuzz $((${FUZZ_SECONDS:-10} * factor)) | sed -u 's/^\(.* inputs, .*\)$/= \1/'; }

step_coverage() {
    local status=0 program
    build coverage || return 1
    find build/coverage -name '*.gcda' -delete
    run_tests coverage -LE long || status=1
    # Once more those with processes that end at once, and so have told nothing.
    for program in build/coverage/tests/{fault_*,race_kill*,utiPropertyStoreFile,write_file_*,lis_*,fork}_test; do
        LD_PRELOAD=$PWD/build/coverage/tests/plugins/libtold_ends.so "$program" --gtest_filter='-Long*' --gtest_brief=1 \
            >build/check/told.log 2>&1 </dev/null || { tail -n 40 build/check/told.log; status=1; }
    done
    python3 tests/coverage.py build/coverage | sed -u 's|^\(src/ .*\)$|= \1|; s|^\(store, writer, .*\)$|= \1|' || status=1
    return $status
}
all_steps="format tests shuffle leaks asan asan-long config recycle kills faults cancels damage mixed tsan tidy cppcheck abi bounds model
    postgres ship package reproducible compilers cross arm64 s390x fuzz"
[ $# -gt 0 ] || set -- full
case $1 in
    ci) set -- format cross abi tests leaks asan ;;
    quick) set -- format leaks asan ;;
    full) set -- $all_steps ;;
    record-abi)
        ./dev setup build check && record_abi
        exit
        ;;
esac
for step in "$@"; do
    if ! declare -F "step_$step" >/dev/null; then
        echo "tests/check.sh: no step '$step' (ci, quick, full, record-abi; $all_steps coverage)" >&2
        exit 2
    fi
done

./dev setup build check || exit 1
summary=()
failed=0
mkdir -p build/check
for step in "$@"; do
    echo "== $step"
    start=$SECONDS
    if "step_$step" 2>&1 | tee "build/check/$step.log"; then
        summary+=("ok      $step ($((SECONDS - start)) s)")
    else
        summary+=("FAILED  $step ($((SECONDS - start)) s)")
        failed=1
    fi
    while IFS= read -r line; do
        summary+=("        ${line#= }")
    done < <(grep '^= ' "build/check/$step.log")
done
echo "== checks"
printf '%s\n' "${summary[@]}"
exit $failed

#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The library inside another project, by add_subdirectory and by FetchContent: its targets have
# the names of the installed package, and nothing but the libraries is built.
set -euo pipefail
fail() {
    echo "FAILED: $*" >&2
    exit 1
}
if grep -q '^QDUL_SANITIZE:STRING=.' "$QDUL_BUILD/CMakeCache.txt"; then exit 77; fi # needs the sanitizer's runtime

mkdir log host
printf '5.Configuration=%s/product.conf\n5.Names=test\n' "$PWD" >zoltlog.conf
printf 'Default.LogDirectory=%s/log/\n' "$PWD" >product.conf
export ZOLTLOG_CFG_LOC=$PWD/zoltlog.conf

cat >host/program.c <<'SOURCE'
#include <qdlis.h>
#include <zoltlog.h>
int main(void) {
    LogHandle log = {0};
    if (zoltLogOpen(5, 7, &log) != ZOLTLOG_OK)
        return 1;
    uint32_t result = zoltLogAppMsg(&log, 0, ZOLTLOG_SEVERITY_ERROR, 0, "disk %s is %d%% full", "/var", 93);
    zoltLogClose(&log);
    return (int)result;
}
SOURCE
cat >host/CMakeLists.txt <<'SOURCE'
cmake_minimum_required(VERSION 3.16)
project(host C CXX)
if(BY_FETCH)
  include(FetchContent)
  FetchContent_Declare(qdul SOURCE_DIR $ENV{QDUL_SOURCE})
  FetchContent_MakeAvailable(qdul)
else()
  add_subdirectory($ENV{QDUL_SOURCE} qdul)
endif()
add_executable(program program.c)
target_link_libraries(program PRIVATE qdul::qdul qdul::qdlis)
SOURCE

for way in OFF ON; do
    cmake -G Ninja -S host -B "by$way" -DBY_FETCH=$way -DCMAKE_BUILD_TYPE=Debug >cmake.log 2>&1 ||
        { cat cmake.log; fail "configuring with BY_FETCH=$way"; }
    if ninja -C "by$way" -t targets all | grep -E '^(qdlogview|qdlogcfg|server|manual|[a-z_]*_test)[:/]'; then
        fail "more than the libraries is made inside another project"
    fi
    ninja -C "by$way" -n install >install.log || { cat install.log; fail "install"; }
done
# Warnings are the host's to judge: a compiler that warns of ours does not stop it.
if grep -h 'Werror' by*/build.ninja; then fail "warnings are errors in another project"; fi

cmake --build byOFF -- -j2 >build.log 2>&1 || { cat build.log; fail "the build"; }
byOFF/program || fail "the program ends with $?"
grep -q ':disk /var is 93% full,' log/*.log || fail "no message in the log"

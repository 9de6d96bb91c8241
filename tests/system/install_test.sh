#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What is installed is enough to build and run programs in C and C++.
set -euo pipefail
fail() {
    echo "FAILED: $*" >&2
    exit 1
}
if grep -q '^QDUL_SANITIZE:STRING=.' "$QDUL_BUILD/CMakeCache.txt"; then exit 77; fi # needs the sanitizer's runtime
command -v pkg-config >/dev/null || exit 77
[ -e "$QDUL_BUILD/build.ninja" ] || exit 77 # what is tested is installed already

cmake --install "$QDUL_BUILD" --prefix "$PWD/prefix" >install.log || { cat install.log; fail "installation"; }
pc=$(find prefix -name qdul.pc)
[ -n "$pc" ] || fail "no qdul.pc"
libdir=$PWD/$(dirname "$(dirname "$pc")")
for file in libqdul.so libqdul.so.3 libqdlis.so.3 libzoltLogFormatMsg.so.3 libqdul-syslog.so; do
    [ -e "$libdir/$file" ] || fail "$file is not installed"
done
for file in zoltlog.h zoltlog_results.h zoltlis.h qdlis.h zoltformat.h qdul.hpp; do
    [ -e "prefix/include/$file" ] || fail "$file is not installed"
done
# Each tool has its manual page, where pages can be made.
if grep -q '^SCDOC:FILEPATH=/' "$QDUL_BUILD/CMakeCache.txt"; then
    for tool in prefix/bin/*; do
        [ -s "prefix/share/man/man1/$(basename "$tool").1" ] || fail "$tool has no manual page"
    done
    for page in man3/zoltLogOpen.3 man3/zoltLogOpenLogSet.3 man3/LogHandle.3 man5/zoltlog.conf.5 man5/qdul-log.5 \
        man7/libqdul-syslog.7 man7/qdul-messages.7 man7/zoltlog.7; do
        [ -s "prefix/share/man/$page" ] || fail "there is no manual page $page"
    done
fi
# The libraries find each other beside themselves, and look nowhere else.
for library in libqdul libqdlis libzoltLogFormatMsg; do
    path=$(objdump -p "$libdir/$library.so.3" | awk '$1 == "RUNPATH" { print $2 }')
    [ "$path" = '$ORIGIN' ] || fail "$library has the run path '$path'"
done
# qdul.pc names the prefix that was configured; here it is moved.
export PKG_CONFIG_PATH=$(dirname "$PWD/$pc")
configured=$(pkg-config --variable=prefix qdul)
for module in qdul qdlis; do
    pkg-config --exists "$module = 3.16.1.0" || fail "no $module.pc of this version"
    for flag in $(pkg-config --libs-only-L --cflags-only-I "$module" | sed "s|$configured|$PWD/prefix|g"); do
        [ -d "${flag#-?}" ] || fail "$module.pc names $flag"
    done
done
flags=$(pkg-config --cflags --libs qdul | sed "s|$configured|$PWD/prefix|g")

mkdir log
printf '5.Configuration=%s/product.conf\n5.Names=test\n' "$PWD" >zoltlog.conf
printf 'Default.LogDirectory=%s/log/\n' "$PWD" >product.conf
export ZOLTLOG_CFG_LOC=$PWD/zoltlog.conf

cat >program.c <<'SOURCE'
#include <zoltlog.h>
int main(void) {
    LogHandle log;
    if (zoltLogOpen(5, 7, &log) != ZOLTLOG_OK)
        return 1;
    uint32_t result = zoltLogAppMsg(&log, ZOLTLOG_OUT_STDOUT, ZOLTLOG_SEVERITY_ERROR, 0, "disk %s is %d%% full", "/var", 93);
    zoltLogClose(&log);
    return (int)result;
}
SOURCE
cp program.c program.cpp
# shellcheck disable=SC2086
${CC:-cc} -std=c11 -Wall -Wextra -Werror -pedantic program.c -o in_c $flags || fail "the C program does not build"
# shellcheck disable=SC2086
${CXX:-c++} -std=c++17 -Wall -Wextra -Werror -pedantic program.cpp -o in_cpp $flags || fail "the C++ program does not build"
cat >CMakeLists.txt <<'SOURCE'
cmake_minimum_required(VERSION 3.16)
project(uses_qdul C CXX)
find_package(qdul 3 REQUIRED)
add_executable(by_cmake program.c)
target_link_libraries(by_cmake PRIVATE qdul::qdul)
SOURCE
cmake -G Ninja -S . -B cmade -DCMAKE_PREFIX_PATH="$PWD/prefix" >cmake.log 2>&1 && cmake --build cmade >>cmake.log 2>&1 ||
    { cat cmake.log; fail "find_package does not work"; }
cp cmade/by_cmake .
for program in in_c in_cpp by_cmake; do
    said=$(LD_LIBRARY_PATH=$libdir "./$program") || fail "$program ends with $?"
    case $said in
        *' ERROR: disk /var is 93% full') ;;
        *) fail "$program does not find the formatter plug-in: '$said'" ;;
    esac
done
[ "$(grep -c ':disk /var is 93% full,' log/*.log)" = 3 ] || fail "the messages are not in the log"

# So do the examples, from where they are installed, with what a document links to among them.
examples=prefix/share/doc/qdul/examples
grep -q '](\.\./examples/installer\.c)' prefix/share/doc/qdul/docs/getting-started.md || fail "the documents name no example"
[ -e "$examples/installer.c" ] && [ -e "$examples/catalogue/root.txt" ] || fail "the examples are not installed"
for source in "$examples"/*.c "$examples"/*.cpp; do
    case $source in
        *.c) compiler="${CC:-cc} -std=gnu11" ;;
        *) compiler="${CXX:-c++} -std=c++17 -pthread" ;;
    esac
    # shellcheck disable=SC2086
    $compiler -fsyntax-only -Wall -Wextra -Werror "$source" ${flags%% -L*} || fail "$source does not compile"
done

# The tools run from where they were installed.
for tool in prefix/bin/*; do
    "$tool" --version >/dev/null || fail "$tool does not run"
done
prefix/bin/qdlogger -P test --stdout hello | grep -q 'INFO: hello$' || fail "qdlogger does not find the plug-in"

# Python finds the package below its prefix, and that the library; not one for another processor.
kind() { head -c 20 "$1" | tail -c 2 | od -An -tx1; }
if [ -e "$QDUL_BUILD/python" ] && [ "$(kind "$(python3 -c 'import sys; print(sys.executable)')")" = "$(kind "$libdir/libqdul.so.3")" ]; then
    PYTHONDONTWRITEBYTECODE=1 PYTHONPATH=$PWD/prefix/lib/python3/dist-packages LD_LIBRARY_PATH=$libdir python3 -c '
import qdul
with qdul.Log("test", 7) as log:
    log.app(qdul.Severity.INFO, "by Python")
assert [record.text for record in qdul.records(5, 7, text="Python")] == ["by Python"]' || fail "the Python package does not work"
fi

# A program that knows only syslog(3)
printf '#include <syslog.h>\nint main(void) { syslog(LOG_ERR, "by syslog"); return 0; }\n' >only.c
${CC:-cc} only.c -o only || fail "the program with syslog does not build"
LD_PRELOAD=$libdir/libqdul-syslog.so QDUL_SYSLOG_PRODUCT=test ./only || fail "the program with syslog ends with $?"
grep -q ',9:by syslog,4:only,2,' log/*.log || fail "what was told syslog is not in the log"

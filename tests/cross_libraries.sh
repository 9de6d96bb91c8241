#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The libraries for other processors by Debian's cross compilers, without a warning, and two programs that log
# with them by qemu, the second of them by a catalogue in the byte order of the processor: what is cheap enough
# for every change. tests/cross.sh builds and runs everything.
#   tests/cross_libraries.sh [ARCHITECTURE...]    arm64, s390x, which is big-endian (default both)
# What they link to comes from Debian's package for them, unpacked below build/cross; this machine's apt stays
# as it is.
set -euo pipefail
cd "$(dirname "$0")/.."
[ $# != 0 ] || set -- arm64 s390x
./dev setup build cross
source=$PWD
icu=$(basename "$(readlink -f "$(pkg-config --variable=libdir icu-uc)/libicuuc.so")") # libicuuc.so.72.1
icu=${icu#libicuuc.so.}

# Unpacks the ICU libraries of an architecture.
#   get_icu ARCHITECTURE DIRECTORY
get_icu() {
    local apt=(-qq -o APT::Architecture="$1" -o APT::Architectures="$1" -o Dir::State="$2/apt" -o Dir::State::status=/dev/null
        -o Dir::Cache="$2/apt" -o Acquire::Languages=none -o APT::Sandbox::User=root)
    rm -rf "$2/apt"
    mkdir -p "$2/apt/lists/partial" "$2/apt/archives/partial"
    apt-get "${apt[@]}" update
    (cd "$2/apt" && apt-get "${apt[@]}" download "libicu${icu%%.*}")
    dpkg-deb -x "$2/apt/libicu${icu%%.*}"_*_"$1".deb "$2/root"
    rm -rf "$2/apt"
}

for architecture in "$@"; do
    case $architecture in
        arm64) processor=aarch64 order=l ;;
        s390x) processor=s390x order=b ;;
        *) echo "tests/cross_libraries.sh: no architecture '$architecture' (arm64, s390x)" >&2; exit 2 ;;
    esac
    triplet=$processor-linux-gnu
    work=$source/build/cross/$architecture
    others=$work/root/usr/lib/$triplet
    [ -e "$others/libicuuc.so.${icu%%.*}" ] || get_icu "$architecture" "$work"
    for name in uc data; do
        ln -sf "libicu$name.so.${icu%%.*}" "$others/libicu$name.so"
    done
    printf 'Name: icu-uc\nDescription: ICU\nVersion: %s\nLibs: -L%s -licuuc -licudata\n' "$icu" "$others" >"$work/icu-uc.pc"
    PKG_CONFIG_LIBDIR=$work cmake --preset release -B "$work/build" --log-level=NOTICE -DCMAKE_SYSTEM_NAME=Linux \
        -DCMAKE_SYSTEM_PROCESSOR=$processor -DCMAKE_C_COMPILER=$triplet-gcc -DCMAKE_CXX_COMPILER=$triplet-g++ \
        -DQDUL_TOOLS=OFF -DQDUL_PYTHON=OFF -DQDUL_EXAMPLES=OFF -DQDUL_TESTS=OFF >/dev/null
    cmake --build "$work/build" --parallel "$(nproc)" -- --quiet
    libraries=$(find "$work/build/lib" -type f -name '*.so*' | wc -l)

    rm -rf "$work/try"
    mkdir "$work/try"
    cd "$work/try"
    sed -n '/^```c$/,/^```$/{/^```/d;p}' "$source/README.md" >first.c
    cat >translated.c <<'SOURCE'
#include <qdlis.h>
#include <zoltlog.h>
int main(void) {
    LogHandle log = {0};
    qdlisAddCatalog("./texts");
    if (zoltLogOpen(5, 8, &log) != ZOLTLOG_OK)
        return 1;
    log.utf8 = 1;
    zoltLogAppMsg(&log, 0, ZOLTLOG_SEVERITY_ERROR, 2001, "disk %s is %d%% full", "/var", 93);
    return zoltLogClose(&log) == ZOLTLOG_OK ? 0 : 1;
}
SOURCE
    echo 'root { 2001 { "%2$d%% of %1$s" } }' >root.txt
    genrb -q -d . root.txt
    echo root.res >items.lst
    "$(PATH=$PATH:/usr/sbin command -v icupkg)" -t$order --toc_prefix texts -s . -a items.lst new texts.dat
    printf '5.Configuration=%s/product.conf\n' "$PWD" >zoltlog.conf
    printf 'Default.LogDirectory=%s/log/\n' "$PWD" >product.conf
    for program in first translated; do
        $triplet-gcc -std=c11 -Wall -Wextra -Werror $program.c -o $program -I"$source/include" -L../build/lib -lqdul -lqdlis \
            -Wl,-rpath-link,"../build/lib:$others"
        ZOLTLOG_CFG_LOC=$PWD/zoltlog.conf qemu-$processor-static -L /usr/$triplet \
            -E "LD_LIBRARY_PATH=$work/build/lib:$others" ./$program
    done
    # Product, originator, host and counter are in the names as everywhere.
    if [ "$(grep -c '^2,5,7,7,1,[0-9]*,[0-9]*,[0-9]*,0:,[0-9]*:Grüße: disk /var is 93% full,' log/5-7-*-0000000000.log)" != 1 ] ||
        [ "$(grep -c ':93% of /var,' log/5-8-*-0000000000.log)" != 1 ] || [ "$(printf '%s\n' log/5-?-* | cut -d- -f3 | uniq | wc -l)" != 1 ]; then
        echo "FAILED: $architecture logs otherwise" >&2
        cat log/* >&2
        exit 1
    fi
    cd "$source"
    echo "= $libraries libraries for $architecture without a warning; programs log with them"
done

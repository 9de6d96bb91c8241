#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The libraries for arm64 by Debian's cross compiler, without a warning, and the program of README logging with
# them by qemu: what is cheap enough for every change. tests/cross.sh builds and runs everything.
# What they link to comes from the arm64 package, unpacked below build/cross; this machine's apt stays as it is.
set -euo pipefail
cd "$(dirname "$0")/.."
triplet=aarch64-linux-gnu
./dev setup build cross

work=$PWD/build/cross
others=$work/root/usr/lib/$triplet
icu=$(basename "$(readlink -f "$(pkg-config --variable=libdir icu-uc)/libicuuc.so")") # libicuuc.so.72.1
icu=${icu#libicuuc.so.}
if [ ! -e "$others/libicuuc.so.${icu%%.*}" ]; then
    apt=(-qq -o APT::Architecture=arm64 -o APT::Architectures=arm64 -o Dir::State="$work/apt" -o Dir::State::status=/dev/null
        -o Dir::Cache="$work/apt" -o Acquire::Languages=none -o APT::Sandbox::User=root)
    rm -rf "$work/apt"
    mkdir -p "$work/apt/lists/partial" "$work/apt/archives/partial"
    apt-get "${apt[@]}" update
    (cd "$work/apt" && apt-get "${apt[@]}" download "libicu${icu%%.*}")
    dpkg-deb -x "$work/apt/libicu${icu%%.*}"_*_arm64.deb "$work/root"
    rm -rf "$work/apt"
fi
for name in uc data; do
    ln -sf "libicu$name.so.${icu%%.*}" "$others/libicu$name.so"
done
printf 'Name: icu-uc\nDescription: ICU for arm64\nVersion: %s\nLibs: -L%s -licuuc -licudata\n' "$icu" "$others" >"$work/icu-uc.pc"

export PKG_CONFIG_LIBDIR=$work
cmake --preset release -B "$work/build" --log-level=NOTICE -DCMAKE_SYSTEM_NAME=Linux -DCMAKE_SYSTEM_PROCESSOR=aarch64 \
    -DCMAKE_C_COMPILER=$triplet-gcc -DCMAKE_CXX_COMPILER=$triplet-g++ -DQDUL_TOOLS=OFF -DQDUL_PYTHON=OFF \
    -DQDUL_EXAMPLES=OFF -DQDUL_TESTS=OFF >/dev/null
cmake --build "$work/build" --parallel "$(nproc)" -- --quiet
libraries=$(find "$work/build/lib" -type f -name '*.so*' | wc -l)

rm -rf "$work/try"
mkdir "$work/try"
cd "$work/try"
sed -n '/^```c$/,/^```$/{/^```/d;p}' ../../../README.md >first.c
grep -q zoltLogAppMsg first.c
$triplet-gcc -std=c11 -Wall -Wextra -Werror first.c -o first -I../../../include -L../build/lib -lqdul \
    -Wl,-rpath-link,"../build/lib:$others"
printf '5.Configuration=%s/product.conf\n' "$PWD" >zoltlog.conf
printf 'Default.LogDirectory=%s/log/\n' "$PWD" >product.conf
ZOLTLOG_CFG_LOC=$PWD/zoltlog.conf qemu-aarch64-static -L /usr/$triplet -E "LD_LIBRARY_PATH=$work/build/lib:$others" ./first
[ "$(grep -c ':Grüße: disk /var is 93% full,' log/5-7-*.log)" = 1 ]
echo "= $libraries libraries for arm64 without a warning; README's program logs with them"

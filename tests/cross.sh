#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Cross-built in a clean Debian root, and the quick tests run by qemu: every program for the other processor,
# also those that tests start, which the kernel gives to qemu (binfmt_misc).
#   tests/cross.sh ARCHITECTURE [CTEST-ARGS]    arm64, or s390x, which is big-endian
set -euo pipefail
cd "$(dirname "$0")/.."
. tests/roots.sh
architecture=$1
shift
case $architecture in
    arm64) processor=aarch64 machine='\xb7\x00' order='\x01' type='\x02\x00' type_mask='\xfe\xff' ;;
    s390x) processor=s390x machine='\x00\x16' order='\x02' type='\x00\x02' type_mask='\xff\xfe' ;;
    *) echo "tests/cross.sh: no architecture '$architecture' (arm64, s390x)" >&2; exit 2 ;;
esac
need_roots || exit 0

root=$roots/$architecture
suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
if [ ! -e "$root/etc/debian_version" ]; then
    of=()
    # genrb makes catalogues in the byte order of the machine that it is for: qemu runs it, too.
    for package in icu-devtools libicu-dev libgtest-dev libpcre2-dev zlib1g-dev libzstd-dev libarchive-dev libssl-dev libfmt-dev; do
        of+=("$package:$architecture")
    done
    new_root "$root" "$suite" "amd64,$architecture" "crossbuild-essential-$architecture" cmake ninja-build pkg-config python3 \
        scdoc locales rapidjson-dev libcli11-dev qemu-user-static jq file "${of[@]}"
fi
mkdir -p "$root/qdul"
tar -c --exclude=./build --exclude=./demo-out . | tar -x -C "$root/qdul"
# What tests call cc is the cross compiler.
triplet=$processor-linux-gnu
mkdir -p "$root/cross"
for name in cc=gcc gcc=gcc c++=g++ g++=g++ objdump=objdump nm=nm readelf=readelf; do
    ln -sf "/usr/bin/$triplet-${name#*=}" "$root/cross/${name%=*}"
done

cat >"$root/cross/run.sh" <<INSIDE
set -euo pipefail
cd /qdul
register=/proc/sys/fs/binfmt_misc
[ -e \$register/status ] || mount -t binfmt_misc binfmt_misc \$register
if [ ! -e \$register/qdul-$processor ]; then
    echo ':qdul-$processor:M::\x7fELF\x02$order\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00$type$machine:\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff$type_mask\xff\xff:/usr/bin/qemu-$processor-static:POCF' >\$register/register
    trap 'echo -1 >\$register/qdul-$processor' EXIT
fi
export PKG_CONFIG_LIBDIR=/usr/lib/$triplet/pkgconfig:/usr/share/pkgconfig
cmake --preset release -B build/$architecture --log-level=NOTICE -DCMAKE_SYSTEM_NAME=Linux -DCMAKE_SYSTEM_PROCESSOR=$processor \
    -DCMAKE_C_COMPILER=$triplet-gcc -DCMAKE_CXX_COMPILER=$triplet-g++ >/dev/null
cmake --build build/$architecture --parallel $(nproc) -- --quiet
export PATH=/cross:\$PATH
ctest --test-dir build/$architecture --parallel $(nproc) --output-on-failure --no-tests=error "\$@"
INSIDE
[ $# != 0 ] || set -- -LE long
in_root "$root" bash /cross/run.sh "$@"

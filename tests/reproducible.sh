#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Libraries, tools and Debian packages are the same bytes, whatever directory they are built in. No
# compiler cache, which would compare an object with itself.
set -euo pipefail
cd "$(dirname "$0")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export CCACHE_DISABLE=1

# compare DIRECTORY DIRECTORY FILE...: of both directories
compare() {
    local one=$1 other=$2 file different=0
    shift 2
    for file in "$@"; do
        cmp "$one/$file" "$other/$file" || different=1
    done
    [ $# != 0 ] && [ $different = 0 ]
}

for directory in "$work/one" "$work/another/with a longer name"; do
    mkdir -p "$directory"
    tar -c --exclude-vcs --exclude=./build --exclude=./demo-out . | tar -x -C "$directory"
    cmake -S "$directory" -B "$directory/build" --preset release -DQDUL_TESTS=OFF --log-level=NOTICE >/dev/null
    cmake --build "$directory/build" --parallel "$(nproc)" -- --quiet
done
mapfile -t built < <(cd "$work/one/build" && find bin lib -type f)
compare "$work/one/build" "$work/another/with a longer name/build" "${built[@]}"
echo "${#built[@]} libraries and tools are the same from two directories"

./dev setup build package
for directory in "$work/packages" "$work/a/third/place/packages"; do
    packaging/build.sh "$directory" >"$work/said.txt" || { cat "$work/said.txt"; exit 1; }
done
mapfile -t built < <(cd "$work/packages" && ls ./*.deb ./*.tar.*)
compare "$work/packages" "$work/a/third/place/packages" "${built[@]}"
echo "${#built[@]} packages are the same from two directories"

#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the Debian packages, source and binary, from the tree as it is, committed or not, and has
# lintian judge them.
#   packaging/build.sh [DIRECTORY]    where they go, emptied first (default build/package)
set -euo pipefail
cd "$(dirname "$0")/.."
out=$(realpath -m "${1:-build/package}")
version=$(sed -n 's/^project(qdul VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
if [ "$(dpkg-parsechangelog -S Version)" != "$version" ]; then
    echo "debian/changelog is of another version than CMakeLists.txt ($version)" >&2
    exit 1
fi
rm -rf "$out"
mkdir -p "$out/qdul-$version"
tar -c --exclude-vcs --exclude=./build --exclude=./demo-out . | tar -x -C "$out/qdul-$version"
cd "$out/qdul-$version"
dpkg-buildpackage -us -uc >../build.log 2>&1 || {
    tail -60 ../build.log
    exit 1
}
cd ..
rm -rf "qdul-$version"
as_root=()
[ "$(id -u)" != 0 ] || as_root=(--allow-root)
lintian "${as_root[@]}" --fail-on error,warning --tag-display-limit 0 ./*.changes
printf '%s\n' "$out"/*.deb

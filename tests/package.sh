#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The Debian packages, built in one clean root; installed, tried, replaced by others, upgraded, removed and
# purged in another.
#   tests/package.sh SUITE    bookworm or trixie
# PACKAGES names a directory of packages for it that are built already.
set -euo pipefail
cd "$(dirname "$0")/.."
. tests/roots.sh
suite=$1
need_roots || exit 0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

say() { printf '%s: %s\n' "$suite" "$*"; }
fail() {
    say "FAILED: $*" >&2
    exit 1
}

# ---- built in one root -------------------------------------------------------------

packages=${PACKAGES:-$work/build/packages}
if [ -z "${PACKAGES:-}" ]; then
    mapfile -t build_depends < <(sed -n '/^Build-Depends:/,/^[^ B]/{s/^Build-Depends://;/^ /{s/^ *\([a-z0-9+.-]*\).*/\1/;p}}' debian/control |
        sed 's/^debhelper-compat$/debhelper/; s/^dh-sequence-python3$/dh-python/')
    new_root "$work/build" "$suite" amd64 build-essential lintian "${build_depends[@]}"
    mkdir "$work/build/qdul"
    tar -c --exclude-vcs --exclude=./build --exclude=./demo-out . | tar -x -C "$work/build/qdul"
    in_root "$work/build" sh -c 'cd /qdul && packaging/build.sh /packages' || fail "the packages are not built"
    say "built $(find "$packages" -name '*.deb' | wc -l) packages, lintian finds nothing"
fi

# ---- the same as an older version ----------------------------------------------------

new_root "$work/try" "$suite" amd64 build-essential pkg-config cmake python3 zsh bash-completion man-db manpages \
    manpages-dev bsdextrautils systemd
mkdir -p "$work/try/new" "$work/try/old" "$work/try/other"
cp "$packages"/*.deb "$work/try/new"
rm -f "$work"/try/new/*-dbgsym_*.deb
cp -r debian tests "$work/try/root"
for package in "$work"/try/new/*.deb; do
    rm -rf "$work/unpacked"
    dpkg-deb -R "$package" "$work/unpacked"
    sed -i -E '/^(Version|Depends|Pre-Depends):/s/3\.16\.1\.0/3.16.0.1/g' "$work/unpacked/DEBIAN/control"
    dpkg-deb -Znone --root-owner-group -b "$work/unpacked" "$work/try/old" >/dev/null
done

# Another's package in the place of one of ours, with the same in it
for package in libqdlis3 libzoltlogformatmsg3; do
    rm -rf "$work/unpacked"
    dpkg-deb -R "$work/try/new/${package}"_*.deb "$work/unpacked"
    sed -i -E -e "s/^Package:.*/Package: others-$package\nProvides: $package (= 3.99)\nConflicts: $package\nReplaces: $package/" \
        -e '/^Source:/d' "$work/unpacked/DEBIAN/control"
    rm -f "$work/unpacked/DEBIAN/md5sums"
    dpkg-deb -Znone --root-owner-group -b "$work/unpacked" "$work/try/other" >/dev/null
done

# ---- tried in another ----------------------------------------------------------------

cat >"$work/try/root/try.sh" <<'INSIDE'
set -eu
fail() {
    echo "FAILED: $*" >&2
    exit 1
}
quietly() { "$@" >/tmp/said 2>&1 || { cat /tmp/said; fail "$*"; }; }
everything() {
    find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /tmp -o -path /new -o -path /old -o -path /other -o -path /root \
        -o -path /run -o -path /var/lib/dpkg -o -path /var/lib/apt -o -path /var/cache -o -path /var/log/apt \) -prune -o -print | sort
}
installed() { dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null | grep -qx installed; }
runs() {
    mkdir -p /tmp/tests
    for test in "$@"; do
        AUTOPKGTEST_TMP=/tmp/tests "/root/debian/tests/$test" >/tmp/said 2>&1 || { cat /tmp/said; fail "debian/tests/$test"; }
        echo "$test: $(tail -n 1 /tmp/said)"
    done
}

quietly apt-get update
everything >/root/before.txt
quietly apt-get install -y /old/*.deb
[ "$(qdlogger --version)" = "qdlogger 3.16.1.0" ]
[ "$(dpkg-query -W -f '${Version}' libqdul3)" = 3.16.0.1 ]
quietly qdlogcfg product add 6 --names kept --file /etc/qd/kept.conf
quietly qdlogcfg set -P kept LogDirectory=/var/log/qd
qdlogger -P kept before
sha256sum /etc/qd/* >/root/configuration.txt

quietly apt-get install -y /new/*.deb
[ "$(dpkg-query -W -f '${Version}' libqdul3)" = 3.16.1.0 ]
qdlogger -P kept after
[ "$(qdlogview -q -P kept -o cat | paste -sd' ')" = "before after" ] || fail "the log after the upgrade"
sha256sum --quiet -c /root/configuration.txt
[ "$(stat -c %a:%U:%G /var/log/qd)" = 2770:root:qdul ] || fail "the log directory is $(stat -c %a:%U:%G /var/log/qd)"
[ "$(stat -c %G /var/log/qd/6-*.log)" = qdul ]
echo "installed and upgraded"

# shellcheck disable=SC2046
runs $(sed -n 's/^Tests: //p' /root/debian/tests/control)

for package in libqdlis3 libzoltlogformatmsg3; do
    quietly apt-get install -y /other/others-"$package"_*.deb
    ! installed "$package" || fail "$package is still there"
    for other in libqdul3 libqdul-dev qdul-tools; do
        installed "$other" || fail "$other went with $package"
    done
    runs c
    quietly apt-get install -y /new/"$package"_*.deb
    ! installed "others-$package" || fail "others-$package is still there"
done
echo "libqdlis3 and libzoltlogformatmsg3 give way to others'"

ours=$(dpkg-query -W -f '${Package} ${Source}\n' | awk '$1 ~ /qdul|qdlis|zoltlog/ && $1 !~ /^others/ { print $1 }')
# shellcheck disable=SC2086
quietly apt-get remove -y $ours
ls /etc/qd/zoltlog.conf /etc/qd/kept.conf /var/log/qd/6-*.log >/dev/null
# shellcheck disable=SC2086
quietly dpkg --purge $ours
quietly apt-get autoremove -y --purge
everything >/root/after.txt
# What the systems of users and units keep for themselves is theirs.
comm -13 /root/before.txt /root/after.txt |
    grep -vE '^/(etc/(g?shadow|group|passwd|subgid|subuid)-?|etc/\.pwd\.lock|etc/ld\.so\.cache|var/log/(alternatives|dpkg)\.log|var/lib/systemd(/.*)?)$' >/root/left.txt || true
[ "$(paste -sd' ' /root/left.txt)" = "/etc/qd /etc/qd/kept.conf /etc/qd/zoltlog.conf /var/log/qd $(ls /var/log/qd/6-*.log)" ] ||
    { cat /root/left.txt; fail "this is left behind"; }
sha256sum --quiet -c /root/configuration.txt
echo "purged: configuration and logs are left"
INSIDE
in_root "$work/try" bash /root/try.sh | sed "s/^/$suite: /" || fail "see above"

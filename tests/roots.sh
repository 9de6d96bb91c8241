# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Clean Debian roots, made from the mirror and with the settings of this machine's apt, and commands run
# in them. A root is kept packed in build/roots and used again. Needs root.

roots=$PWD/build/roots

need_roots() {
    if [ "$(id -u)" != 0 ]; then
        echo "skipped: making Debian roots needs root"
        return 1
    fi
    ./dev setup roots
}

# A new root in a directory.
#   new_root DIRECTORY SUITE ARCHITECTURES PACKAGE...
new_root() {
    local directory=$1 suite=$2 architectures=$3 mirror packed
    shift 3
    packed=$roots/$suite-$(printf '%s\n' "$architectures" "$@" | sha256sum | cut -c1-12).tar
    mkdir -p "$roots"
    if [ ! -s "$packed" ]; then
        mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Identifier: Packages' 'Origin: Debian' 'Label: Debian' | sort -u | head -1)
        apt-config dump Acquire >"$roots/apt.conf"
        mmdebstrap --quiet --variant=minbase --dpkgopt=force-unsafe-io --architectures="$architectures" --aptopt="$roots/apt.conf" \
            --include="$(IFS=,; echo "$*")" "$suite" "$packed.new.tar" "$mirror" || return 1
        mv "$packed.new.tar" "$packed"
    fi
    mkdir -p "$directory" && tar -xf "$packed" -C "$directory" --exclude=./dev && mkdir -p "$directory/dev" || return 1
    cp /etc/resolv.conf "$directory/etc/resolv.conf"
}

# Runs a command in a root, as root, with nothing of this machine's environment; what it mounts and starts is
# gone when it ends.
#   in_root DIRECTORY COMMAND...
in_root() {
    local directory=$1
    shift
    # shellcheck disable=SC2016,SC2046
    unshare --mount --pid --fork --kill-child bash -c '
        directory=$1
        shift
        mount -t proc proc "$directory/proc" && mount --rbind /dev "$directory/dev" && mount -t tmpfs tmp "$directory/tmp" || exit 1
        exec chroot "$directory" /usr/bin/env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 \
            DEBIAN_FRONTEND=noninteractive "$@"' in_root "$directory" $(env | grep -iE '^(https?|no)_proxy=' || true) "$@"
}

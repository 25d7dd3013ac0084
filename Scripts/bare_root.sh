#!/usr/bin/env bash
# Runs commands in a bare Debian of their own, as an ordinary user with sudo. See --help.

# shellcheck source=Scripts/common.sh
source "$(dirname "$0")/common.sh"

readonly root=$PWD/build/bare-root
readonly user=builder
# Character devices: name, major, minor. All users may use all of them, /dev/fuse too.
readonly devices=('null 1 3' 'zero 1 5' 'full 1 7' 'random 1 8' 'urandom 1 9' 'tty 5 0' 'fuse 10 229')

usage() {
    cat << END
usage: Scripts/bare_root.sh [COMMAND [ARGUMENT...]]

Makes a minimal Debian in build/bare-root, with ca-certificates, git and sudo. Copies this tree
and build/packages into it, and runs a command there as an ordinary user who may use sudo. The
default COMMAND is Scripts/demo.sh and Scripts/test.sh. This shows that the scripts install all
that the tree needs. COMMAND bash opens a shell there.
The system has its own mounts, processes and /dev. It shares the archive of packages with this
machine and changes nothing else here. It is made anew each time, which needs root or sudo.
Exit status: that of the command; 75 when the package mirror did not deliver; $exit_no_root when such
a system cannot be made on this machine.
END
}

# The --skip options keep the packages in the shared archive.
make_root() {
    rm -rf --one-file-system "$root"
    bootstrap "$root" --variant=minbase --include=ca-certificates,git,sudo \
        --skip=download/empty,essential/unlink,cleanup/apt/cache \
        --setup-hook="mkdir -p \"\$1\"/var/cache/apt/archives" \
        --setup-hook="mount --bind '$archives' \"\$1\"/var/cache/apt/archives" \
        --customize-hook="umount \"\$1\"/var/cache/apt/archives" \
        --customize-hook="sync-in /usr/share/keyrings /usr/share/keyrings" \
        --customize-hook="sync-in /etc/apt/trusted.gpg.d /etc/apt/trusted.gpg.d"
}

add_user() {
    local home=$root/home/$user
    chroot "$root" useradd -m -s /bin/bash "$user"
    say "$user ALL=(ALL) NOPASSWD: ALL" > "$root/etc/sudoers.d/$user"
    mkdir "$home/libzol"
    tar -c --exclude=./build . | tar -x -C "$home/libzol"
    [ ! -d build/packages ] || tar -c ./build/packages | tar -x -C "$home/libzol"
    chroot "$root" chown -R "$user:" "/home/$user"
}

mount_all() {
    local name major minor
    mount --bind "$root" "$root"
    mount -t proc proc "$root/proc"
    mount -t sysfs sysfs "$root/sys"
    mount -t tmpfs -o mode=755 tmpfs "$root/dev"
    mkdir "$root/dev/pts" "$root/dev/shm"
    mount -t devpts -o newinstance,ptmxmode=0666,mode=620,gid=5 devpts "$root/dev/pts"
    mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm"
    mount --bind "$archives" "$root/var/cache/apt/archives"
    ln -s pts/ptmx "$root/dev/ptmx"
    ln -s /proc/self/fd "$root/dev/fd"
    printf '%s\n' "${devices[@]}" | while read -r name major minor; do
        mknod -m 666 "$root/dev/$name" c "$major" "$minor"
    done
    cp -L /etc/resolv.conf /etc/hosts "$root/etc"
}

# Changes the root of the mount namespace, because a process in a chroot may not make user namespaces. This shell stays as
# the first process, to wait for orphans.
enter() {
    mount_all
    cd "$root"
    pivot_root . .
    umount -l .
    cd /
    runuser -l "$user" -c 'cd libzol && exec "$@"' -- sh "$@"
    exit
}

# in_namespaces STEP...: runs a step of this script as root in new namespaces of mounts and processes.
in_namespaces() {
    as_root unshare --mount --pid --fork --kill-child bash "$0" --inside "$archives" "$@"
}

can_make_devices() {
    mknod -m 666 "$logs/null" c 1 3 && : > "$logs/null" && rm "$logs/null"
}

if [ "${1:-}" = --inside ]; then # the call in in_namespaces
    readonly archives=$2
    "${@:3}"
    exit
fi
answer_help "$@"
[[ ${1:-} != -* ]] || wrong_usage

install_packages mmdebstrap
require_root "make a bare Debian"
mkdir -p "$logs"
archives=$(apt-config shell archives Dir::Cache::archives/d | sed "s/.*='\(.*\)'/\1/")
if ! in_namespaces can_make_devices 2> /dev/null; then
    say "no bare Debian can be made: this machine permits no namespaces or no device nodes" >&2
    exit $exit_no_root
fi
exec 9> "$logs/bare-root.lock"
flock -n 9 || fail "another bare Debian of this tree is in use"
prepare_bootstrap "$(dpkg --print-architecture)" 'Debian[^|]*'
from_mirror "making a bare Debian" in_namespaces make_root
quietly "copying this tree into it" in_namespaces add_user
if [ $# -gt 0 ]; then
    in_namespaces enter "$@"
else
    in_namespaces enter sh -c 'Scripts/demo.sh && Scripts/test.sh'
fi

#!/bin/sh
# Runs in a bare Debian as a user with sudo: installs the packages, uses them like a user, and purges them. Afterwards the
# system must be as it was before. Lines that begin with "check:" tell the results.
# usage: in_root.sh PACKAGE_DIRECTORY
set -eu
export DEBIAN_FRONTEND=noninteractive LC_ALL=C
packages=$(cd "$1" && pwd)
cd "$(mktemp -d)"

fail() {
    echo "check: FAILED: $*"
    exit 1
}

quietly() {
    echo "+ $*"
    "$@" > log 2>&1 || { cat log; fail "$*"; }
}

apt() {
    echo "+ apt-get $*"
    # shellcheck disable=SC2024 # the log belongs to the user
    sudo apt-get -y -q -o Acquire::Retries=3 --no-install-recommends "$@" > log 2>&1 || {
        cat log
        ! grep -q 'Failed to fetch' log || exit 75 # a fault of the mirror
        fail "apt-get $*"
    }
}

# All files with our names, except this tree and the files of the administrator.
ours() {
    sudo find / -xdev \( -path "$HOME" -o -path /tmp -o -path /proc -o -path /sys -o -path /etc/kiv \
        -o -path /var/lib/dpkg -o -path /var/cache/apt \) -prune -o \( -name '*zol*' -o -name '*kiv*' \) -print
}

sudo mkdir /etc/kiv
echo '<mine/>' | sudo tee /etc/kiv/conf.xml > /dev/null
[ -z "$(ours)" ] || fail "there before: $(ours)"
apt update
apt install "$packages"/libzol0_*.deb "$packages"/kivtest_*.deb "$packages"/kivboard_*.deb
quietly kivboard run -- kivtest.exe -t read_i2c -b 4 -d 0x18 -r 0x0f
grep -q '==> 0x33' log || { cat log; fail "kivtest.exe does not read the virtual board's sensor"; }
quietly kivboard run -- kivtest.exe -t kiv_tokens
grep -q 'name(accel)' log || fail "kivtest.exe does not read the tokens"
[ "$(kivboard run -- zol i2c get -b 4 -d 0x18 -r 0x0f)" = 0x33 ] || fail "zol does not read the virtual board's sensor"
echo "check: $(dpkg-query -W -f '${Package} ' libzol0 kivtest kivboard)suffice for the tools on the virtual board"

apt install g++ pkgconf "$packages"/libzol-dev_*.deb
examples=/usr/share/doc/libzol-dev/examples
[ -e $examples/button_lamp.c ] || fail "the examples are not there"
for linking in "" -static; do
    # shellcheck disable=SC2046,SC2086 # flags are words
    quietly c++ -std=c++20 -Wall -Wextra -Werror $examples/read_sensor.cpp -o sensor $linking \
        $(pkg-config ${linking:+-}$linking --cflags --libs libzol)
    quietly kivboard run -- ./sensor /etc/kiv/conf.xml
    grep -q 'says that it is a 0x33' log || fail "the application does not read the sensor"
done
echo "check: applications are built with libzol-dev, shared and static, and run"

apt install "$packages"/python3-zol_*.deb
quietly kivboard run -- python3 /usr/share/doc/python3-zol/examples/events_worker.py /etc/kiv/conf.xml
grep -q '^channel 3: 9$' log || { cat log; fail "Python's example does not run"; }
quietly sudo python3 -c 'import zol.log' # as root, who may write compiled files
echo "check: Python finds the library"

[ "$(cat /etc/kiv/conf.xml)" = '<mine/>' ] || fail "the administrator's configuration was touched"
sudo cp /usr/share/doc/libzol0/examples/conf.xml /etc/kiv/conf.xml
quietly kivtest.exe -t kiv_i2c
quietly zol_timing --version
quietly bash -c '. /usr/share/bash-completion/completions/kivtest.exe; complete -p kivtest.exe'
for page in man1/kivtest.exe.1 man1/zol.1 man3/libzol.3 man3/kiv_i2c_open.3 man5/kiv_conf.5 man7/zol_troubleshooting.7; do
    quietly gzip -t "/usr/share/man/$page.gz"
done
echo "check: the example for a board, the completions and the manual are there"

quietly sudo dpkg --purge python3-zol libzol-dev kivtest kivboard libzol0
[ -z "$(ours)" ] || fail "left behind: $(ours)"
! /sbin/ldconfig -p | grep libzol || fail "the loader still knows libzol"
! dpkg-query -W -f '${Package}\n' | grep -E 'zol|kiv' || fail "dpkg still knows the packages"
[ -e /etc/kiv/conf.xml ] || fail "the administrator's configuration was removed"
echo "check: purged without a trace"

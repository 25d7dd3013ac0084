#!/bin/sh
# In a bare Debian, beside the packages: installs them, uses them as their users do, and purges them. It is the system
# that the packages must leave as it was. Says what it found in lines that begin with "check:".
set -eu
cd "$(dirname "$0")"
export DEBIAN_FRONTEND=noninteractive LC_ALL=C

fail() {
    echo "check: FAILED: $*"
    exit 1
}

quietly() {
    echo "+ $*"
    "$@" > log 2>&1 || { cat log; fail "$*"; }
}

apt() {
    quietly apt-get -y -q --no-install-recommends "$@"
}

# What is ours, wherever it is; an administrator's file is not.
ours() {
    find / -xdev \( -path "$PWD" -o -path /proc -o -path /sys -o -path /etc/kiv -o -path /var/lib/dpkg \) -prune -o \
        \( -name '*zol*' -o -name '*kiv*' \) -print
}

mkdir /etc/kiv
printf '<mine/>\n' > /etc/kiv/conf.xml
[ -z "$(ours)" ] || fail "there before: $(ours)"
apt update
apt install gcc libc6-dev pkgconf
apt install ./libzol0_*.deb ./kivtest_*.deb ./kivboard_*.deb
apt install ./libzol-dev_*.deb
[ "$(cat /etc/kiv/conf.xml)" = '<mine/>' ] || fail "the administrator's configuration was touched"
echo "check: $(dpkg-query -W -f '${Package} ${Version}, ' libzol0 libzol-dev kivtest kivboard)installed"

# shellcheck disable=SC2046 # flags are words
quietly gcc -std=c11 -Wall -Wextra -Werror application.c -o application $(pkg-config --cflags --libs libzol)
quietly ./application /usr/share/zol/kiv_test.xml
echo "check: an application says: $(tail -n 1 log)"
quietly kivtest.exe -c /usr/share/zol/kiv_test.xml -t kiv_tokens
grep -q 'name(accel)' log || fail "kivtest.exe does not read the tokens"
cp /usr/share/doc/libzol0/examples/conf.xml /etc/kiv/conf.xml
quietly kivtest.exe -t kiv_i2c
quietly kivboard --version
quietly zol_timing --version
quietly bash -c '. /usr/share/bash-completion/completions/kivtest.exe; complete -p kivtest.exe'
for page in man1/kivtest.exe.1 man3/libzol.3 man3/kiv_i2c_open.3 man5/kiv_conf.5; do
    quietly gzip -t "/usr/share/man/$page.gz"
done
echo "check: kivtest.exe, kivboard and zol_timing run"

quietly dpkg --purge libzol-dev kivtest kivboard libzol0
[ -z "$(ours)" ] || fail "left behind: $(ours)"
! ldconfig -p | grep libzol || fail "the loader still knows libzol"
! dpkg-query -W -f '${Package}\n' | grep -E 'zol|kiv' || fail "dpkg still knows the packages"
[ -e /etc/kiv/conf.xml ] || fail "the administrator's configuration was removed"
echo "check: purged without a trace"

#!/usr/bin/env bash
# Builds for a 32-bit ARM board, and runs what was built. See --help.

# shellcheck source=Scripts/common.sh
source "$(dirname "$0")/common.sh"

readonly target=$PWD/build/target # what comes from the target's distribution
readonly sysroot=$target/sysroot kernel=$target/kernel image=$target/image
readonly bin=build/armhf/bin board_log=build/armhf/board.log
readonly board_time_limit=170 # seconds

readonly sysroot_packages=(libc6-dev libstdc++-12-dev libglib2.0-dev libxml2-dev libfuse3-dev libgtest-dev
    busybox-static)
readonly kernel_files=('./boot/vmlinuz-*' '*/imx6q-sabrelite.dtb' '*/i2c-dev.ko' '*/i2c-imx.ko' '*/fuse.ko'
    '*/imx2_wdt.ko') # the last one restarts the board, which ends the emulation

usage() {
    cat << END
usage: Scripts/arm.sh build|test|board

Installs what is missing, makes a root file system of the target's headers and libraries (once,
in build/target), and
  build  builds everything for a 32-bit ARM board (Debian's armhf) and tells its size
  test   builds, and runs the tests in user-mode emulation: Scripts/test.sh armhf
  board  builds, boots an emulated i.MX6 board, and runs the tool, the examples and the tests
         that need a kernel there; the console is kept in $board_log
Exit status 0 when all went well, 75 when the package mirror could not deliver.
END
}

# Configures apt for packages of the target in a directory of its own; this machine's packages are not concerned.
configure_apt() {
    mkdir -p "$target/apt/lists/partial" "$target/apt/cache/archives/partial"
    : > "$target/apt/status"
    cat > "$target/apt/apt.conf" << END
Dir::Etc::SourceList "$target/apt/sources.list";
Dir::Etc::SourceParts "-";
Dir::State "$target/apt";
Dir::State::status "$target/apt/status";
Dir::Cache "$target/apt/cache";
APT::Architecture "armhf";
APT::Architectures { "armhf"; };
APT::Install-Recommends "false";
APT::Sandbox::User "root";
Acquire::Languages "none";
Acquire::Retries "3";
END
    package_sources armhf Debian > "$target/apt/sources.list"
    [ -s "$target/apt/sources.list" ] || { # apt knows the labels once it has the lists
        as_root apt-get -qq update && package_sources armhf Debian > "$target/apt/sources.list"
    }
}

target_apt() {
    APT_CONFIG=$target/apt/apt.conf "$@"
}

# unpack PACKAGE DIRECTORY TAR-OPTION...
unpack() {
    local package=$1 directory=$2
    shift 2
    dpkg-deb --fsys-tarfile "$package" | tar -x --keep-directory-symlink -C "$directory" "$@"
}

download_sysroot() {
    configure_apt && target_apt apt-get -qq update &&
        target_apt apt-get -qq -y --download-only install "${sysroot_packages[@]}"
}

# Libraries are found in /lib and in /usr/lib, so both are one directory; links that lead out of the tree are led back.
unpack_sysroot() {
    local tree=$sysroot.new package link
    rm -rf "$tree"
    mkdir -p "$tree/usr/lib"
    ln -s usr/lib "$tree/lib"
    for package in "$target"/apt/cache/archives/*.deb; do
        unpack "$package" "$tree" --exclude=./etc --exclude=./var --exclude='./usr/share/[dlm]*' || return
    done
    find "$tree" -lname '/*' | while read -r link; do
        ln -sfnr "$tree$(readlink "$link")" "$link"
    done
    rm -rf "$sysroot" "$target/apt/cache/archives"
    mv "$tree" "$sysroot"
}

prepare_sysroot() {
    local wanted=${sysroot_packages[*]}
    [ "$(cat "$target/sysroot.packages" 2> /dev/null)" != "$wanted" ] || return 0
    say "- fetching the target's libraries"
    from_mirror "the target's libraries" download_sysroot
    quietly "unpacking the target's libraries" unpack_sysroot
    printf '%s\n' "$wanted" > "$target/sysroot.packages"
}

# The kernel's package alone: what it depends on is for installing it.
download_kernel() {
    local package
    configure_apt && target_apt apt-get -qq update &&
        package=$(target_apt apt-cache depends linux-image-armmp | sed -n 's/.*Depends: \(linux-image-[0-9].*\)/\1/p') &&
        rm -rf "$kernel.package" && mkdir -p "$kernel.package" && cd "$kernel.package" &&
        target_apt apt-get -qq download "$package"
}

unpack_kernel() {
    rm -rf "$kernel" "$kernel.tree"
    mkdir -p "$kernel.tree" "$kernel"
    unpack "$kernel.package"/*.deb "$kernel.tree" --wildcards "${kernel_files[@]}"
    find "$kernel.tree" -type f -exec mv -t "$kernel" {} +
    mv "$kernel"/vmlinuz-* "$kernel/vmlinuz"
    rm -rf "$kernel.tree" "$kernel.package"
}

prepare_kernel() {
    [ ! -e "$kernel/vmlinuz" ] || return 0
    say "- fetching the target's kernel"
    (from_mirror "the target's kernel" download_kernel)
    quietly "unpacking the target's kernel" unpack_kernel
}

# check GOAL VALUE: what a measured value is worth.
check() {
    if [ "$2" -lt "$1" ]; then echo met; else echo "NOT MET"; fi
}

# Text as the loader sees it: code, constants, tables for the linker.
tell_size() {
    local text
    text=$(arm-linux-gnueabihf-size "$1" | awk 'NR == 2 { print $1 }')
    printf '%-58s %12d bytes%s\n' "$(basename "$1"), text" "$text" "${2:+  goal $2: $(check "$2" "$text")}"
}

build() {
    install_packages g++-arm-linux-gnueabihf cmake ninja-build pkg-config qemu-user-static
    prepare_sysroot
    quietly "configuring armhf" cmake --preset armhf -DCMAKE_COMPILE_WARNING_AS_ERROR=ON
    quietly "building armhf" cmake --build --preset armhf
    tell_size build/armhf/lib/libzol.so 102400
    tell_size $bin/kivtest.exe
}

# The shared libraries that a program of the target loads.
libraries_of() {
    qemu-arm-static -L "$sysroot" -E LD_TRACE_LOADED_OBJECTS=1 "$1" | sed -n 's/.*=> \(.*\) (.*/\1/p'
}

# A root file system for the board: a shell, the libraries, and this tree's programs and configuration, at the same
# place as here because the tests know their programs by their path.
make_image() {
    local program tree=$image$PWD
    rm -rf "$image"
    mkdir -p "$image"/{bin,dev,etc,lib,media/internal,modules,proc,root,sys,tmp,var/log} "$tree"/build/armhf/{bin,lib}
    cp "$sysroot/bin/busybox" "$image/bin"
    ln -s busybox "$image/bin/sh"
    cp "$kernel"/*.ko "$image/modules"
    cp Scripts/on_board.sh "$image/init"
    printf '%s\n' "$PWD" > "$image/etc/tree"
    cp -r Conf "$tree"
    cp -P build/armhf/lib/libzol.so* "$tree/build/armhf/lib"
    for program in "$bin"/*; do
        arm-linux-gnueabihf-strip -o "$tree/$program" "$program"
        libraries_of "$program"
    done | sort -u | grep -v "^$PWD/build/armhf" > "$target/libraries"
    sed "s|^/|$sysroot/|; s|^$sysroot$sysroot|$sysroot|" "$target/libraries" | xargs cp -Lt "$image/lib"
    cp -L "$sysroot/lib/ld-linux-armhf.so.3" "$image/lib"
    (cd "$image" && find . | cpio -o -H newc --quiet -F "$target/initramfs")
}

# An i.MX6 board with a clock chip on the first I2C bus and an EEPROM on the second. Its date is set: the clock chip is
# read too. Without a regular tick, sleeps on the emulated timer end up to a second late.
emulate() {
    head -c 4096 /dev/zero > "$target/eeprom"
    printf 'board' | dd of="$target/eeprom" bs=1 seek=1024 conv=notrunc status=none
    timeout "$board_time_limit" qemu-system-arm -M sabrelite -smp 2 -m 512 -display none -monitor none -no-reboot \
        -kernel "$kernel/vmlinuz" -dtb "$kernel/imx6q-sabrelite.dtb" -initrd "$target/initramfs" \
        -append "console=ttymxc1,115200 quiet panic=-1 nohz=off" -rtc base=2031-02-03T04:05:06 \
        -device ds1338,bus=i2c-bus.0,address=0x68 \
        -drive "file=$target/eeprom,if=none,format=raw,id=eeprom" \
        -device at24c-eeprom,bus=i2c-bus.1,address=0x50,rom-size=4096,drive=eeprom \
        -serial null -serial stdio < /dev/null
}

run_board() {
    local status=0
    say "- booting the board"
    emulate 2>&1 | sed -u 's/\r//g' | tee "$board_log" | sed -nu 's/^board: /  /p' || status=$?
    [ $status -ne 124 ] || fail "the board did not come to an end in $board_time_limit s; see $board_log"
    [ $status -eq 0 ] || fail "the emulator ended with $status; see $board_log"
    grep -q '^board: [0-9]* passed, 0 failed' "$board_log" || fail "the board's steps failed; see $board_log"
    # What was written to the EEPROM over I2C is in its memory, at the place that the 16-bit address names.
    [ "$(od -An -tx1 -j $((0x123)) -N 1 "$target/eeprom")" = " a5" ] || fail "the EEPROM does not hold what was written"
}

case ${1:-} in
-h | --help)
    usage
    exit 0
    ;;
build | test | board) ;;
*)
    usage >&2
    exit 2
    ;;
esac
[ $# -eq 1 ] || {
    usage >&2
    exit 2
}

say "libzol for a 32-bit ARM board: $1"
case $1 in
build)
    build
    ;;
test)
    Scripts/test.sh armhf
    ;;
board)
    build
    install_packages qemu-system-arm cpio
    prepare_kernel
    quietly "making the board's file system" make_image
    run_board
    ;;
esac
say "arm $1: passed"

#!/usr/bin/env bash
# Builds for a 32-bit ARM board, and runs the programs in an emulation. See --help.

# shellcheck source=Scripts/common.sh
source "$(dirname "$0")/common.sh"

readonly target=$PWD/build/target # files of the target's distribution
readonly sysroot=$target/sysroot kernel=$target/kernel image=$target/image
readonly bin=build/armhf/bin logs_of_machines=build/armhf
readonly board_patience=600 # seconds without output of the board
readonly instructions=Bench/instructions.txt counted=build/armhf/instructions.txt growth=3

readonly sysroot_packages=(libc6-dev libstdc++-12-dev libglib2.0-dev libxml2-dev libfuse3-dev libgtest-dev
    busybox-static gpiod i2c-tools)
readonly kernel_files=('./boot/vmlinuz-*' '*/imx6q-sabrelite.dtb' '*/i2c-dev.ko' '*/i2c-imx.ko' '*/fuse.ko'
    '*/gpio-mxc.ko'
    '*/imx2_wdt.ko') # the last one restarts the board, which ends the emulation

usage() {
    cat << END
usage: Scripts/arm.sh build|test|instructions|board

Installs missing packages, makes a root file system of the target's headers and libraries (once,
in build/target; this needs root or sudo), and
  build  builds everything for a 32-bit ARM board (Debian's armhf) and shows its size
  test   builds, and runs the tests in user-mode emulation: Scripts/test.sh armhf
  instructions
         builds, counts the instructions of single operations in user-mode emulation, and compares
         them with $instructions, where each may grow by $growth %
  board  builds, boots an emulated i.MX6 board, and runs the tool, the examples and the tests
         that need a kernel there; then boots QEMU's machine "virt", whose power key interrupts
         a GPIO line, and measures the costs of lines; $logs_of_machines/imx6.log, virt.log and
         costs.log keep the consoles
Exit status: 0 on success, 75 when the package mirror did not deliver.
END
}

# fetch PACKAGE...: packages of the target and those they depend on, unpacked in one archive.
fetch() {
    mkdir -p "$target" &&
        prepare_bootstrap armhf Debian &&
        bootstrap "$target/tree.tar" --architectures=armhf --variant=extract --include="$(IFS=,; echo "$*")" \
            --hook-dir=/usr/share/mmdebstrap/hooks/merged-usr
}

# Links to absolute paths are made relative, so that they stay in the tree.
unpack_sysroot() {
    local tree=$sysroot.new link
    rm -rf "$tree" && mkdir "$tree" &&
        tar -x -f "$target/tree.tar" -C "$tree" \
            --exclude=./dev --exclude=./etc --exclude=./var --exclude='./usr/share/[dlm]*' || return
    find "$tree" -lname '/*' | while read -r link; do
        ln -sfnr "$tree$(readlink "$link")" "$link"
    done
    rm -rf "$sysroot" "$target/tree.tar"
    mv "$tree" "$sysroot"
}

prepare_sysroot() {
    local wanted=${sysroot_packages[*]}
    [ "$(cat "$target/sysroot.packages" 2> /dev/null)" != "$wanted" ] || return 0
    require_root "unpack packages of the target"
    from_mirror "fetching the target's libraries" fetch "${sysroot_packages[@]}"
    quietly "unpacking the target's libraries" unpack_sysroot
    printf '%s\n' "$wanted" > "$target/sysroot.packages"
}

unpack_kernel() {
    rm -rf "$kernel" && mkdir "$kernel" &&
        tar -x -f "$target/tree.tar" -C "$kernel" --wildcards --transform='s|.*/||' "${kernel_files[@]}" &&
        rm "$target/tree.tar" &&
        mv "$kernel"/vmlinuz-* "$kernel/vmlinuz"
}

prepare_kernel() {
    local wanted=${kernel_files[*]}
    [ "$(cat "$target/kernel.files" 2> /dev/null)" != "$wanted" ] || return 0
    require_root "unpack packages of the target"
    from_mirror "fetching the target's kernel" fetch linux-image-armmp
    quietly "unpacking the target's kernel" unpack_kernel
    printf '%s\n' "$wanted" > "$target/kernel.files"
}

# check GOAL VALUE: compares a measured value with its goal.
check() {
    if [ "$2" -lt "$1" ]; then echo met; else echo "NOT MET"; fi
}

# The size of the text segment: code, constants, tables for the linker.
tell_size() {
    local text
    text=$(arm-linux-gnueabihf-size "$1" | awk 'NR == 2 { print $1 }')
    printf '%-58s %12d bytes%s\n' "$(basename "$1"), text" "$text" "${2:+  goal $2: $(check "$2" "$text")}"
}

# build_targets TARGET...
build_targets() {
    install_packages g++-arm-linux-gnueabihf cmake ninja-build pkg-config qemu-user-static mmdebstrap
    prepare_sysroot
    quietly "configuring armhf" cmake --preset armhf -DCMAKE_COMPILE_WARNING_AS_ERROR=ON
    quietly "building armhf" cmake --build --preset armhf "${@/#/--target=}"
}

build() {
    build_targets
    tell_size build/armhf/lib/libzol.so 102400
    tell_size $bin/kivtest.exe
}

# executed OPERATION COUNT: instructions of the whole program. The emulator logs each as a block of its own.
executed() {
    qemu-arm-static -L "$sysroot" -singlestep -d nochain,exec -D /dev/stdout $bin/zol_repeat "$1" "$2" | grep -c '^Trace'
}

# The start of the program drops out of the difference of two counts.
count_operation() {
    local few many
    few=$(executed "$1" 100) && many=$(executed "$1" 500) || return
    printf '%-14s %6d\n' "$1" $(((many - few + 200) / 400))
}

count_instructions() {
    local operations operation jobs=()
    mapfile -t operations < <(qemu-arm-static -L "$sysroot" $bin/zol_repeat)
    for operation in "${operations[@]}"; do
        count_operation "$operation" > "$counted.$operation" &
        jobs+=($!)
    done
    wait "${jobs[@]}"
    cat "${operations[@]/#/$counted.}" > "$counted"
    [ "$(wc -l < "$counted")" -eq ${#operations[@]} ]
}

compare_instructions() {
    awk -v growth=$growth '
        NR == FNR { former[$1] = $2; next }
        {
            more = $1 in former && former[$1] > 0 ? ($2 / former[$1] - 1) * 100 : 0
            verdict = !($1 in former) ? "NEW" : more > growth ? "TOO MANY" : ""
            printf "%-14s %6d instructions, %6d in the table  %s\n", $1, $2, former[$1], verdict
            failed += verdict != ""
        }
        END { exit failed > 0 }' "$instructions" "$counted"
}

# The shared libraries that a program of the target loads.
libraries_of() {
    qemu-arm-static -L "$sysroot" -E LD_TRACE_LOADED_OBJECTS=1 "$1" | sed -n 's/.*=> \(.*\) (.*/\1/p'
}

# A root file system for the board: a shell, tools, the libraries, and this tree's programs and configuration. They have the same
# paths as here, because the tests find their programs by path.
make_image() {
    local program tree=$image$PWD
    rm -rf "$image"
    mkdir -p "$image"/{bin,dev,etc,lib,media/internal,modules,proc,root,sys,tmp,usr/sbin,var/log} \
        "$tree"/build/armhf/{bin,lib} "$tree/Tests/transcripts"
    cp "$sysroot/bin/busybox" "$image/bin"
    ln -s busybox "$image/bin/sh"
    cp "$sysroot"/usr/sbin/i2c{detect,dump,get,set,transfer} "$sysroot"/usr/bin/gpio{detect,info} "$image/usr/sbin"
    cp Tests/transcripts/i2c_tools.txt "$tree/Tests/transcripts"
    cp "$kernel"/*.ko "$image/modules"
    cp Scripts/on_board.sh "$image/init"
    printf '%s\n' "$PWD" > "$image/etc/tree"
    cp -r Conf "$tree"
    cp -P build/armhf/lib/libzol.so* "$tree/build/armhf/lib"
    for program in "$bin"/*; do
        arm-linux-gnueabihf-strip -o "$tree/$program" "$program"
    done
    for program in "$bin"/* "$image"/usr/sbin/*; do
        libraries_of "$program"
    done | sort -u | grep -v "^$PWD/build/armhf" > "$target/libraries"
    sed "s|^/|$sysroot/|; s|^$sysroot$sysroot|$sysroot|" "$target/libraries" | xargs cp -Lt "$image/lib"
    cp -L "$sysroot/lib/ld-linux-armhf.so.3" "$image/lib"
    (cd "$image" && find . | cpio -o -H newc --quiet -F "$target/initramfs")
}

# boot MACHINE OPTION...: boots the kernel and the file system on an emulated machine.
boot() {
    qemu-system-arm -M "$1" -smp 2 -m 512 -display none -no-reboot \
        -kernel "$kernel/vmlinuz" -initrd "$target/initramfs" "${@:2}" 2>&1 | sed -u 's/\r//g'
}

# An i.MX6 board with a clock chip on the first I2C bus and an EEPROM on the second. The date is fixed, because a step reads
# it from the clock chip. nohz=off: without a regular tick, sleeps on the emulated timer end up to a second late.
emulate_imx6() {
    head -c 4096 /dev/zero > "$target/eeprom"
    printf 'board' | dd of="$target/eeprom" bs=1 seek=1024 conv=notrunc status=none
    boot sabrelite -dtb "$kernel/imx6q-sabrelite.dtb" -append "console=ttymxc1,115200 quiet panic=-1 nohz=off" \
        -rtc base=2031-02-03T04:05:06 -monitor none -serial null -serial stdio \
        -device ds1338,bus=i2c-bus.0,address=0x68 \
        -drive "file=$target/eeprom,if=none,format=raw,id=eeprom" \
        -device at24c-eeprom,bus=i2c-bus.1,address=0x50,rom-size=4096,drive=eeprom
}

# A machine whose power key is line 3 of a GPIO chip. Each line "pulse" on its console presses the key for 0.1 s.
emulate_virt() {
    local line
    rm -f "$target"/monitor.*
    mkfifo "$target"/monitor.{in,out}
    boot virt -nic none -append "console=ttyAMA0 quiet panic=-1" -monitor "pipe:$target/monitor" -serial stdio |
        while read -r line; do
            printf '%s\n' "$line"
            [ "$line" != pulse ] || echo system_powerdown > "$target/monitor.in"
        done
}

# The same machine with a clock that counts instructions: 1 ns each. So times do not depend on this machine and its load. The
# program that measures uses the registers of the chip, which iomem=relaxed allows.
emulate_costs() {
    boot virt -nic none -icount shift=0,sleep=off -smp 1 -monitor none -serial stdio \
        -append "console=ttyAMA0 quiet panic=-1 iomem=relaxed -- --costs"
}

# run_machine NAME: boots a machine, which carries out Scripts/on_board.sh.
run_machine() {
    local status=0 log=$logs_of_machines/$1.log
    say "- booting the machine $1"
    rm -f "$log"
    while_it_progresses $board_patience "$log" emulate_and_tell "$1" "$log" || status=$?
    [ $status -ne 124 ] || fail "no output of the machine for $board_patience s; see $log"
    [ $status -eq 0 ] || fail "the emulator ended with $status; see $log"
    grep -q '^board: [0-9]* passed, 0 failed' "$log" || fail "the steps of the machine failed; see $log"
}

emulate_and_tell() {
    "emulate_$1" | tee "$2" | sed -nu 's/^board: /  /p'
}

run_board() {
    run_machine imx6
    # A step wrote to the EEPROM over I2C. The byte must be in its memory, at its 16-bit address.
    [ "$(od -An -tx1 -j $((0x123)) -N 1 "$target/eeprom")" = " a5" ] || fail "the EEPROM does not hold what was written"
    run_machine virt
    run_machine costs
}

answer_help "$@"
[[ $# -eq 1 && $1 =~ ^(build|test|instructions|board)$ ]] || wrong_usage

say "libzol for a 32-bit ARM board: $1"
case $1 in
build)
    build
    ;;
test)
    Scripts/test.sh armhf
    ;;
instructions)
    build_targets zol_repeat
    quietly "counting" count_instructions
    compare_instructions || fail "an operation takes more instructions; cp $counted $instructions accepts it"
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

#!/usr/bin/env bash
# Shows the library at its main job, on the virtual board; installs what is missing and builds first. See --help.

# shellcheck source=Scripts/common.sh
source "$(dirname "$0")/common.sh"

readonly bin=build/demo/bin

usage() {
    cat << END
usage: Scripts/demo.sh

Installs what is missing, builds, and shows kivtest.exe at work on the virtual board: it writes and
reads registers of I2C devices, and the board's journal shows that they arrived; two worker
threads draw a timing diagram of their messages; then the prepared tokens are read. Exit status 0 when all of it was as it should be. Without FUSE the
board's part is left out, with the reason.
END
}

show() {
    printf '\n$ %s\n' "$*"
}

# kivtest ARGUMENT...: runs the tool and shows what a user looks for, the results; its log is kept.
kivtest() {
    show kivtest.exe "$@"
    "$bin/kivtest.exe" "$@" > "$logs/kivtest.log" 2>&1
    grep -av '\[   KIV   \]' "$logs/kivtest.log" || true
}

expect() {
    if ! grep -aqF -- "$1" "$2"; then
        fail "expected '$1', but see $2"
    fi
}

# write_and_read SUFFIX BUS ADDRESS REGISTER VALUE: "" for 8-bit register addresses, "16" for 16-bit ones.
write_and_read() {
    local suffix=$1 device=(-b "$2" -d "$3" -r "$4")
    kivtest -t "write_i2c$suffix" "${device[@]}" -v "$5"
    kivtest -t "read_i2c$suffix" "${device[@]}"
    expect "reg $4) ==> $5" "$logs/kivtest.log"
    show kivboard peek "$2" "$3" "$4"
    "$bin/kivboard" peek "$2" "$3" "$4" | tee "$logs/peek.log"
    expect "$5" "$logs/peek.log"
}

on_the_board() {
    write_and_read "" 4 0x18 0x20 0x57
    write_and_read 16 1 0x50 0x123 0xa5
    show kivboard journal
    "$bin/kivboard" journal
    draw_two_workers
}

# Two workers and their messages, as a picture. The log lies in the board's /var/log/zol, which goes with the board.
draw_two_workers() {
    show two_workers
    "$bin/two_workers" > "$logs/two_workers.log" 2>&1 || fail "two_workers failed; see $logs/two_workers.log"
    grep -av '\[   KIV   \]' "$logs/two_workers.log"
    show zol_timing /var/log/zol/two_workers.csv
    "$bin/zol_timing" /var/log/zol/two_workers.csv --svg build/demo/two_workers.svg --vcd build/demo/two_workers.vcd
    expect "finish" build/demo/two_workers.svg
}

without_the_board() {
    kivtest -t kiv_tokens
    expect "Read ACCELCAL token name(accel)" "$logs/kivtest.log"
}

case ${1:-} in
"") ;;
--on-the-board) # how this script calls itself on the board
    on_the_board
    exit 0
    ;;
-h | --help)
    usage
    exit 0
    ;;
*)
    usage >&2
    exit 2
    ;;
esac

say "libzol on the virtual board: registers over I2C, worker threads and their timing, tokens"
install_packages "${build_packages[@]}"
quietly "configuring" cmake --preset release -B build/demo -DZOL_BUILD_TESTS=OFF
quietly "building" cmake --build build/demo

board=yes
if "$bin/kivboard" check; then
    "$bin/kivboard" run -- bash Scripts/demo.sh --on-the-board
else
    board=no
fi
without_the_board

if [ $board = yes ]; then
    printf '\nThe timing diagram of the two workers: %s\n' "$PWD/build/demo/two_workers.svg"
    printf '\ndemo: passed\n'
else
    printf '\ndemo: passed without the virtual board; see the reason above\n'
fi

#!/usr/bin/env bash
# Shows the library at its main job, on the virtual board; installs what is missing and builds first. See --help.

# shellcheck source=Scripts/common.sh
source "$(dirname "$0")/common.sh"

readonly bin=build/demo/bin

usage() {
    cat << END
usage: Scripts/demo.sh

Installs what is missing, builds, and shows the library at its main job on the virtual board: a
button raises an interrupt, which posts an event; a worker takes it, reads a sensor over I2C and
switches a lamp, and all of it is drawn as a timing diagram. Then kivtest.exe writes and reads
registers, and reads the prepared tokens. Exit status 0 when all of it was as it should be.
Without FUSE the board's part is left out, with the reason.
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

# Presses the button once the application has asked for its interrupts; until then the board drops them.
press_the_button() {
    local deadline=$((SECONDS + 10))
    until [ -z "$("$bin/kivboard" raise 17)" ]; do
        [ $SECONDS -lt $deadline ] || fail "nobody asks for the interrupts of pin 17; see $logs/button_lamp.log"
        sleep 0.05
    done
    (sleep 0.002; say "raise 17"; sleep 0.002; say "raise 17") | "$bin/kivboard" -
}

# The log lies in the board's /var/log/zol, which goes with the board.
from_a_button_to_a_lamp() {
    show "button_lamp &    # and three times: kivboard raise 17"
    "$bin/button_lamp" > "$logs/button_lamp.log" 2>&1 &
    press_the_button
    wait $! || fail "button_lamp failed; see $logs/button_lamp.log"
    grep -av '\[   KIV   \]' "$logs/button_lamp.log"
    expect "press 3: the sensor says 0x33, the lamp is on" "$logs/button_lamp.log"
    show kivboard journal
    "$bin/kivboard" journal
    show zol_timing /var/log/zol/button_lamp.csv
    "$bin/zol_timing" /var/log/zol/button_lamp.csv --svg build/demo/button_lamp.svg --vcd build/demo/button_lamp.vcd
    expect "wait for event" build/demo/button_lamp.svg
}

on_the_board() {
    from_a_button_to_a_lamp
    write_and_read "" 4 0x18 0x20 0x57
    write_and_read 16 1 0x50 0x123 0xa5
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

say "libzol on the virtual board: from an interrupt to an output, registers over I2C, tokens"
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
    printf '\nThe timing diagram, from the button to the lamp: %s\n' "$PWD/build/demo/button_lamp.svg"
    printf '\ndemo: passed\n'
else
    printf '\ndemo: passed without the virtual board; see the reason above\n'
fi

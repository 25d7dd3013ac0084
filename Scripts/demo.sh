#!/usr/bin/env bash
# Installs missing packages, builds, and shows the library on the virtual board. See --help.

# shellcheck source=Scripts/common.sh
source "$(dirname "$0")/common.sh"

readonly bin=build/demo/bin

usage() {
    cat << END
usage: Scripts/demo.sh

Installs missing packages, builds, and shows the library on the virtual board: a button raises an
interrupt, which posts an event; a worker waits for the event, reads a sensor over I2C and switches
a lamp; a timing diagram shows each step, and the pins and the bus. Then kivtest.exe writes and reads registers, and reads
the prepared tokens. Without FUSE the part on the board is skipped, with the reason.
Exit status: 0 when every output was as expected.
END
}

show() {
    printf '\n$ %s\n' "$*"
}

# kivtest ARGUMENT...: runs the tool and shows its results without the log, which is kept in a file.
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

# Presses the button as soon as the application has requested its interrupts, and each time the lamp has followed.
press_the_button() {
    "$bin/kivboard" play - > "$logs/presses.log" 2>&1 << END
wait pin 17 requested within 60s
raise 17
wait pin 5 is 1 within 10s
+2ms raise 17
wait pin 5 is 0 within 10s
+2ms raise 17
END
}

# The timing log is in the board's /var/log/zol, which disappears with the board.
from_a_button_to_a_lamp() {
    show "button_lamp &    # and three times: kivboard raise 17"
    "$bin/button_lamp" > "$logs/button_lamp.log" 2>&1 &
    press_the_button || fail "the button could not be pressed; see $logs/presses.log and $logs/button_lamp.log"
    wait $! || fail "button_lamp failed; see $logs/button_lamp.log"
    grep -av '\[   KIV   \]' "$logs/button_lamp.log"
    expect "press 3: the sensor says 0x33, the lamp is on" "$logs/button_lamp.log"
    show kivboard journal
    "$bin/kivboard" journal
    show "kivboard journal --json | zol_timing /var/log/zol/button_lamp.csv --journal - --from 0"
    "$bin/kivboard" journal --json |
        "$bin/zol_timing" /var/log/zol/button_lamp.csv --journal - --from 0 --svg build/demo/button_lamp.svg \
            --vcd build/demo/button_lamp.vcd --perfetto build/demo/button_lamp.json
    expect "wait for event" build/demo/button_lamp.svg
    expect "i2c-4 0x18" build/demo/button_lamp.svg
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

if [ "${1:-}" = --on-the-board ]; then # the call of this script below
    on_the_board
    exit
fi
answer_help "$@"
[ $# -eq 0 ] || wrong_usage

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
    printf 'The same for https://ui.perfetto.dev: %s\n' "$PWD/build/demo/button_lamp.json"
    printf '\ndemo: passed\n'
else
    printf '\ndemo: passed without the virtual board; see the reason above\n'
fi

#!/bin/sh
# The first program on the emulated machines of Scripts/arm.sh: it does everything from the start to the end. Each step is a
# line of the tables below: "step", or "board_step" for a step that needs the nodes of the virtual board.

passed=0 failed=0 skipped=0

bring_up() {
    /bin/busybox --install -s /bin
    mount -t proc proc /proc
    mount -t sysfs sysfs /sys
    mount -t devtmpfs devtmpfs /dev
    mount -t debugfs debugfs /sys/kernel/debug
    for module in /modules/*.ko; do
        insmod "$module"
    done
    cd "$(cat /etc/tree)" || return
    PATH=$PWD/build/armhf/bin:/usr/sbin:/bin
}

verdict() {
    case $1 in
    passed) passed=$((passed + 1)) ;;
    failed) failed=$((failed + 1)) ;;
    esac
    echo "board: $1  $2"
}

# step LABEL TEXT COMMAND...: runs a command, which must end with 0 and write the text, if any.
step() {
    what=$1 text=$2 begun=$(date +%s)
    shift 2
    echo "\$ $*"
    "$@" 2>&1 | tee /tmp/output # not later: the emulation ends a board without output
    status=$?
    if [ $status -eq 0 ] && { [ -z "$text" ] || grep -qF -e "$text" /tmp/output; }; then
        verdict passed "$what ($(($(date +%s) - begun)) s)"
    else
        verdict failed "$what: status $status, expected \"$text\""
    fi
}

# begin COMMAND...: starts a command that mostly sleeps, in the background. The step "/init --await" waits for its end.
begin() {
    {
        "$@" > /tmp/begun.output 2>&1
        echo $? > /tmp/begun.status
    } &
}

await() {
    while [ ! -s /tmp/begun.status ]; do
        sleep 1
    done
    cat /tmp/begun.output
    return "$(cat /tmp/begun.status)"
}

# board_step LABEL TEXT SHELL-LINE: a step on the virtual board.
board_step() {
    step "virtual board: $1" "$2" kivboard run -- sh -c "$3"
}

# repeat_transcript FILE: runs the commands of a console transcript, and compares their output. This shell prefers its own
# programs of the same names, so functions call the others.
repeat_transcript() {
    for program in /usr/sbin/i2c*; do
        eval "${program##*/}() { $program \"\$@\"; }"
    done
    while IFS= read -r line; do
        case $line in
        '$ '*)
            echo "$line"
            (eval "${line#??}") 2>&1 < /dev/null || echo "[$?]"
            ;;
        '' | '#'*) echo "$line" ;;
        esac
    done < "$1" > /tmp/transcript
    diff "$1" /tmp/transcript
}

# median FIELD PROGRAM: the median of 21 runs, because resident memory depends on the addresses of the libraries.
median() {
    for _ in $(seq 21); do
        "$2" Conf/kiv_test.xml | tail -n 1 | cut -d ' ' -f "$1"
    done | sort -n | sed -n 11p
}

# on_top FIELD: the memory that the started library adds to a process that has loaded GLib and libxml2.
on_top() {
    echo $(($(median "$1" memory_with_zol) - $(median "$1" memory_without_zol)))
}

# With each page that is used, the kernel also maps those around it that are in memory already. The goal is for used pages.
weigh() {
    around=$(on_top 1)
    echo 4096 > /sys/kernel/debug/fault_around_bytes
    used=$(on_top 1) met=met
    [ "$used" -lt 256 ] || met="NOT MET"
    echo "board: memory of GLib and libxml2, pages in use: $(median 1 memory_without_zol) KiB"
    echo "board: memory of the started library on top, pages in use: $used KiB, goal 256 KiB: $met"
    echo "board: of that its own, not from files: $(on_top 2) KiB"
    echo "board: memory of the started library on top, with pages around those in use: $around KiB"
}

# configure_lines LABEL...: a configuration whose chips have 32 pins each.
configure_lines() {
    number=0
    {
        echo "<board><devices><general><configName>lines</configName><debugLevel>2</debugLevel>"
        echo "<systemTokensPath>Conf/tokens</systemTokensPath><i2c_buses_num>0</i2c_buses_num><gpio_chips_num>$#</gpio_chips_num>"
        for label in "$@"; do
            echo "<gpio_chip_${number}_dev>$label</gpio_chip_${number}_dev>"
            echo "<gpio_chip_${number}_first>$((32 * number))</gpio_chip_${number}_first>"
            number=$((number + 1))
        done
        echo "</general></devices></board>"
    } > /tmp/lines.xml
}

# use_pins LINES [TEXT COMMAND...]: gives lines to the console of the GPIO test. While it has its pins, repeats a command until
# it shows a text.
use_pins() {
    lines=$1 expected=${2:-} attempts=0
    shift $(($# < 2 ? $# : 2))
    {
        printf '%b' "$lines"
        until [ $# -eq 0 ] || [ $attempts -eq 100 ]; do
            "$@" > /tmp/seen 2>&1
            ! grep -F -e "$expected" /tmp/seen >&2 || break
            attempts=$((attempts + 1))
            sleep 0.2
        done
    } | kivtest.exe -c /tmp/lines.xml -m gpio -i
}

another_program() {
    sleep 2 # the first one has its pin by then
    echo "alloc $1" | kivtest.exe -c /tmp/lines.xml -m gpio -i
}

show_line() {
    gpioinfo "$1" | grep "line *$2:"
}

# The keys hold some lines. The kernel asks for the keys' interrupts while it loads the chips' driver. If a chip has no
# interrupts yet at that moment, the kernel gives up the keys until they are bound by hand.
bind_keys() {
    driver=/sys/bus/platform/drivers/gpio-keys
    [ -e $driver/gpio-keys ] || echo gpio-keys > $driver/bind
}

run_line_steps() {
    bind_keys
    configure_lines 209c000.gpio 20a0000.gpio 20a4000.gpio /dev/gpiochip3 20ac000.gpio 20b0000.gpio 20b4000.gpio
    step "lines: output, by gpioinfo"   '"test"  output  active-high [used]' \
        use_pins 'alloc 40\nset 40 1\n' '"test"  output' gpioinfo 20a0000.gpio
    step "lines: high, by the kernel"   "|test                ) out hi" \
        use_pins 'alloc 104\nset 104 1\n' ") out hi" grep "|test " /sys/kernel/debug/gpio
    step "lines: low, by the kernel"    "|test                ) out lo" \
        use_pins 'alloc 200\nset 200 1\nset 200 0\n' ") out lo" grep "|test " /sys/kernel/debug/gpio
    step "lines: high, by the library"  "get gpio 200 val 1"        use_pins 'alloc 200\nset 200 1\nget 200\n'
    step "lines: released at the end"   "unused  output"            show_line 20b4000.gpio 8
    step "lines: taken as they are"     '"test"  output'            use_pins 'alloc 200\n' '"test"' gpioinfo 20b4000.gpio
    step "lines: a callback"            '"test"   input  active-high [used]' \
        use_pins 'alloc 40\nset 40 1\nreg 40 0 4\n' '"test"   input' gpioinfo 20a0000.gpio
    step "lines: no level interrupts"   "a line of a GPIO chip has edges only" use_pins 'alloc 40\nreg 40 1 1\n'
    step "lines: checked by zol"        "the library starts: 0 errors, 0 warnings" zol conf check /tmp/lines.xml
    step "lines: driven by zol"         ""                          zol --conf /tmp/lines.xml gpio set 201=1
    step "lines: read by zol"           "201=1"                     zol --conf /tmp/lines.xml gpio get 201 202
    step "lines: in use by the kernel"  'line 1 of 20a0000.gpio is in use by "Menu"' use_pins 'alloc 33\n'
    step "lines: in use by a program"   'line 8 of 20a0000.gpio is in use by "test"' \
        use_pins 'alloc 40\n' 'is in use by' another_program 40
    configure_lines 209c000.gpio /dev/null no-such-chip
    step "lines: no chip at the node"   '"/dev/null" does not open, errno 25'   use_pins 'alloc 8\n'
    step "lines: no chip of the label"  '"no-such-chip" does not open, errno 19' use_pins 'alloc 8\n'
}

# count_callbacks MODE: of 100 pulses. The modes are those of the console: 2 falling, 3 rising, 4 both. For each line "pulse"
# the emulator raises line 3 for 0.1 s.
count_callbacks() {
    {
        printf 'alloc 3\nreg 3 0 %d\n' "$1"
        sleep 2
        for _ in $(seq 100); do
            echo pulse > /dev/console
            sleep 0.25
        done
        sleep 1
    } | kivtest.exe -c /tmp/lines.xml -m gpio -i > /tmp/calls 2>&1
    echo "$(grep -c 'GPIO cbk, gpio=3,' /tmp/calls) callbacks"
}

# Presses the power key some times, because a program takes a while to watch its pin.
press_repeatedly() {
    for _ in 1 2 3 4 5; do
        sleep 2
        echo pulse > /dev/console
    done
}

# ticks PROGRAM: the processor time that it has used, in 1/100 s.
ticks() {
    awk '{ print $14 + $15 }' "/proc/$(pidof "$1")/stat"
}

# Removes a chip whose line has a callback, and brings it back. The console frees pin 2 to wake the listener.
remove_the_chip() {
    {
        printf 'alloc 3\nalloc 2\nreg 3 0 4\n'
        sleep 2
        echo 9030000.pl061 > /sys/bus/amba/drivers/pl061_gpio/unbind
        printf 'get 3\nfree 2\n'
        sleep 1
        before=$(ticks kivtest.exe)
        sleep 5
        used=$(($(ticks kivtest.exe) - before))
        [ $used -gt 100 ] || echo "$used ticks in 5 s: it does not spin" >&2
        printf 'free 3\n'
        echo 9030000.pl061 > /sys/bus/amba/drivers/pl061_gpio/bind
        printf 'alloc 3\nget 3\n'
    } | kivtest.exe -c /tmp/lines.xml -m gpio -i > /tmp/removed 2>&1
}

run_interrupt_steps() {
    configure_lines 9030000.pl061
    step "line: in use by the power key" 'line 3 of 9030000.pl061 is in use by "GPIO Key Poweroff"' use_pins 'alloc 3\n'
    echo gpio-keys > /sys/bus/platform/drivers/gpio-keys/unbind
    step "interrupts: 100 pulses, rising"     "100 callbacks"       count_callbacks 3
    step "interrupts: 100 pulses, falling"    "100 callbacks"       count_callbacks 2
    step "interrupts: 100 pulses, both edges" "200 callbacks"       count_callbacks 4
    press_repeatedly &
    step "interrupts: zol waits for one"      "pin 3"               zol --conf /tmp/lines.xml gpio wait 3 -t 60s
    wait
    step "removed chip: the library rests"    "it does not spin"    remove_the_chip
    step "removed chip: reading a level"      "gpio 3 is not read, errno 19" cat /tmp/removed
    step "removed chip: the listener"         "gpio 3 reports an error" cat /tmp/removed
    step "removed chip: it is back"           "get gpio 3 val"      tail -n 8 /tmp/removed
}

# In instructions of the program and of the kernel.
run_costs() {
    configure_lines 9030000.pl061
    echo gpio-keys > /sys/bus/platform/drivers/gpio-keys/unbind
    step "costs of lines" "bare read loop" line_costs /tmp/lines.xml
    cp /tmp/output /tmp/costs
    sed -n 's/^.* : bare/board: &/p' /tmp/costs
    step "interrupts: 10,000 a second" "10000 of 10000 edges called back, in 1.1 s" cat /tmp/costs
}

# These tests keep even a fast processor busy. They run in the emulation of single programs, which is faster.
readonly too_much='GpioThreads.*:*AThousandGroups*:*ManyNotifiers*:*InterruptionsLose*:*AFullDisk*:*OrderOfEachSender*'

# run_each_test PROGRAM: runs each test of a program in a process of its own.
run_each_test() {
    for test in $("$1" --gtest_list_tests "--gtest_filter=-$too_much" | awk '/^[^ ]/ { suite = $1 } /^ / { print suite $1 }'); do
        timeout 300 "$1" "--gtest_filter=$test" > /tmp/test 2>&1
        status=$?
        if [ $status -ne 0 ]; then
            cat /tmp/test
            echo "$test: failed with status $status"
            failed=$((failed + 1))
        elif grep -q '  SKIPPED  ' /tmp/test; then
            echo "$test: skipped"
            skipped=$((skipped + 1))
        else
            echo "$test: passed"
            passed=$((passed + 1))
        fi
    done
    echo "$1: $passed passed, $failed failed, $skipped skipped"
}

run_steps() {
    # The clock chip has 8-bit register addresses: the date in the first seven, memory from the ninth on.
    step "clock chip: the month"       "reg 0x5) ==> 0x2"          kivtest.exe -t read_i2c -b 0 -d 0x68 -r 0x05
    step "clock chip: the year"        "reg 0x6) ==> 0x31"         kivtest.exe -t read_i2c -b 0 -d 0x68 -r 0x06
    step "clock chip: memory written"  "reg 0x20) <== val 0x57"    kivtest.exe -t write_i2c -b 0 -d 0x68 -r 0x20 -v 0x57
    step "clock chip: memory read"     "reg 0x20) ==> 0x57"        kivtest.exe -t read_i2c -b 0 -d 0x68 -r 0x20
    step "EEPROM: initial content"     "reg 0x401) ==> 0x6f"       kivtest.exe -t read_i2c16 -b 1 -d 0x50 -r 0x401
    step "EEPROM: written"             "reg 0x123) <== val 0xa5"   kivtest.exe -t write_i2c16 -b 1 -d 0x50 -r 0x123 -v 0xa5
    step "EEPROM: read"                "reg 0x123) ==> 0xa5"       kivtest.exe -t read_i2c16 -b 1 -d 0x50 -r 0x123
    step "no device: reading"          "can't read register 0xf ret -1" kivtest.exe -t read_i2c -b 0 -d 0x33 -r 0x0f
    step "no device: writing"          "write register 0xf ret -1" kivtest.exe -t write_i2c -b 0 -d 0x33 -r 0x0f -v 1
    step "no bus"                      "ASSERT FAILED [Src/kiv_i2c]" kivtest.exe -t read_i2c -b 3 -d 0x33

    step "i2c-tools: answers as on the virtual board" ""        /init --transcript Tests/transcripts/i2c_tools.txt

    step "zol: the devices of a bus"   "0x68"                      zol i2c scan -b 0
    step "zol: registers of 16 bits"   "0xa5"                      zol i2c get -b 1 -d 0x50 --16 -r 0x123

    echo '<board><bus number="5" node="/dev/i2c-0"/></board>' > /tmp/forwarded.xml
    step "a forwarded bus: its journal" "W[30] R[66] ok, "          kivboard run --board /tmp/forwarded.xml -- \
        sh -c "/usr/sbin/i2cset -y 5 0x68 0x30 0x66; /usr/sbin/i2cget -y 5 0x68 0x30; kivboard journal"

    begin kivtest.exe
    step "events: 50 events, 3 times"  "Test PASSED!"              kivtest.exe -m events -1 3
    step "events: groups, 5 times"     "Test PASSED!"              kivtest.exe -m events -3 5
    step "tokens"                      "Read ACCELCAL token name(accel)" kivtest.exe -t kiv_tokens
    step "storage stress"              "exiting application"       kivtest.exe -m biostress -t 2 -f 2 -s 65536 -d 1000
    step "storage stress: its files"   "65536 /media/internal/stress_1_file_2.bin" wc -c /media/internal/stress_1_file_2.bin
    step "timing log: two workers"     "all messages were handled" two_workers
    step "timing log: its file"        "93 /var/log/zol"           wc -l /var/log/zol/two_workers.csv
    step "timing log: drawn"           ""                          zol_timing /var/log/zol/two_workers.csv --svg /tmp/a.svg

    board_step "it can run here"       ""                          "kivboard check"
    board_step "example"               "it is a 0x33"              "read_register"
    board_step "journal"               "W[20 5a] ok"               "kivtest.exe -t write_i2c -r 0x20 -v 0x5a; kivboard journal"
    board_step "GPIO: a pin's life"    "Test PASSED!"              "kivtest.exe -x -m gpio -c 3 -e 17"
    board_step "GPIO: restarts"        "Test PASSED!"              "kivtest.exe -x -m gpio -c 2 -d"
    board_step "GPIO: registrations"   "Test PASSED!"              "kivtest.exe -x -m gpio -c 5 -r 17"
    board_step "polling its pins"      "PASSED  ] 3 tests"         "pin_poll_tests"
    board_step "interrupt to output"   "press 3: the sensor says 0x33, the lamp is on" \
        "button_lamp & until [ -z \"\$(kivboard raise 17)\" ]; do sleep 0.1; done; kivboard raise 17 2; wait"
    run_line_steps
    step "tests of the library"        "passed, 0 failed, 0 skipped" /init --each-test zol_tests
    step "tests of the virtual board"  "passed, 0 failed, 0 skipped" /init --each-test board_tests
    step "all, begun above"            "exiting application"         /init --await
}

case ${1:-} in # its calls of itself
--each-test)
    run_each_test "$2"
    exit
    ;;
--transcript)
    repeat_transcript "$2"
    exit
    ;;
--await)
    await
    exit
    ;;
-h | --help)
    echo "The first program on the emulated machines that Scripts/arm.sh boots. It runs only there."
    exit
    ;;
esac
[ $$ -eq 1 ] || { # it reboots its machine at the end
    echo "on_board: runs only on an emulated machine; see Scripts/arm.sh --help" >&2
    exit 2
}
if bring_up; then
    # shellcheck disable=SC3040 # the board's shell has this option
    set -o pipefail
    if [ "${1:-}" = --costs ]; then
        run_costs
    elif [ -e /sys/bus/amba/devices/9030000.pl061 ]; then
        run_interrupt_steps
    else
        run_steps
        weigh
    fi
    echo "board: $passed passed, $failed failed, up $(cut -d ' ' -f 1 /proc/uptime) s"
fi
reboot -f

#!/bin/sh
# What the emulated board of Scripts/arm.sh does from its start to its end: it is the first program there. A step is a
# line of the table below; add one with "step", or with "board_step" what needs the nodes of the virtual board.

passed=0 failed=0 skipped=0

bring_up() {
    /bin/busybox --install -s /bin
    mount -t proc proc /proc
    mount -t sysfs sysfs /sys
    mount -t devtmpfs devtmpfs /dev
    for module in /modules/*.ko; do
        insmod "$module"
    done
    cd "$(cat /etc/tree)" || return
    PATH=$PWD/build/armhf/bin:/bin
}

verdict() {
    case $1 in
    passed) passed=$((passed + 1)) ;;
    failed) failed=$((failed + 1)) ;;
    esac
    echo "board: $1  $2"
}

# step WHAT TEXT COMMAND...: runs a command, which must end with 0 and write the text, if any.
step() {
    what=$1 text=$2 begun=$(date +%s)
    shift 2
    echo "\$ $*"
    timeout 100 "$@" > /tmp/output 2>&1
    status=$?
    cat /tmp/output
    if [ $status -eq 0 ] && { [ -z "$text" ] || grep -qF -e "$text" /tmp/output; }; then
        verdict passed "$what ($(($(date +%s) - begun)) s)"
    else
        verdict failed "$what: status $status, expected \"$text\""
    fi
}

# begin COMMAND...: starts what mostly sleeps, beside the steps; a step of /init --await waits for its end.
begin() {
    {
        timeout 100 "$@" > /tmp/begun.output 2>&1
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

# board_step WHAT TEXT SHELL-LINE: the same on the virtual board.
board_step() {
    step "virtual board: $1" "$2" kivboard run -- sh -c "$3"
}

# median FIELD PROGRAM: of 21 runs, since what is resident depends on where libraries happen to lie.
median() {
    for _ in $(seq 21); do
        "$2" Conf/kiv_test.xml | tail -n 1 | cut -d ' ' -f "$1"
    done | sort -n | sed -n 11p
}

# What the started library adds to a process that has loaded GLib and libxml2.
on_top() {
    echo $(($(median "$1" memory_with_zol) - $(median "$1" memory_without_zol)))
}

# With a page that is used the kernel maps those around it that it has in memory anyway. Goals are for what is used.
weigh() {
    mount -t debugfs debugfs /sys/kernel/debug
    around=$(on_top 1)
    echo 4096 > /sys/kernel/debug/fault_around_bytes
    used=$(on_top 1) met=met
    [ "$used" -lt 256 ] || met="NOT MET"
    echo "board: memory of GLib and libxml2, pages in use: $(median 1 memory_without_zol) KiB"
    echo "board: memory of the started library on top, pages in use: $used KiB, goal 256 KiB: $met"
    echo "board: of that its own, not from files: $(on_top 2) KiB"
    echo "board: memory of the started library on top, with pages around those in use: $around KiB"
}

# What keeps a fast processor busy is left to the emulation of single programs, which is faster.
readonly too_much='GpioThreads.*:*AThousandGroups*:*ManyNotifiers*:*InterruptionsLose*:*AFullDisk*:*MixedSends*'

# Runs the tests of a program, each in a process of its own as they ask for.
run_each_test() {
    for test in $("$1" --gtest_list_tests "--gtest_filter=-$too_much" | awk '/^[^ ]/ { suite = $1 } /^ / { print suite $1 }'); do
        timeout 30 "$1" "--gtest_filter=$test" > /tmp/test 2>&1
        status=$?
        if [ $status -ne 0 ]; then
            cat /tmp/test
            verdict failed "$test: status $status" > /dev/null
        elif grep -q '  SKIPPED  ' /tmp/test; then
            echo "$test: skipped"
            skipped=$((skipped + 1))
        else
            verdict passed "$test" > /dev/null
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
    step "EEPROM: what was there"      "reg 0x401) ==> 0x6f"       kivtest.exe -t read_i2c16 -b 1 -d 0x50 -r 0x401
    step "EEPROM: written"             "reg 0x123) <== val 0xa5"   kivtest.exe -t write_i2c16 -b 1 -d 0x50 -r 0x123 -v 0xa5
    step "EEPROM: read"                "reg 0x123) ==> 0xa5"       kivtest.exe -t read_i2c16 -b 1 -d 0x50 -r 0x123
    step "no device: reading"          "can't read register 0xf ret -1" kivtest.exe -t read_i2c -b 0 -d 0x33 -r 0x0f
    step "no device: writing"          "write register 0xf ret -1" kivtest.exe -t write_i2c -b 0 -d 0x33 -r 0x0f -v 1
    step "no bus"                      "ASSERT FAILED [Src/kiv_i2c]" kivtest.exe -t read_i2c -b 3 -d 0x33

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
    board_step "interrupt to output"   "press 3: the sensor says 0x33, the lamp is on" \
        "button_lamp & until [ -z \"\$(kivboard raise 17)\" ]; do sleep 0.1; done; kivboard raise 17 2; wait"
    step "tests of the library"        "passed, 0 failed, 0 skipped" /init --each-test zol_tests
    step "tests of the virtual board"  "passed, 0 failed, 0 skipped" /init --each-test board_tests
    step "tests of the tool"           "passed, 0 failed, 0 skipped" /init --each-test zol_system_tests
    step "all, begun above"            "exiting application"         /init --await
}

case ${1:-} in # how it calls itself
--each-test)
    run_each_test "$2"
    exit
    ;;
--await)
    await
    exit
    ;;
-h | --help)
    echo "The first program on the emulated board that Scripts/arm.sh board boots. It runs nowhere else."
    exit
    ;;
esac
[ $$ -eq 1 ] || { # it would end the machine that it runs on
    echo "on_board: it is for the emulated board; see Scripts/arm.sh --help" >&2
    exit 2
}
if bring_up; then
    run_steps
    weigh
    echo "board: $passed passed, $failed failed, up $(cut -d ' ' -f 1 /proc/uptime) s"
fi
reboot -f

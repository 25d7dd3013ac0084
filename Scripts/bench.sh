#!/usr/bin/env bash
# Measures the library, bare system calls and its peers. See --help.

# shellcheck source=Scripts/common.sh
source "$(dirname "$0")/common.sh"

readonly bin=build/bench/bin

usage() {
    cat << END
usage: Scripts/bench.sh [BENCHMARK-OPTION...]

Installs missing packages, builds, and measures everything in one run: the times of the library and
its peers in ns and their ratio, then instructions, memory and size. A goal that is missed is
shown as such. The exit status is 0 when everything could be measured.
Options are passed to the benchmark program, for example --benchmark_filter=log.
END
}

# collected OPERATION COUNT: the instructions of a program that runs the operation COUNT times.
collected() {
    valgrind --tool=callgrind --callgrind-out-file="$logs/callgrind.out" "$bin/zol_repeat" "$1" "$2" 2>&1 |
        sed -n 's/.*Collected : //p'
}

# instructions OPERATION: the instructions of one execution.
instructions() {
    local few many
    few=$(collected "$1" 1000)
    many=$(collected "$1" 11000)
    echo $(((many - few) / 10000))
}

verdict() {
    if [ "$1" -le "$2" ]; then echo met; else echo "NOT MET"; fi
}

# more_instructions LABEL OURS BARE GOAL
more_instructions() {
    local more=$(($(instructions "$2") - $(instructions "$3")))
    printf '%-58s %12d %28d  %s\n' "$1" "$more" "$4" "$(verdict "$more" "$4")"
}

measure_python() {
    PYTHONPATH=Python ZOL_LIBRARY=build/bench/lib/libzol.so.0 \
        taskset -c 0 "$bin/kivboard" run --board Bench/kiv_board.xml -- \
        taskset -c 0 Bench/python_calls.py "$bin/zol_python_calls" Conf/kiv_test.xml | sed '/^T /d'
}

# The rows of the scales as a picture, unless they were filtered out.
draw_scales() {
    ! grep -q '^scale, ' "$logs/bench.txt" || {
        Bench/scale_picture.py < "$logs/bench.txt" > build/bench/scale.svg
        say "The costs over the number of objects: $PWD/build/bench/scale.svg"
    }
}

answer_help "$@"
for option in "$@"; do
    [[ $option == --benchmark_* ]] || wrong_usage
done

say "Measuring libzol: a minute or two"
install_packages "${build_packages[@]}" libbenchmark-dev libspdlog-dev libpugixml-dev libasio-dev libuv1-dev \
    libzmq3-dev valgrind binutils
quietly "configuring" cmake --preset bench
quietly "building" cmake --build --preset bench
say ""

if "$bin/kivboard" check; then
    # The board stays on one core. The benchmarks that use it run on the same core, the others on all cores.
    taskset -c 0 "$bin/kivboard" run --board Bench/kiv_board.xml -- taskset -c "0-$(($(nproc --all) - 1))" "$bin/zol_bench" "$@" | tee "$logs/bench.txt"
    measure_python
else
    "$bin/zol_bench" --benchmark_filter='-^(i2c|gpio)/' "$@" | tee "$logs/bench.txt"
fi
draw_scales

printf '\n%-58s %12s %28s\n' "instructions on top, per call" "more" "goal"
more_instructions "kiv_i2c_read_reg8 over the bare ioctl" read_ours read_bare 150
more_instructions "kiv_i2c_write_reg8 over the bare ioctl" write_ours write_bare 150
more_instructions "a disabled log entry over an empty function" disabled_log nothing 3

printf '\n'
"$bin/zol_footprint"
strip -o "$logs/libzol.stripped" build/bench/lib/libzol.so
printf '%-58s %12d bytes\n' "libzol.so, stripped" "$(stat -c %s "$logs/libzol.stripped")"

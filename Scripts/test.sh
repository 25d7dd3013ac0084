#!/usr/bin/env bash
# Installs missing packages, builds the tree and runs all of its tests. See --help.

# shellcheck source=Scripts/common.sh
source "$(dirname "$0")/common.sh"

readonly default_presets=(release asan tsan)

usage() {
    cat << END
usage: Scripts/test.sh [PRESET...]

Installs missing packages, builds, and runs all tests, once per preset:
  release  the build that is shipped: optimised and hardened
  asan     under AddressSanitizer, LeakSanitizer and UndefinedBehaviorSanitizer
  tsan     under ThreadSanitizer
  debug    without optimisation
  clang    with clang
  fuzz     the fuzz targets, half a minute each
  armhf    for a 32-bit ARM board, in user-mode emulation
The default is ${default_presets[*]}. Without FUSE the tests on the virtual board are skipped,
with the reason. Exit status: 0 when no test failed, 75 when the package mirror did not deliver.
END
}

passed=0 failed=0 skipped=0

# count ATTRIBUTE REPORT: the attribute of the test run in a JUnit report.
count() {
    sed -n "s/.*\\b$1=\"\\([0-9]*\\)\".*/\\1/p; /<testcase/q" "$2" | head -n 1
}

build_preset() {
    case $1 in
    armhf)
        Scripts/arm.sh build
        return
        ;;
    clang | fuzz)
        install_packages clang libclang-rt-14-dev
        ;;
    esac
    quietly "configuring $1" cmake --preset "$1"
    quietly "building $1" cmake --build --preset "$1"
}

run_tests() {
    local preset=$1 report="$PWD/$logs/test-$1.xml" log="$logs/test-$1.log"
    rm -f "$report"
    in_progress "testing $preset" "$log" ctest --preset "$preset" --output-junit "$report" || true
    [ -s "$report" ] || { cat "$log" >&2; fail "the tests of $preset did not run"; }
    if [ "$(count failures "$report")" -gt 0 ]; then
        cat "$log"
    else
        sed -n '/tests passed/,$p' "$log"
    fi
    local total failures skips
    total=$(count tests "$report") failures=$(count failures "$report") skips=$(count skipped "$report")
    passed=$((passed + total - failures - skips)) failed=$((failed + failures)) skipped=$((skipped + skips))
}

answer_help "$@"
[[ ${1:-} != -* ]] || wrong_usage
[ $# -gt 0 ] || set -- "${default_presets[@]}"
for preset in "$@"; do
    check_preset "$preset"
done

say "Building libzol and running all of its tests: $*"
install_packages "${build_packages[@]}" libgtest-dev groff-base make i2c-tools python3-smbus2 python3-pip \
    libmosquitto-dev mosquitto mosquitto-clients
for preset in "$@"; do
    build_preset "$preset"
    run_tests "$preset"
done
say "tests: $passed passed, $failed failed, $skipped skipped"
[ "$failed" -eq 0 ]

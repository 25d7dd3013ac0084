#!/usr/bin/env bash
# What can be said of the tree without its tests: format, static analysis, scripts, interface; and how much of it the
# tests reach. See --help.

# shellcheck source=Scripts/common.sh
source "$(dirname "$0")/common.sh"

readonly all=(format shell cppcheck tidy abi coverage)
readonly analysed=(Src Board Tools Examples) # by clang-tidy
readonly tidy_time_limit=900                 # seconds; it takes a fraction of that
readonly skipped_status=77
# Lines and branches in per cent: what was measured (Docs/architecture.md), less 3; and so where no virtual board runs.
readonly floors='93 83' floors_without_board='88 78'

declare -rA packages=(
    [format]='git clang-format'
    [shell]='git shellcheck'
    [cppcheck]='cppcheck'
    [tidy]="${build_packages[*]} libgtest-dev clang clang-tidy git"
    [abi]="${build_packages[*]} libgtest-dev abigail-tools"
    [coverage]="${build_packages[*]} libgtest-dev groff-base gcovr"
)

usage() {
    cat << END
usage: Scripts/check.sh [CHECK...]
       Scripts/check.sh --renew-abi

Installs what is missing, and checks; without an argument, everything:
  format    clang-format agrees with the C and C++ sources
  shell     shellcheck finds nothing in the scripts and completions
  cppcheck  finds nothing but what .cppcheck lists, with the reasons
  tidy      clang-tidy finds nothing; .clang-tidy tells what is left out, and why
  abi       the shared library keeps the functions and the records of the reference in
            Packaging/abi; what came on top is shown
  coverage  the tests reach at least ${floors/ / % of the lines of Src and } % of its branches
            (where no virtual board can run, ${floors_without_board/ / % and } %)
Every check says in one line how it ended; what it found, if it failed, goes before. Exit status
0 when all passed, 75 when the package mirror could not deliver.

--renew-abi makes the library of this tree the new reference: at a release, and only then.
END
}

# The tracked files that a program is written in, by their endings.
sources() {
    git ls-files "${@/#/*.}"
}

# A check leaves in "told" what its verdict says besides.
told=

check_format() {
    local files
    mapfile -t files < <(sources c cpp h hpp)
    told="${#files[@]} files"
    [ ${#files[@]} -gt 0 ] && clang-format --dry-run --Werror "${files[@]}"
}

check_shell() {
    local scripts completions
    mapfile -t scripts < <({ sources sh && git grep -lIE '^#!/.*sh$'; } | sort -u)
    mapfile -t completions < <(git ls-files Tools/completion)
    told="$((${#scripts[@]} + ${#completions[@]})) files"
    shellcheck -x "${scripts[@]}" && shellcheck -s bash "${completions[@]}"
}

# Logging macros are taken as functions: cppcheck cannot expand their __VA_OPT__. It cannot read the literals of
# std::chrono either, which the examples in C++ use.
check_cppcheck() {
    cppcheck --quiet --error-exitcode=1 --enable=warning,style,performance,portability --std=c11 --std=c++20 \
        -UKIV_LOG_AS -USTRESS_LOG -UBENCH_LOG -IInclude -ISrc -j "$(nproc)" --suppressions-list=.cppcheck \
        --template='{file}:{line}: {severity}: {message} [{id}]' Src Board Tools Examples/*.c
}

check_tidy() {
    local files expected log=$logs/tidy.log
    mapfile -t files < <(git ls-files "${analysed[@]/%//*.c}" "${analysed[@]/%//*.cpp}")
    expected=${#files[@]} told="${#files[@]} files"
    cmake --preset clang -DCMAKE_COMPILE_WARNING_AS_ERROR=ON > "$log" || return
    timeout "$tidy_time_limit" run-clang-tidy -quiet -j "$(nproc)" -p build/clang \
        "^$PWD/($(IFS='|'; echo "${analysed[*]}"))/" > "$log" 2>&1 || {
        grep -v -e '^clang-tidy' -e 'warnings generated' "$log"
        return 1
    }
    # It would be content with no file at all.
    if [ "$expected" -eq 0 ] || [ "$(grep -c '^clang-tidy' "$log")" -ne "$expected" ]; then
        echo "not $expected files were analysed, but those in $log"
        return 1
    fi
}

build_preset() {
    if ! { cmake --preset "$1" && cmake --build --preset "$1"; } > "$logs/build-$1.log" 2>&1; then
        cat "$logs/build-$1.log"
        return 1
    fi
}

# What the shared library offers, without what is private and where it was compiled.
interface_of() {
    abidw --headers-dir Include/zol --drop-private-types --drop-undefined-syms --exported-interfaces-only \
        --no-architecture --no-corpus-path --no-comp-dir-path --no-show-locs --no-elf-needed --no-parameter-names \
        --no-write-default-sizes --type-id-style hash "$1" |
        sed "s# path='$PWD/# path='#" # a source file's, wherever the tree is
}

# references ARCHITECTURE
references() {
    find Packaging/abi -name "libzol-*-$1.abi"
}

check_abi() {
    local reference built=$logs/interface.abi report=$logs/abi.report
    reference=$(references "$(dpkg --print-architecture)")
    if [ -z "$reference" ] && [ -n "$(references '*')" ]; then
        told="there is no reference for this machine's architecture"
        return $skipped_status
    fi
    [ -f "$reference" ] || {
        echo "there is no reference: Scripts/check.sh --renew-abi makes one"
        return 1
    }
    build_preset release && interface_of build/release/lib/libzol.so > "$built" || return
    # What an application was compiled against must be there; names that came on top are told, but no fault.
    abidiff --no-added-syms "$reference" "$built" > "$report" || {
        cat "$report"
        return 1
    }
    local more
    more=$(abidiff --added-fns --added-vars "$reference" "$built" | sed -n "s/^ *\[A\] *'\(.*\)'.*/\1/p" | paste -sd ';')
    told="$(basename "$reference" .abi)${more:+, and on top of it: $more}"
}

check_coverage() {
    local summary=$logs/coverage.txt
    build_preset coverage || return
    find build/coverage -name '*.gcda' -delete
    ctest --preset coverage -j "$(nproc)" > "$logs/coverage.log" 2>&1 || {
        cat "$logs/coverage.log"
        return 1
    }
    local lines branches status=0
    read -r lines branches <<< "$(if build/coverage/bin/kivboard check; then
        echo "$floors"
    else
        echo "$floors_without_board"
    fi)"
    gcovr --root . --filter Src/ --exclude-throw-branches --exclude-unreachable-branches -j "$(nproc)" \
        --fail-under-line "$lines" --fail-under-branch "$branches" --print-summary \
        --txt "$logs/coverage-of-files.txt" build/coverage/Src > "$summary" || status=$?
    told=$(sed -n 's/^\(lines\|branches\): \([0-9.]*\)%.*/\1 \2 %/p' "$summary" | paste -sd ,)
    told="coverage of Src: ${told/,/, } (at least $lines % and $branches %)"
    [ $status -eq 0 ] || cat "$logs/coverage-of-files.txt"
    return $status
}

renew_abi() {
    local former version
    # shellcheck disable=SC2086 # packages are words
    install_packages ${packages[abi]}
    quietly "building release" build_preset release
    version=$(sed -n 's/^project(zol VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
    mkdir -p Packaging/abi
    former=$(references "$(dpkg --print-architecture)")
    interface_of build/release/lib/libzol.so > "$logs/interface.abi"
    [ -z "$former" ] || rm "$former"
    mv "$logs/interface.abi" "Packaging/abi/libzol-${version:?}-$(dpkg --print-architecture).abi"
    say "the reference is $(references "$(dpkg --print-architecture)")"
}

passed=0 failed=0 skipped=0

# run CHECK: with its findings on stderr, if it fails.
run() {
    local findings=$logs/check-$1.log from=$SECONDS status=0
    # shellcheck disable=SC2086 # packages are words
    install_packages ${packages[$1]}
    told=
    "check_$1" > "$findings" 2>&1 || status=$?
    case $status in
    0)
        say "$1: passed, ${told:+$told, }$((SECONDS - from)) s"
        passed=$((passed + 1))
        ;;
    "$skipped_status")
        say "$1: skipped: $told"
        skipped=$((skipped + 1))
        ;;
    *)
        cat "$findings" >&2
        say "$1: FAILED${told:+, $told}; what was found is above and in $findings"
        failed=$((failed + 1))
        ;;
    esac
}

case ${1:-} in
-h | --help)
    usage
    exit 0
    ;;
--renew-abi)
    renew_abi
    exit 0
    ;;
esac
[ $# -gt 0 ] || set -- "${all[@]}"
for check in "$@"; do
    [ -n "${packages[$check]:-}" ] || {
        usage >&2
        exit 2
    }
done
mkdir -p "$logs"
for check in "$@"; do
    run "$check"
done
say "checks: $passed passed, $failed failed, $skipped skipped"
[ "$failed" -eq 0 ]

#!/usr/bin/env bash
# Checks the tree without its tests, and how much the tests cover. See --help.

# shellcheck source=Scripts/common.sh
source "$(dirname "$0")/common.sh"

readonly all=(format shell python layers docs cppcheck tidy abi coverage instructions)
readonly analysed=(Src Board Tools Examples) # by clang-tidy
readonly tidy_patience=600                   # seconds without a finished file
readonly skipped_status=77
# Lines and branches in per cent: the measured ones (Docs/architecture.md) minus 3, with and without a virtual board.
readonly floors='93 83' floors_without_board='88 78'

declare -rA packages=(
    [format]='git clang-format'
    [shell]='git shellcheck'
    [python]='git mypy pyflakes3 pycodestyle'
    [layers]='python3'
    [docs]='doxygen'
    [cppcheck]='cppcheck'
    [tidy]="${build_packages[*]} libgtest-dev libmosquitto-dev clang clang-tidy git"
    [abi]="${build_packages[*]} libgtest-dev abigail-tools"
    [coverage]="${build_packages[*]} libgtest-dev groff-base gcovr"
    [instructions]='qemu-user-static'
)

usage() {
    cat << END
usage: Scripts/check.sh [CHECK...]
       Scripts/check.sh --renew-abi

Installs missing packages and runs these checks, by default all:
  format    clang-format agrees with the C and C++ sources
  shell     shellcheck finds no fault in the scripts and completions
  python    mypy and pycodestyle find no fault in the package of Python and its examples, pyflakes
            none in all files of Python
  layers    the #include lines of Src agree with the picture in Docs/architecture.md, and no
            module includes a private header of another
  docs      every public name has a comment, and no reference in the documents is broken
  cppcheck  cppcheck finds no fault; .cppcheck lists the exceptions, with the reasons
  tidy      clang-tidy finds no fault; .clang-tidy lists the exceptions, with the reasons
  abi       the shared library keeps the functions and the records of the reference in
            Packaging/abi; additions are shown
  coverage  the tests reach at least ${floors/ / % of the lines of Src and } % of its branches
            (without a virtual board ${floors_without_board/ / % and } %)
  instructions
            no operation takes more instructions on a 32-bit ARM board than Bench/instructions.txt
            allows
Each check ends with one line; the findings of a failed check are above it. Exit status: 0 when
all passed, 75 when the package mirror did not deliver.

--renew-abi makes the library of this tree the new reference. Use it only at a release.
END
}

# sources ENDING...: the tracked files with these endings.
sources() {
    git ls-files "${@/#/*.}"
}

# A check sets this to a text for its last line.
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

check_python() {
    local files
    mapfile -t files < <(sources py)
    told="${#files[@]} files"
    pyflakes3 "${files[@]}" && pycodestyle --max-line-length=110 Python && MYPYPATH=Python mypy --strict --cache-dir "$logs/mypy" Python/zol Python/examples/*.py
}

check_layers() {
    local report
    report=$(Scripts/layers.py) || {
        printf '%s\n' "$report"
        return 1
    }
    told=$report
}

check_docs() {
    Scripts/docs.sh || return
    told="$(find build/docs/html -maxdepth 1 -name '*.html' | wc -l) pages"
}

# The -U options make cppcheck take logging macros as functions, because it cannot expand their __VA_OPT__. The examples in
# C++ are left out, because it cannot read the literals of std::chrono.
check_cppcheck() {
    cppcheck --quiet --error-exitcode=1 --enable=warning,style,performance,portability --std=c11 --std=c++20 \
        -UKIV_LOG_AS -UKIV_LOG_AT -USTRESS_LOG -UBENCH_LOG -UBENCH_LOG_AT -IInclude -ISrc -j "$(nproc)" \
        --suppressions-list=.cppcheck --template='{file}:{line}: {severity}: {message} [{id}]' Src Board Tools Examples/*.c
}

check_tidy() {
    local files expected log=$logs/tidy.log
    mapfile -t files < <(git ls-files "${analysed[@]/%//*.c}" "${analysed[@]/%//*.cpp}")
    expected=${#files[@]} told="${#files[@]} files"
    cmake --preset clang -DCMAKE_COMPILE_WARNING_AS_ERROR=ON > "$log" || return
    # shellcheck disable=SC2094 # it only reads the size of the log
    while_it_progresses "$tidy_patience" "$log" run-clang-tidy -quiet -j "$(nproc)" -p build/clang \
        "^$PWD/($(IFS='|'; echo "${analysed[*]}"))/" > "$log" 2>&1 || {
        grep -v -e '^clang-tidy' -e 'warnings generated' "$log"
        return 1
    }
    # run-clang-tidy also succeeds when it analyses no file.
    if [ "$expected" -eq 0 ] || [ "$(grep -c '^clang-tidy' "$log")" -ne "$expected" ]; then
        echo "$expected files were to be analysed; these were: $log"
        return 1
    fi
}

build_preset() {
    if ! { cmake --preset "$1" && cmake --build --preset "$1"; } > "$logs/build-$1.log" 2>&1; then
        cat "$logs/build-$1.log"
        return 1
    fi
}

# The interface of the shared library, without private parts and places of compilation.
interface_of() {
    abidw --headers-dir Include/zol --drop-private-types --drop-undefined-syms --exported-interfaces-only \
        --no-architecture --no-corpus-path --no-comp-dir-path --no-show-locs --no-elf-needed --no-parameter-names \
        --no-write-default-sizes --type-id-style hash "$1" |
        sed "s# path='$PWD/# path='#" # makes the paths of source files relative
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
    # Applications need all of the reference. Added names are shown and are no fault.
    abidiff --no-added-syms "$reference" "$built" > "$report" || {
        cat "$report"
        return 1
    }
    local more
    more=$(abidiff --added-fns --added-vars "$reference" "$built" | sed -n "s/^ *\[A\] *'\(.*\)'.*/\1/p" | paste -sd ';')
    told="$(basename "$reference" .abi)${more:+, added: $more}"
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

check_instructions() {
    local status=0
    Scripts/arm.sh instructions || status=$?
    told=Bench/instructions.txt
    [ $status -eq "$exit_no_packages" ] || return $status
    told="the package mirror does not deliver"
    return $skipped_status
}

renew_abi() {
    local former version
    # shellcheck disable=SC2086 # packages are words
    install_packages ${packages[abi]}
    quietly "building release" build_preset release
    version=$(version_of_tree)
    mkdir -p Packaging/abi
    former=$(references "$(dpkg --print-architecture)")
    interface_of build/release/lib/libzol.so > "$logs/interface.abi"
    [ -z "$former" ] || rm "$former"
    mv "$logs/interface.abi" "Packaging/abi/libzol-${version:?}-$(dpkg --print-architecture).abi"
    say "the reference is $(references "$(dpkg --print-architecture)")"
}

passed=0 failed=0 skipped=0

# run CHECK: if the check fails, its findings go to stderr.
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
        say "$1: FAILED${told:+, $told}; the findings are above and in $findings"
        failed=$((failed + 1))
        ;;
    esac
}

answer_help "$@"
if [ "${1:-}" = --renew-abi ]; then
    renew_abi
    exit
fi
[ $# -gt 0 ] || set -- "${all[@]}"
for check in "$@"; do
    [ -n "${packages[$check]:-}" ] || wrong_usage
done
mkdir -p "$logs"
for check in "$@"; do
    run "$check"
done
say "checks: $passed passed, $failed failed, $skipped skipped"
[ "$failed" -eq 0 ]

#!/bin/sh
# Checks that every manual page formats without a warning. Checks that the pages and the completions of the tools know all
# their options, modules and commands.
# usage: manual.sh BUILD_DIRECTORY SOURCE_DIRECTORY KIVTEST_EXE
set -eu

build=$1 source=$2 kivtest=$3
command -v groff > /dev/null || { echo "skipped: needs groff"; exit 77; }
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build" --prefix "$scratch" > /dev/null
man=$scratch/share/man
failed=0

complain() {
    echo "$*"
    failed=1
}

pages=0
for page in "$man"/man?/*; do
    (cd "$man" && groff -s -t -man -ww -z -Tutf8 "$page") > "$scratch/warnings" 2>&1
    [ ! -s "$scratch/warnings" ] || complain "$(cat "$scratch/warnings")"
    ! grep -n '@[a-zA-Z_]*@\|@[a-z]' "$page" || complain "$page: unreplaced marks"
    pages=$((pages + 1))
done
# Each public function is declared in a page.
for name in $(cat "$source"/Include/zol/*.h | grep -v '^ *#' | tr '\n' ' ' | grep -o 'KIV_API [^;(]*(' | sed 's/($//; s/.*[ *]//'); do
    grep -q "[ *]$name(" "$man"/man3/*.3 || complain "$name is in no page of section 3"
done

# options_of SOURCE: the options in the getopt tables of a source file, "-l" and "--long", one a line.
options_of() {
    sed -n "s/^ *{\"\([a-zA-Z0-9_]*\)\", [a-z]*_argument, nullptr, '\(.\)'},$/-\2\n--\1/p" "$source/Src/$1"
}

plain() {
    sed 's/\\f.//g; s/\\-/-/g' "$man/man1/$1"
}

# section HEADING: a section of kivtest.exe(1) as plain text.
section() {
    plain kivtest.exe.1 | awk -v heading="$1" '/^\.S[HS]/ { here = $0 ~ heading "$" } here'
}

# completed COMMAND WORD...: the words that the completion offers for the last word.
completed() {
    bash -c 'source "$1/Tools/completion/$2"; shift
        COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); $(complete -p "$1" | sed "s/.*-F \([^ ]*\) .*/\1/")
        printf "%s\n" "${COMPREPLY[@]}"' - "$source" "$@"
}

# same_options SOURCE HEADING WORD...: the page and the completion know the options of a table.
same_options() {
    table=$1 heading=$2
    shift 2
    [ -n "$(options_of "$table")" ] || complain "no options in $table"
    completed kivtest.exe "$@" - > "$scratch/completed"
    for option in $(options_of "$table"); do
        section "$heading" | grep -qE -- "(^|, )$option( |,|$)" || complain "kivtest.exe(1), $heading: lacks $option"
        grep -qx -- "$option" "$scratch/completed" || complain "the completion of $* lacks $option"
    done
}

same_options kiv_test/command_line.cpp OPTIONS
same_options tests/kiv_test_gpio/kiv_test_gpio.cpp gpio -m gpio
same_options tests/kiv_test_biostress/kiv_test_biostress.cpp biostress -m biostress
same_options tests/kiv_test_events/kiv_test_events.cpp events -m events
same_options tests/zol_test_cpu_bench/zol_test_cpu_bench.cpp cpubench -m cpubench

# The tests and modules that the tool lists.
"$kivtest" -h | sed -n 's/^ \{11\}\([a-z0-9_]*\) *- .*/\1/p' > "$scratch/listed"
grep -qx gpio "$scratch/listed" || complain "cannot read the tool's list"
completed kivtest.exe -t '' > "$scratch/completed"
while read -r name; do
    section "(TESTS|$name)" | grep -qE "^\.(B|SS) $name$" || complain "kivtest.exe(1) lacks $name"
    [ "$name" = kiv_config ] || # listed, but there is no such test
        grep -qx "$name" "$scratch/completed" || complain "the completion lacks $name"
done < "$scratch/listed"

# The commands of kivboard, and the options of its "run".
{
    sed -n 's/^    {"\([a-z]*\)", [0-9].*/\1/p' "$source/Board/requests.cpp"
    sed -n '/run_option_table/,/;/p' "$source/Board/main.cpp" | grep -o '"--[a-z]*"' | tr -d '"'
} > "$scratch/commands"
grep -qx raise "$scratch/commands" || complain "cannot read kivboard's commands"
grep -qx -- --bind "$scratch/commands" || complain "cannot read the options of kivboard run"
{ completed kivboard ''; completed kivboard run ''; } > "$scratch/completed"
while read -r word; do
    plain kivboard.1 | grep -qE -- "^$word( |$)" || complain "kivboard(1) lacks $word"
    grep -qx -- "$word" "$scratch/completed" || complain "the completion of kivboard lacks $word"
done < "$scratch/commands"

# The help of kivboard has them as well.
"$build/bin/kivboard" --help > "$scratch/help" || : # not built without FUSE
[ ! -s "$scratch/help" ] || while read -r word; do
    grep -qwe "$word" "$scratch/help" || complain "the help of kivboard lacks $word"
done < "$scratch/commands"

# examples PAGE: the lines of the examples of a page that begin with its program.
examples() {
    plain "$1" | sed -n '/^\.SH EXAMPLES/,/^\.SH SEE/p' | sed "s/\\\\(aq/'/g" | grep -E "^([a-z]+=[\$][(])?(kivboard run -- )?${1%.1}( |\$)"
}

# Runs the examples of zol(1) and kivtest.exe(1), each as it is printed, on one board. One shows a difference: its status is 1.
if "$build/bin/kivboard" check > /dev/null 2>&1; then
    { examples zol.1; examples kivtest.exe.1; } > "$scratch/examples"
    [ "$(wc -l < "$scratch/examples")" -ge 10 ] || complain "cannot read the examples"
    ln -s "$source/Conf" "$scratch/Conf"
    # shellcheck disable=SC2016 # the inner shell expands them
    (cd "$scratch" && PATH=$build/bin:$PATH kivboard run -- sh -c 'while IFS= read -r line; do
        expected=0
        case $line in *--compare*) expected=1 ;; esac
        sh -c "$line" > /dev/null 2>&1 < /dev/null
        [ $? -eq $expected ] || echo "fails: $line"
    done < examples') > "$scratch/failing"
    [ ! -s "$scratch/failing" ] || complain "$(cat "$scratch/failing")"
fi

# The options of zol_timing.
"$build/bin/zol_timing" --help | grep -o '^  --[a-z]*' | tr -d ' ' > "$scratch/options"
grep -qx -- --svg "$scratch/options" || complain "cannot read the options of zol_timing"
completed zol_timing - > "$scratch/completed"
while read -r option; do
    plain zol_timing.1 | grep -qE -- "(^|, )$option( |,|$)" || complain "zol_timing(1) lacks $option"
    grep -qx -- "$option" "$scratch/completed" || complain "the completion of zol_timing lacks $option"
done < "$scratch/options"

# The commands of zol and their options.
"$build/bin/zol" --help | sed -n 's/^  \([a-z][a-z0-9]* [a-z][a-z]*\) .*/\1/p' > "$scratch/listed"
grep -qx 'i2c scan' "$scratch/listed" || complain "cannot read the list of zol"
while read -r group verb; do
    plain zol.1 | grep -qE "^(\.B )?$group $verb( |$)" || complain "zol(1) lacks $group $verb"
    completed zol "$group" '' | grep -qx "$verb" || complain "the completion of zol lacks $group $verb"
    "$build/bin/zol" "$group" "$verb" --help | grep -oE '^ *(-[a-z], )?--[a-z0-9]+' | grep -oE -- '--.*' > "$scratch/options"
    completed zol "$group" "$verb" -- > "$scratch/completed"
    while read -r option; do
        plain zol.1 | grep -qE -- "$option\b" || complain "zol(1) lacks $option"
        grep -qx -- "$option" "$scratch/completed" || complain "the completion of zol $group $verb lacks $option"
    done < "$scratch/options"
done < "$scratch/listed"

# The keys of the configuration.
sed -n '/^\.SH KEYS/,/^\.PP/{/^\.TP/{n;s/^\.BI* //;s/ \(N\|PIN\) /#/;p;};}' "$source/Docs/man/kiv_conf.5" | sort > "$scratch/described"
sed -n 's/^    {"\([a-zA-Z0-9_#]*\)", key_kind::.*/\1/p' "$source/Tools/zol/keys.cpp" | sort > "$scratch/known"
grep -qx 'i2c_bus_#_dev' "$scratch/known" || complain "cannot read the keys that zol knows"
diff "$scratch/described" "$scratch/known" || complain "kiv_conf(5) and zol do not know the same keys"

[ $failed -eq 0 ] && echo "$pages pages"

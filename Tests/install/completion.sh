#!/usr/bin/env bash
# Checks the completions of some words. usage: completion.sh COMPLETION_DIRECTORY
set -u

completions=$(realpath "$1")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch" || exit 1
touch conf.xml lamp.play log.csv log.txt board.json
for command in kivtest.exe kivboard zol zol_timing; do
    # shellcheck source=/dev/null
    source "$completions/$command"
done
failed=0

# completes EXPECTED WORD...: the last word completes to the expected ones, in any order.
completes() {
    local expected=$1 got
    shift
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMPREPLY=()
    local function
    function=$(complete -p "$1" | sed 's/.*-F \([^ ]*\) .*/\1/')
    "$function" "$1" "${!#}" "${COMP_WORDS[COMP_CWORD - 1]}" 2> /dev/null
    got=$(printf '%s\n' "${COMPREPLY[@]}" | sort | paste -sd ' ')
    if [[ $got != "$expected" ]]; then
        echo "$*: completes to '$got', not to '$expected'"
        failed=1
    fi
}

completes '--reg --repeat' kivtest.exe --re
completes 'read_i2c read_i2c16' kivtest.exe -t read
completes 'kiv_i2c kiv_thread kiv_tokens' kivtest.exe --test kiv_
completes 'events' kivtest.exe -m e
completes 'gpio' kivtest.exe -h g
completes 'conf.xml' kivtest.exe -c c
completes '' kivtest.exe -r ''
completes '--mem --mem_sz' kivtest.exe -s 1 -m cpubench --m
completes '--size' kivtest.exe -m biostress -t 4 --s     # -t is an option of the module here
completes '' kivtest.exe -m kiv_tokens -
completes 'peek play poke' kivboard p
completes '--board' kivboard run --bo
completes 'conf.xml' kivboard run --conf c
completes 'irq irqconfig irqmask irqrequest' kivboard fail 17 i
completes 'poll' kivboard mend --socket s 17 irq p
completes 'lamp.play' kivboard play l
completes 'is requested' kivboard wait pin 5 ''
completes '--socket' kivboard peek --s
completes 'log.csv' zol_timing lo
completes '--start --svg' zol_timing log.csv --s
completes 'board.json' zol_timing log.csv --journal b
completes 'gpio' zol --conf conf.xml g
completes 'wait watch' zol --json gpio w
completes '--conf --count' zol gpio pulse 17 --co
completes 'falling' zol gpio wait 17 -e f
completes 'conf.xml' zol conf check c
completes '' zol i2c get -r ''
exit $failed

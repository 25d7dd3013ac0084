#!/usr/bin/env bash
# Checks the commands of this tree: help and version go to standard output, a wrong usage goes to standard error, the status
# is not 0 when the output cannot be written, and only terminals get colours.
# usage: tools_test.sh SOURCE_DIRECTORY ZOL_TIMING KIVBOARD KIVTEST ZOL
# shellcheck disable=SC2317 # functions that are called by name
set -u

scripts=$1/Scripts timing=$2 board=$3 kivtest=$4 zol=$5
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export TERM=xterm KIVBOARD_SOCKET=$scratch/socket
failed=0 cases=0

# expect STATUS STREAM COMMAND...: the command ends with the status ("+": any failure) and writes, without colour, only to the
# standard stream "out" or "err" ("-": to neither, "any": unchecked).
expect() {
    local wanted=$1 stream=$2 status=0 written=
    shift 2
    cases=$((cases + 1))
    "$@" > "$scratch/out" 2> "$scratch/err" < /dev/null || status=$?
    for each in out err; do
        [ ! -s "$scratch/$each" ] || written+=$each
    done
    if [ "$wanted" = + ] && [ $status -ne 0 ]; then wanted=$status; fi
    if [ "$stream" = any ]; then stream=$written; fi
    if [ "$status" != "$wanted" ] || [ "${written:--}" != "$stream" ] ||
        grep -q $'\033' "$scratch/out" "$scratch/err"; then
        echo "$*: ended with $status and wrote to '$written', not with $wanted to '$stream'"
        failed=1
    fi
}

full() { "$@" > /dev/full; }
closed() { "$@" >&-; }

for command in "$scripts"/*.sh "$timing" "$board" "$zol"; do
    [ "${command##*/}" != common.sh ] || continue # the others source it
    expect 0 out "$command" --help
    expect 0 out "$command" -h
    expect 2 err "$command" --no-such-option
    expect + any full "$command" --help
    expect + any closed "$command" --help
done
for preset_script in test package; do
    expect 2 err "$scripts/$preset_script.sh" no_such_preset
done
for tool in "$timing" "$board" "$zol"; do
    expect 0 out "$tool" --version
    expect 1 err full "$tool" --version
    expect 2 err "$tool"
done

printf 'time,rx,delta since last event,\n0.000000,0,,\n' > "$scratch/log.csv"
expect 0 - "$timing" "$scratch/log.csv"
expect 0 - closed "$timing" "$scratch/log.csv" --svg "$scratch/log.svg"
for format in svg vcd perfetto; do
    expect 1 err "$timing" "$scratch/log.csv" --$format /dev/full
done
expect 2 err "$timing" "$scratch/log.csv" --svg

if "$board" check 2> /dev/null; then
    conversation() { (cd "$scripts/.." && "$board" run -- bash -c "$@"); }
    expect 1 err conversation "'$board' peek 4 0x18 0x0f > /dev/full"
    expect 1 err conversation "'$board' peek 4 0x18 0x0f >&-"
    expect 1 err conversation "'$board' poke 4 0x18 0x20 1; '$board' journal --follow > /dev/full"
    expect 1 err conversation "echo peek 4 0x18 0x0f | '$board' - > /dev/full"
    expect 2 err "$board" peek 4

    # Differences have colours on a terminal.
    dump=$scratch/dump differ="cd '$scripts/..' && '$board' run -- '$zol' i2c dump -b 4 -d 0x18 --compare '$scratch/dump'"
    conversation "'$zol' i2c dump -b 4 -d 0x18 | sed 's/33 /34 /'" > "$dump"
    coloured() { script -qec "$*" /dev/null < /dev/null | grep -c $'\033\[31m34\033\[0m -> \033\[32m33\033'; }
    cases=$((cases + 3))
    if [ "$(coloured "$differ") $(NO_COLOR=1 coloured "$differ") $(coloured "$differ | cat")" != '1 0 0' ]; then
        echo "colours are not for terminals without NO_COLOR only"
        failed=1
    fi
fi

# The pipes of the library must not take the numbers of closed standard streams.
mkfifo "$scratch/input"
(cd "$scripts/.." && exec "$kivtest" -m gpio -i) < "$scratch/input" >&- 2>&- &
exec 3> "$scratch/input"
cases=$((cases + 1)) limit=$((SECONDS + 30))
until { [ "/proc/$!/exe" -ef "$kivtest" ] && stream=$(readlink "/proc/$!/fd/2"); } || [ $SECONDS -ge $limit ]; do sleep 0.01; done
exec 3>&-
wait $!
if [ "$stream" != /dev/null ]; then
    echo "the closed standard error of kivtest.exe is '$stream'"
    failed=1
fi
echo "$cases cases"
exit $failed

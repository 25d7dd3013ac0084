#!/usr/bin/env bash
# Runs the commands of a console transcript on a virtual board of its own, and compares the output.
#
# The lines below a line "$ COMMAND" are its output: both standard streams without the lines of the log, and the exit status
# in brackets unless it is 0. The commands run one after the other, each in a shell of its own. Empty lines and lines that
# begin with "#" are comments. The variable SCRATCH names a directory for files; in the output its path appears as SCRATCH. A
# file of the transcript's name with the ending .sh has functions for it.
# usage: transcript.sh TRANSCRIPT BIN_DIRECTORY [OPTION_OF_KIVBOARD_RUN...]
#        transcript.sh TRANSCRIPT BIN_DIRECTORY --no-board    without a board
set -u

transcript=$1 bin=$2
shift 2

# Ends what a transcript has left running.
end_programs() {
    local file
    for file in "$SCRATCH"/*.pid; do
        [ ! -e "$file" ] || kill -KILL "$(cat "$file")"
    done 2> /dev/null
}

if [ -z "${SCRATCH:-}" ]; then
    "$bin/kivboard" check || exit 77
    SCRATCH=$(mktemp -d)
    trap 'end_programs; rm -rf "$SCRATCH"' EXIT
    # Each run has its own runtime directory, so that it does not find the boards of other runs.
    export SCRATCH libraries=$bin/../lib PATH=$bin:$PATH:/usr/sbin XDG_RUNTIME_DIR=$SCRATCH
    board=("$bin/kivboard" run --socket "$SCRATCH/socket" "$@" --)
    [ "${1:-}" != --no-board ] || board=()
    "${board[@]}" bash "$0" "$transcript" "$bin"
    exit
fi

# The next functions are for the transcripts.

# eventually COMMAND: waits until the command succeeds. Its files may not exist yet.
eventually() {
    for _ in $(seq 300); do
        ! eval "$1" 2> /dev/null || return 0
        sleep 0.1
    done
    return 1
}

# registered PIN: waits until a program has registered a callback for the pin.
registered() {
    eventually "kivboard journal | grep -q 'gpio_$1 irqmask W.0. ok'"
}

# idle: waits until the board that has started this shell does not use the processor.
idle() {
    eventually "used=\$(cut -d ' ' -f 14,15 /proc/$PPID/stat); sleep 0.2; [ \"\$used\" = \"\$(cut -d ' ' -f 14,15 /proc/$PPID/stat)\" ]"
}

# texts LEVEL: reduces a log to the lines of a level, as "routine: text", assertions without their line.
texts() {
    sed -n "s/^T .*\[$1\]\[   KIV   \] *\([^ ]*\) *[0-9]* : \x1b\[0m/\1: /p" |
        sed 's/\(ASSERT FAILED [^ ]*\)\[[0-9]*\]$/\1/'
}

# configured SED_SCRIPT OPTION...: runs kivtest.exe with the configuration as the script edits it.
configured() {
    sed "$1" Conf/kiv_test.xml > "$SCRATCH/conf.xml"
    shift
    kivtest.exe -c "$SCRATCH/conf.xml" "$@" 2> /dev/null
}

# findings [FILE]: what zol finds in a configuration, without the list of the keys.
findings() {
    zol conf check "${1:-$SCRATCH/conf.xml}" | grep -v '^ '
    return "${PIPESTATUS[0]}"
}

# checked SED_SCRIPT: what zol finds in the configuration as the script edits it.
checked() {
    sed "$1" Conf/kiv_test.xml > "$SCRATCH/conf.xml"
    findings "$SCRATCH/conf.xml"
}

# forbidden COMMAND...: runs a command to which the permissions of files apply, also when root runs it.
forbidden() {
    if [ "$(id -u)" = 0 ]; then
        setpriv --bounding-set=-dac_override,-dac_read_search "$@"
    else
        "$@"
    fi
}

# chips COMMAND...: runs a command on a machine with the two GPIO chips of gpio_chips.c.
chips() {
    LD_PRELOAD=$libraries/gpio_chips.so ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0 "$@"
}

# describe XML COMMAND...: runs a command on a board with this description.
describe() {
    printf '%b' "$1" > "$SCRATCH/board.xml"
    shift
    kivboard run --board "$SCRATCH/board.xml" -- "$@"
}

# Functions of this transcript alone.
functions=${transcript%.txt}.sh
# shellcheck disable=SC1090 # each transcript has its own
[ ! -e "$functions" ] || source "$functions"
export -f eventually idle texts findings chips forbidden # for commands in shells of their own

perform() {
    (eval "$1") 2>&1 < /dev/null | sed "/^T  *[0-9.]* *\x1b\[[0-9]*m\[/d; s|$SCRATCH|SCRATCH|g"
    local status=${PIPESTATUS[0]}
    [ "$status" -eq 0 ] || echo "[$status]"
}

while IFS= read -r line; do
    case $line in
    '$ '*)
        echo "$line"
        perform "${line#??}"
        ;;
    '' | '#'*) echo "$line" ;;
    esac
done < "$transcript" > "$SCRATCH/actual"
diff -u "$transcript" "$SCRATCH/actual"

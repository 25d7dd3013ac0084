#!/usr/bin/env bash
# Runs the commands of a console transcript on a virtual board of its own, and compares the output.
#
# The lines below a line "$ COMMAND" are its output: both standard streams without the lines of the log, and the exit status
# in brackets unless it is 0. The commands run one after the other, each in a shell of its own. Empty lines and lines that
# begin with "#" are comments. The variable SCRATCH names a directory for files; in the output its path appears as SCRATCH.
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

# eventually COMMAND: waits until the command succeeds.
eventually() {
    for _ in $(seq 300); do
        ! eval "$1" || return 0
        sleep 0.1
    done
    return 1
}

# registered PIN: waits until a program has registered a callback for the pin.
registered() {
    eventually "kivboard journal | grep -q 'gpio_$1 irqmask W.0. ok'"
}

# texts LEVEL: reduces a log to the lines of a level, as "routine: text", assertions without their line.
texts() {
    sed -n "s/^T .*\[$1\]\[   KIV   \] *\([^ ]*\) *[0-9]* : \x1b\[0m/\1: /p" |
        sed 's/\(ASSERT FAILED [^ ]*\)\[[0-9]*\]$/\1/'
}

# console OPTIONS LINE...: types lines into the console of a test module, and shows them with the answers.
console() {
    local options=$1
    shift
    # shellcheck disable=SC2086 # several options
    printf '%s\n' "$@" | kivtest.exe $options -i 2> /dev/null | sed 's/<cmd>: /&\n/g' | texts '[EP]R[NR][RT]' |
        cat -v | sed -n '/<cmd>: $/,/exiting interactive mode/p' |
        while IFS= read -r text; do
            case $text in
            *': <cmd>: ')
                echo "> ${1:-}"
                shift
                ;;
            *) echo "$text" ;;
            esac
        done
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

# calls PYTHON: calls the library z from Python, and shows the errors in its log.
calls() {
    python3 -c "from ctypes import *; z = CDLL('$libraries/libzol.so.0'); z.kiv_message_new.restype = c_void_p; $1" \
        2> /dev/null | texts ERRR | grep -v 'ASSERT FAILED'
}

# describe XML COMMAND...: runs a command on a board with this description.
describe() {
    printf '%b' "$1" > "$SCRATCH/board.xml"
    shift
    kivboard run --board "$SCRATCH/board.xml" -- "$@"
}

# For the transcripts: converse MODULE LINE...: types lines into the console of a test module, each after the answer
# to the one before. ID1, ID2, ... stand for the identifiers that the console has printed. "await TEXT" asks for help
# until the console has printed TEXT.
converse() {
    local heard='' line number from to pid prompt='<cmd>: '
    local -a ids=()
    mkfifo "$SCRATCH/questions" "$SCRATCH/answers"
    kivtest.exe -m "$1" -i < "$SCRATCH/questions" > "$SCRATCH/answers" 2> /dev/null &
    pid=$!
    exec {to}> "$SCRATCH/questions" {from}< "$SCRATCH/answers"
    rm "$SCRATCH/questions" "$SCRATCH/answers"
    hear > /dev/null
    printf %s "$prompt"
    for line in "${@:2}"; do
        if [[ $line == 'await '* ]]; then
            until [[ $heard == *"${line#await }"* ]]; do
                echo help >&"$to"
                hear || break
            done
        else
            echo "$line"
            for number in "${!ids[@]}"; do line=${line//ID$((number + 1))/${ids[number]}}; done
            echo "$line" >&"$to"
            hear
        fi
    done
    exec {to}>&-
    cat <&"$from"
    wait "$pid"
}

# For converse: shows an answer up to the next prompt.
hear() {
    local answer='' byte status=0
    while [[ $status -eq 0 && $answer != *"$prompt" ]]; do
        IFS= read -r -N 1 -t 30 -u "$from" byte || status=1
        answer+=$byte
    done
    if [[ $answer =~ ID\ ?=\ ?(-?[0-9]+) && " ${ids[*]} " != *" ${BASH_REMATCH[1]} "* ]]; then
        ids+=("${BASH_REMATCH[1]}")
    fi
    for number in "${!ids[@]}"; do answer=${answer//"${ids[number]}"/ID$((number + 1))}; done
    heard+=$answer
    printf %s "$answer"
    return $status
}

# For the transcripts: a broker of MQTT on a free port, with its log in broker.log. Once more: on the same port, with its memory.
broker() {
    local port
    for port in $(cat "$SCRATCH/port" 2> /dev/null || shuf -i 20000-32000 -n 20); do
        printf '%s\n' "listener $port 127.0.0.1" 'allow_anonymous true' "user $(id -un)" "pid_file $SCRATCH/broker.pid" \
            'persistence true' "persistence_location $SCRATCH/" 'autosave_on_changes true' 'autosave_interval 1' \
            'log_type all' > "$SCRATCH/broker.conf"
        timeout 300 mosquitto -c "$SCRATCH/broker.conf" > "$SCRATCH/broker.log" 2>&1 &
        eventually "grep -q 'running\$\|Error' $SCRATCH/broker.log"
        ! grep -q 'Error' "$SCRATCH/broker.log" || continue
        echo "$port" > "$SCRATCH/port"
        return 0
    done
    cat "$SCRATCH/broker.log"
    return 1
}

# board NAME OPTION...: a board of a fleet, with its input in NAME.in and its output in NAME.out.
board() {
    local files=$SCRATCH/$1
    mkfifo "$files.in"
    # shellcheck disable=SC2016 # the inner shell expands it
    {
        timeout 300 sh -c 'echo $$ > "$0.pid"; exec events_console "$@"' "$files" --board "$@" \
            --port "$(cat "$SCRATCH/port")"
        echo "[$?]"
    } <> "$files.in" > "$files.out" 2> /dev/null &
    eventually "[ -s $files.pid ]"
}

# say BOARD LINE LISTENER...: types a line into a board, and waits until the listeners have heard it.
say() {
    echo "$2" > "$SCRATCH/$1.in"
    local listener
    for listener in "${@:3}"; do
        eventually "grep -qxF -- '$2' $SCRATCH/$listener.out" || echo "$listener does not hear '$2'"
    done
}

# stop BOARD...: ends boards, and shows their status and what they have counted.
stop() {
    local name
    for name in "$@"; do
        kill "$(cat "$SCRATCH/$name.pid")"
        eventually "grep -q '^\[' $SCRATCH/$name.out"
        echo "$name: $(sed -n '$p' "$SCRATCH/$name.out") $(texts PRNT < "$SCRATCH/$name.out" | sed -n 's/^fleet_leave: //p')"
    done
}
export -f texts findings chips calls forbidden

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

# shellcheck shell=bash
# Functions of the transcript of boards that share events.

# broker: a broker of MQTT on a free port, with its log in broker.log. Once more: on the same port, with its memory.
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

# shellcheck shell=bash
# Functions of the transcript of the events.

# converse MODULE LINE...: types lines into the console of a test module, each after the answer
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

# shellcheck shell=bash
# Functions of the transcript of the pins.

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

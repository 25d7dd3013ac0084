# shellcheck shell=bash
# Functions of the transcript of plays.

# play TEXT: plays a text, and shows the verdict without its times.
play() {
    printf '%b' "$1" | kivboard play - | sed 's/, [0-9.]* s, at most 0.000 ms late/, nothing timed/
        s/, [0-9.]* s, at most [0-9.]* ms late//
        s/until @.*/until @.../'
    return "${PIPESTATUS[1]}"
}

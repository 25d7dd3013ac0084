# What the scripts share; sourced, not run. Leaves the shell in the top directory of the tree.
# shellcheck shell=bash

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

readonly exit_no_packages=75 # the mirror's fault, not ours: try again later
readonly logs=build/logs

say() {
    printf '%s\n' "$*"
}

fail() {
    printf '%s: %s\n' "$(basename "$0" .sh)" "$*" >&2
    exit 1
}

# count_seconds LABEL: shows on the terminal how long a step has taken, until it is killed or the script is gone.
count_seconds() {
    local begun=$SECONDS
    while sleep 1 && kill -0 $$; do
        printf '\r- %s (%d s)' "$1" $((SECONDS - begun))
    done
}

# in_progress LABEL COMMAND...: announces a command and runs it. Gives its status; what it prints goes elsewhere.
in_progress() {
    local label=$1 counter status=0
    shift
    if [ ! -t 1 ]; then
        say "- $label"
        "$@"
        return
    fi
    printf -- '- %s' "$label"
    count_seconds "$label" 2> /dev/null &
    counter=$!
    "$@" || status=$?
    kill $counter
    wait $counter 2> /dev/null || true
    say ""
    return $status
}

# quietly LABEL COMMAND...: runs a command with its output in a file, which is shown only when it fails.
quietly() {
    local label=$1
    local log="$logs/${label//[^a-zA-Z0-9]/-}.log"
    shift
    mkdir -p "$logs"
    if ! in_progress "$label" to_file "$log" "$@"; then
        cat "$log" >&2
        fail "$label failed (the output above is in $log)"
    fi
}

to_file() {
    local file=$1
    shift
    "$@" > "$file" 2>&1
}

# check_preset NAME: a preset that there is not is a wrong usage.
check_preset() {
    grep -q "^ *\"name\": \"$1\",\$" CMakePresets.json || {
        say "there is no preset $1" >&2
        usage >&2
        exit 2
    }
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo > /dev/null; then
        sudo "$@"
    else
        fail "needs root for '$*', and there is no sudo"
    fi
}

missing_packages() {
    local package
    for package in "$@"; do
        if [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2> /dev/null)" != installed ]; then
            say "$package"
        fi
    done
}

apt_install() {
    as_root env DEBIAN_FRONTEND=noninteractive apt-get -o Acquire::Retries=3 -qq update &&
        as_root env DEBIAN_FRONTEND=noninteractive apt-get -o Acquire::Retries=3 -qq -y \
            --no-install-recommends install "$@"
}

# from_mirror WHAT COMMAND...: a mirror may be down for a while, so it is asked several times.
from_mirror() {
    local what=$1 attempt
    shift
    mkdir -p "$logs"
    for attempt in 1 2 3 4 5; do
        if "$@" > "$logs/apt.log" 2>&1; then
            return 0
        fi
        sleep $((attempt * 5))
    done
    tail -n 5 "$logs/apt.log" >&2
    say "the package mirror did not deliver $what; see $logs/apt.log" >&2
    exit $exit_no_packages
}

# install_packages PACKAGE...: installs those that are missing.
install_packages() {
    local missing
    mapfile -t missing < <(missing_packages "$@")
    [ ${#missing[@]} -gt 0 ] || return 0
    command -v apt-get > /dev/null || fail "this is no Debian system; install the equivalents of: ${missing[*]}"
    say "- installing ${missing[*]}"
    from_mirror "${missing[*]}" apt_install "${missing[@]}"
}

# package_sources ARCHITECTURE LABEL-PATTERN: the package sources of this machine's distribution, for an architecture.
# Of its labels "Debian" is the distribution without its security updates.
package_sources() {
    # shellcheck disable=SC2016 # the words are apt's
    apt-get indextargets --format \
        '$(IDENTIFIER)|$(LABEL)|$(COMPONENT)|deb [arch=ARCH] $(REPO_URI) $(RELEASE) $(COMPONENT)' |
        sed -n "s/ARCH/$1/; s/^Packages|$2|main|//p" | sort -u
}

# shellcheck disable=SC2034 # for the scripts that source this
readonly build_packages=(g++ cmake ninja-build pkg-config python3 libglib2.0-dev libxml2-dev libfuse3-dev)

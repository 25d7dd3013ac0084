# Functions that the scripts share. To be sourced; changes to the top directory of the tree.
# shellcheck shell=bash

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

readonly exit_no_packages=75 # the package mirror did not deliver: try again later
# shellcheck disable=SC2034 # for the scripts that source this
readonly exit_no_root=69 # no bare Debian can be made on this machine
readonly logs=build/logs

say() {
    printf '%s\n' "$*"
}

fail() {
    printf '%s: %s\n' "$(basename "$0" .sh)" "$*" >&2
    exit 1
}

# answer_help ARGUMENT...: a script that is asked for help shows its usage and ends.
answer_help() {
    case ${1:-} in
    -h | --help)
        usage
        exit 0
        ;;
    esac
}

wrong_usage() {
    usage >&2
    exit 2
}

# tell_progress LABEL LOG: shows the time that a step has taken and the last line of its log, every second on a terminal, else
# every half minute. Ends when it is killed or the script has ended.
tell_progress() {
    local begun=$SECONDS seconds line
    while sleep 1 && kill -0 $$; do
        seconds=$((SECONDS - begun))
        line=$(tail -n 1 "$2" | tr -d '[:cntrl:]')
        if [ -t 1 ]; then
            line="- $1 ($seconds s)  $line"
            printf '\r\033[K%s' "${line:0:79}"
        elif [ $((seconds % 30)) -eq 0 ]; then
            say "  $seconds s: ${line:0:100}"
        fi
    done
}

# in_progress LABEL LOG COMMAND...: runs a command with its output in a file and shows its progress. Returns its status.
in_progress() {
    local label=$1 log=$2 begun=$SECONDS teller status=0
    shift 2
    mkdir -p "$logs"
    : > "$log"
    [ -t 1 ] || say "- $label"
    tell_progress "$label" "$log" 2> /dev/null &
    teller=$!
    "$@" > "$log" 2>&1 || status=$?
    kill $teller
    wait $teller 2> /dev/null || true
    [ ! -t 1 ] || printf '\r\033[K- %s (%d s)\n' "$label" $((SECONDS - begun))
    return $status
}

# quietly LABEL COMMAND...: runs a command with its output in a file. If it fails, shows the file and ends the script.
quietly() {
    local label=$1
    local log="$logs/${label//[^a-zA-Z0-9]/-}.log"
    shift
    if ! in_progress "$label" "$log" "$@"; then
        cat "$log" >&2
        fail "$label failed (the output above is in $log)"
    fi
}

# while_it_progresses SECONDS LOG COMMAND...: runs a command that writes to a log. If the log does not grow for that long,
# ends the command and returns 124. So a slow machine is no fault, but a hanging command is.
while_it_progresses() {
    local patience=$1 log=$2 command size now since=$SECONDS
    shift 2
    set -m # gives the command its own process group, so that the trap can end all of it
    "$@" < /dev/null &
    command=$!
    set +m
    # shellcheck disable=SC2064 # $command is to be expanded now
    trap "kill -- -$command 2> /dev/null" EXIT
    while sleep 1 && kill -0 $command 2> /dev/null; do
        now=$(stat -c %s "$log" 2> /dev/null || true)
        if [ "$now" != "${size-}" ]; then
            size=$now since=$SECONDS
        elif [ $((SECONDS - since)) -ge "$patience" ]; then
            kill -- -$command
            wait $command || true
            trap - EXIT
            return 124
        fi
    done
    trap - EXIT
    wait $command
}

# check_preset NAME: an unknown preset is a wrong usage.
check_preset() {
    grep -q "^ *\"name\": \"$1\",\$" CMakePresets.json || {
        say "there is no preset $1" >&2
        wrong_usage
    }
}

# require_root PURPOSE: gets the rights of root for the commands that follow: asks for a password if sudo needs one, or fails
# with the reason.
require_root() {
    local reason
    if [ "$(id -u)" -eq 0 ]; then
        return
    fi
    command -v sudo > /dev/null || fail "needs root to $1, and there is no sudo"
    if ! sudo -n true 2> /dev/null && ! reason=$(sudo -v 2>&1); then
        fail "needs root to $1, but ${reason##*$'\n'}"
    fi
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
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

apt_get() {
    as_root env DEBIAN_FRONTEND=noninteractive apt-get -q -o Acquire::Retries=3 -o Dpkg::Use-Pty=0 \
        -o DPkg::Lock::Timeout=300 "$@"
}

apt_install() {
    apt_get update && apt_get -y --no-install-recommends install "$@"
}

# blames_this_machine LOG: succeeds if the log of apt shows a fault of this machine, not of the mirror.
blames_this_machine() {
    grep -qE '^E: (Sub-process|dpkg was|You don.t have enough)|No space left|^sudo:' "$1"
}

# from_mirror PURPOSE COMMAND...: repeats a command that fetches packages, because a mirror may be down for a while.
from_mirror() {
    local purpose=$1 log=$logs/apt.log attempt
    shift
    for attempt in 1 2 3 4 5; do
        if in_progress "$purpose" "$log" "$@"; then
            return 0
        fi
        if blames_this_machine "$log"; then
            tail -n 5 "$log" >&2
            fail "$purpose failed; see $log"
        fi
        sleep $((attempt * 5))
    done
    tail -n 5 "$log" >&2
    say "$purpose failed: the package mirror did not deliver; see $log" >&2
    exit $exit_no_packages
}

# install_packages PACKAGE...: installs the missing ones.
install_packages() {
    local missing
    mapfile -t missing < <(missing_packages "$@")
    [ ${#missing[@]} -gt 0 ] || return 0
    command -v apt-get > /dev/null || fail "this is no Debian system; install the equivalents of: ${missing[*]}"
    require_root "install ${missing[*]}"
    say "Missing packages: ${missing[*]}"
    from_mirror "installing ${#missing[@]} packages" apt_install "${missing[@]}"
}

# package_sources ARCHITECTURE LABEL-PATTERN: the package sources of this machine's distribution, for an architecture. The
# label "Debian" is that of the distribution without its security updates.
package_sources() {
    local sources
    sources=$(known_sources "$@")
    [ -n "$sources" ] || { # apt reads the labels from the lists
        as_root apt-get -qq update && sources=$(known_sources "$@")
    }
    printf '%s\n' "$sources"
}

known_sources() {
    # shellcheck disable=SC2016 # apt expands the words
    apt-get indextargets --format \
        '$(IDENTIFIER)|$(LABEL)|$(COMPONENT)|deb [arch=ARCH] $(REPO_URI) $(RELEASE) $(COMPONENT)' |
        sed -n "s/ARCH/$1/; s/^Packages|$2|main|//p" | sort -u
}

# The settings of apt for its mirror: proxies, certificates, checks.
mirror_settings() {
    apt-config dump | grep '^Acquire::' |
        grep -vE '^Acquire::(IndexTargets|Changelogs|CompressionTypes|GzipIndexes|cdrom)' || true
    [ -z "${http_proxy:-}" ] || say "Acquire::http::Proxy \"$http_proxy\";"
}

# prepare_bootstrap ARCHITECTURE LABEL-PATTERN: writes the files that bootstrap needs; see package_sources.
prepare_bootstrap() {
    mkdir -p "$logs"
    mirror_settings > "$logs/mirror.conf"
    package_sources "$@" > "$logs/sources"
}

# bootstrap TARGET OPTION...: runs mmdebstrap for this machine's distribution and mirror.
bootstrap() {
    as_root mmdebstrap --aptopt="$PWD/$logs/mirror.conf" "${@:2}" \
        "$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)" "$1" - < "$logs/sources"
}

version_of_tree() {
    sed -n 's/^project(zol VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt
}

# shellcheck disable=SC2034 # for the scripts that source this
readonly build_packages=(g++ cmake ninja-build pkg-config python3 libglib2.0-dev libxml2-dev liblzma-dev
    zlib1g-dev libfuse3-dev)

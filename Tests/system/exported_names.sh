#!/bin/sh
# Compares the names that a shared library exports with the ones that the public headers mark KIV_API.
# usage: exported_names.sh LIBRARY HEADER_DIRECTORY
set -eu

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

nm -D --defined-only "$1" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' | sort -u > "$scratch/exported"

# A declaration may have several lines, so the lines are joined. The name is the word before "(", "[" or ";".
cat "$2"/*.h | grep -v '^ *#' | tr '\n' ' ' | grep -o 'KIV_API [^;([]*' |
    sed 's/ *$//; s/.*[ *]//' | sort -u > "$scratch/documented"

diff -u --label documented --label exported "$scratch/documented" "$scratch/exported"
[ -s "$scratch/exported" ]
echo "$(wc -l < "$scratch/exported") names, all documented"

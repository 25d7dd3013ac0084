#!/bin/sh
# The example that the README shows is the one that is built and run.
# usage: readme_example.sh README EXAMPLE
set -eu

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# shellcheck disable=SC2016 # the backquotes are Markdown's
sed -n '/^```c$/,/^```$/p' "$1" | sed '1d;$d' > "$scratch/shown"
sed '1,/^ \*\/$/d' "$2" > "$scratch/built"
[ -s "$scratch/built" ]
diff -u --label README --label example "$scratch/shown" "$scratch/built"

#!/bin/sh
# Compares the example in the README with the source that is built and run.
# usage: readme_example.sh README EXAMPLE
set -eu

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# The code block of the README in the language of the example.
sed -n "/^\`\`\`${2##*.}\$/,/^\`\`\`\$/p" "$1" | sed '1d;$d' > "$scratch/shown"
sed '1,/^\( \*\/\|"""\)$/d' "$2" > "$scratch/built" # without the first comment
[ -s "$scratch/built" ]
diff -u --label README --label example "$scratch/shown" "$scratch/built"

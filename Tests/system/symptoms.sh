#!/bin/sh
# Compares the symptoms that the manual page and the README show with a transcript in which each of them has happened.
# usage: symptoms.sh SOURCE_DIRECTORY
set -eu

source=$1
transcript=$source/Tests/transcripts/troubleshooting.txt
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# The symptoms of the page are the bold tags of its lists, from the first section with symptoms.
sed -n '/^\.SH BUILDING/,$p' "$source/Docs/man/zol_troubleshooting.7" |
    sed -n '/^\.T[PQ]$/{n;s/^\.B //p;}' |
    sed "s/\\\\(aq/'/g; s/\\\\(dq/\"/g; s/\\\\(ga/\`/g; s/\\\\-/-/g" > "$scratch/page"
# shellcheck disable=SC2016 # the accents are those of the README
sed -n '/^## When something fails/,/^## /s/^| `\([^`]*\)` | .*/\1/p' "$source/README.md" > "$scratch/readme"
grep -v '^[$#]' "$transcript" > "$scratch/happened"

failed=0
for shown in page:20 readme:5; do
    least=${shown#*:} shown=${shown%:*}
    [ "$(wc -l < "$scratch/$shown")" -ge "$least" ] || { echo "cannot read the symptoms of the $shown"; failed=1; }
    while IFS= read -r symptom; do
        grep -qF -e "$symptom" "$scratch/happened" || {
            echo "the transcript lacks a symptom of the $shown: $symptom"
            failed=1
        }
    done < "$scratch/$shown"
done
exit $failed

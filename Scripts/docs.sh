#!/usr/bin/env bash
# Makes the reference as a site. See --help.

# shellcheck source=Scripts/common.sh
source "$(dirname "$0")/common.sh"

readonly site=build/docs/html

usage() {
    cat << END
usage: Scripts/docs.sh

Installs Doxygen if it is missing, and makes a site of the README, the documents, the examples
and every public name of the headers: $site/index.html. A public name without a comment and
a broken reference are errors. Exit status: 0 when the site is complete, 1 when it is not, 75 when
the package mirror did not deliver.
END
}

# Makes a page for each example: its first comment, then its code.
describe_examples() {
    local example name
    mkdir -p build/docs/examples/python
    for example in Examples/*.c Examples/*.cpp; do
        name=$(basename "$example")
        printf '/**\n * @example %s\n * @details\n' "$name"
        sed -n '2,/^ \*\/$/p' "$example"
        sed '1,/^ \*\/$/d' "$example" > "build/docs/examples/$name"
    done > build/docs/examples.dox
    for example in Python/examples/*.py; do
        name=python/$(basename "$example")
        printf '/**\n * @example %s\n * @details\n' "$name"
        sed -n '1,/^"""$/{s/"""//; s/^/ * /; p}' "$example"
        printf ' */\n'
        sed '1,/^"""$/d' "$example" > "build/docs/examples/$name"
    done >> build/docs/examples.dox
}

make_site() {
    rm -rf build/docs
    mkdir -p build/docs
    describe_examples
    ZOL_VERSION=$(version_of_tree) doxygen Docs/Doxyfile
}

answer_help "$@"
[ $# -eq 0 ] || wrong_usage

say "The reference of libzol as a site"
install_packages doxygen
quietly "making the site" make_site
say "docs: $(find $site -maxdepth 1 -name '*.html' | wc -l) pages, all public names described: $PWD/$site/index.html"

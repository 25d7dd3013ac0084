#!/bin/sh
# Installs a build, makes applications against it outside of the tree, and runs them: C11 and C++20, with pkg-config
# and with the CMake package, shared and static.
# usage: applications.sh BUILD_DIRECTORY
set -eu

build=$1
here=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix

quietly() {
    "$@" > "$scratch/log" 2>&1 || {
        cat "$scratch/log"
        echo "failed: $*"
        exit 1
    }
}

# check APPLICATION KIND: it runs, and loads the library if it is a shared one only.
check() {
    if readelf -d "$1" | grep -q 'NEEDED.*libzol\.so\.0'; then linked=shared; else linked=static; fi
    [ $linked = "$2" ] || { echo "$1 is linked $linked"; exit 1; }
    quietly env LD_LIBRARY_PATH="$libdir" "$1" "$prefix/share/zol/kiv_test.xml"
    echo "$(basename "$1"), $2: $(tail -n 1 "$scratch/log")"
}

flags() {
    PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config "$@" --cflags --libs libzol
}

# by_pkg_config NAME COMPILER...: the whole application static, or only the library, as a C compiler links no C++
# library behind those that it is told.
by_pkg_config() {
    name=$1
    shift
    set -- "$@" -Wall -Wextra -Wpedantic -Werror "$here/application.c" -x none
    # shellcheck disable=SC2046 # flags are words
    quietly "$@" -o "$scratch/$name-shared" $(flags)
    check "$scratch/$name-shared" shared
    if [ "$name" = c++ ]; then
        # shellcheck disable=SC2046
        quietly "$@" -static -o "$scratch/$name-static" $(flags --static)
    else
        # shellcheck disable=SC2046
        quietly "$@" -o "$scratch/$name-static" $(flags --static | sed 's/-lzol/-l:libzol.a/')
    fi
    check "$scratch/$name-static" static
}

# by_cmake_package LANGUAGE
by_cmake_package() {
    quietly cmake -S "$here" -B "$scratch/$1" -DLANGUAGE="$1" -DCMAKE_PREFIX_PATH="$prefix"
    quietly cmake --build "$scratch/$1"
    check "$scratch/$1/with_shared" shared
    check "$scratch/$1/with_static" static
}

quietly cmake --install "$build" --prefix "$prefix"
libdir=$(dirname "$(find "$prefix" -name libzol.so)")
by_pkg_config c "${CC:-cc}" -std=c11
by_pkg_config c++ "${CXX:-c++}" -std=c++20 -x c++
quietly "$prefix/bin/kivtest.exe" -c "$prefix/share/zol/kiv_test.xml" -t kiv_tokens
grep -q 'name(accel)' "$scratch/log"
if [ -e "$prefix/bin/kivboard" ] && "$prefix/bin/kivboard" check 2> /dev/null; then # with the board that is installed
    (cd "$scratch" && quietly "$prefix/bin/kivboard" run -- "$prefix/bin/kivtest.exe" \
        -c "$prefix/share/zol/kiv_test.xml" -t read_i2c)
    grep -q '==> 0x33' "$scratch/log"
fi

# The CMake package goes where its tree goes.
mv "$prefix" "$scratch/moved"
prefix=$scratch/moved
libdir=$(dirname "$(find "$prefix" -name libzol.so)")
by_cmake_package C
by_cmake_package CXX

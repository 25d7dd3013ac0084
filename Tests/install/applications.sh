#!/bin/sh
# Installs a build and follows the README outside of the tree: runs its lines for C and C++, with pkg-config and with CMake,
# shared and static, exactly as they are printed. Runs each application, on the installed virtual board if that can run.
# Also installs Python's package in both ways.
# usage: applications.sh BUILD_DIRECTORY SOURCE_DIRECTORY
set -eu

build=$1 source=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export HOME="$scratch"
mkdir "$HOME/build"
ln -s "$build" "$HOME/build/release"
ln -s "$source/Examples" "$HOME/Examples"
cd "$HOME"
sed -n '/^## Install and link/,/^### /p' "$source/README.md" > section

quietly() {
    "$@" > log 2>&1 || {
        cat log
        echo "failed: $*"
        exit 1
    }
}

# follow PATTERN: runs the matching commands of the section. Those with pkg-config need the exported variables.
follow() {
    sed -n 's/^    //p' "$scratch/section" | grep -E "$1" > "$scratch/commands" || {
        echo "the README shows no line like '$1'"
        exit 1
    }
    quietly sh -eu "$scratch/commands"
}

# check APPLICATION KIND: checks its kind of linking and its output, then removes it.
check() {
    if readelf -d "$1" | grep -q 'NEEDED.*libzol\.so\.0'; then linked=shared; else linked=static; fi
    [ $linked = "$2" ] || { echo "$1 is linked $linked"; exit 1; }
    status=0
    LD_LIBRARY_PATH=$HOME/zol/lib $board "$1" "$HOME/zol/share/zol/kiv_test.xml" > log 2>&1 || status=$?
    if [ -n "$board" ]; then
        grep -q 'the sensor says that it is a 0x33' log
    else
        [ $status -eq 1 ] # there is no sensor
    fi || { cat log; echo "$1, $2: ended with $status"; exit 1; }
    echo "$1, $2: built and run"
    rm "$1"
}

# by_cmake LANGUAGE SOURCE TARGET GENERATOR: the recipe of the README, with the changes that its text names.
by_cmake() {
    rm -rf project
    mkdir project
    cp "Examples/$2" project
    # shellcheck disable=SC2016 # the ticks are the README's
    sed -n '/^```cmake$/,/^```$/p' section | sed '1d; $d' |
        sed "s/(application CXX)/(application $1)/; s/read_sensor.cpp/$2/; s/zol::zol)/$3)/" > project/CMakeLists.txt
    (cd project && CMAKE_GENERATOR=$4 && export CMAKE_GENERATOR && follow '^cmake -B')
    mv project/build/application "application-of-$1-by-$(echo "$4" | tr ' ' -)"
}

follow '^cmake --install'
board=
! "$HOME/zol/bin/kivboard" check 2> /dev/null || board="$HOME/zol/bin/kivboard run --"
for kind in shared static; do
    case $kind in
    shared) follow '^export|^(cc|c\+\+) .*pkg-config --cflags' ;;
    static) follow '^export|^c\+\+ .* -static ' ;;
    esac
    check ./read_register $kind
    check ./read_sensor $kind
done

# in_python DIRECTORY [LIBRARY]: Python finds its package in the directory, and the library by itself or by the environment.
in_python() {
    PYTHONPATH=$1 ZOL_LIBRARY=${2:-} quietly /usr/bin/python3 -c 'import sys, zol; assert zol.__file__.startswith(sys.argv[1])' \
        "$1"
    echo "the package of Python in ${1#"$HOME/"}: imported"
}

in_python "$HOME/zol/lib/python3/dist-packages"
cp -r "$source/Python" .
if /usr/bin/python3 -c 'import setuptools, wheel, pip' 2> log; then
    quietly /usr/bin/python3 -m pip install --no-build-isolation --no-deps --target pip-packages ./Python
    in_python "$HOME/pip-packages" "$HOME/zol/lib/libzol.so.0"
    [ -e pip-packages/zol/py.typed ]
else
    echo "skipped: pip is not installed"
fi

# The CMake package still works when the installed tree is moved.
mkdir elsewhere
mv zol elsewhere
export HOME="$scratch/elsewhere"
board=${board:+"$HOME/zol/bin/kivboard run --"}
by_cmake C read_register.c zol::zol "Unix Makefiles"
check ./application-of-C-by-Unix-Makefiles shared
by_cmake C read_register.c zol::zol_static Ninja
check ./application-of-C-by-Ninja static
by_cmake CXX read_sensor.cpp zol::zol_static "Unix Makefiles"
check ./application-of-CXX-by-Unix-Makefiles static
by_cmake CXX read_sensor.cpp zol::zol Ninja
check ./application-of-CXX-by-Ninja shared

# An older C++ standard is refused with one error.
! c++ -std=c++17 -fsyntax-only -I"$HOME/zol/include" -include zol/zol.hpp -x c++ /dev/null 2> log || exit 1
[ "$(grep -c ': error:' log)" -eq 1 ] && grep -q 'needs C++20' log

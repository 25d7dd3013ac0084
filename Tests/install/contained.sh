#!/bin/sh
# Builds and runs applications of projects that contain this tree: by add_subdirectory, and by FetchContent of the source
# package. The projects have strict warnings, another C++ standard, and targets with plain names. They must get nothing that
# they did not ask for.
# usage: contained.sh BUILD_DIRECTORY SOURCE_DIRECTORY
set -eu

build=$1 source=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"

fail() {
    echo "$*"
    exit 1
}

quietly() {
    "$@" > log 2>&1 || {
        cat log
        fail "failed: $*"
    }
}

# project NAME LANGUAGES: writes a project; its part that brings libzol comes from standard input.
project() {
    mkdir "$1"
    cp "$source/Examples/read_register.c" "$source/Examples/read_sensor.cpp" "$1"
    echo 'static_assert(__cplusplus == 201703L, "of the project"); int main() {}' > "$1/own.cpp"
    {
        cat << END
cmake_minimum_required(VERSION 3.25)
project(application VERSION 1.2.3 LANGUAGES $2)
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_COMPILE_WARNING_AS_ERROR ON)
add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wundef -Wcast-qual -Werror)
add_custom_target(tests)
add_custom_target(manual)
find_package(PkgConfig)
pkg_check_modules(OWN IMPORTED_TARGET glib-2.0)
find_package(Threads)
END
        cat
        cat << 'END'
# The targets of a directory and below.
function(check_targets directory)
    get_property(targets DIRECTORY ${directory} PROPERTY BUILDSYSTEM_TARGETS)
    get_property(tests DIRECTORY ${directory} PROPERTY TESTS)
    list(FILTER targets EXCLUDE REGEX "^zol")
    if(targets OR tests)
        message(SEND_ERROR "${directory} has the targets ${targets} and the tests ${tests}")
    endif()
    get_property(below DIRECTORY ${directory} PROPERTY SUBDIRECTORIES)
    foreach(directory IN LISTS below)
        check_targets(${directory})
    endforeach()
endfunction()
if(zol_SOURCE_DIR)
    if(NOT ASKED_FOR_MORE)
        check_targets(${zol_SOURCE_DIR})
    endif()
    foreach(kind IN ITEMS zol zol_static)
        add_executable(c_${kind} read_register.c)
        target_link_libraries(c_${kind} PRIVATE zol::${kind})
        if(CMAKE_CXX_COMPILER_LOADED)
            add_executable(cxx_${kind} read_sensor.cpp)
            target_link_libraries(cxx_${kind} PRIVATE zol::${kind})
        endif()
    endforeach()
    install(TARGETS c_zol)
endif()
if(CMAKE_CXX_COMPILER_LOADED)
    add_executable(own own.cpp)
endif()
END
    } > "$1/CMakeLists.txt"
    quietly cmake -G Ninja -S "$1" -B "$1/build"
}

# variables PROJECT: the names in its cache.
variables() {
    sed -n 's/^\([A-Za-z_][^:=]*\):.*/\1/p' "$1/build/CMakeCache.txt" | sort
}

# check PROJECT: builds it, installs it and runs its applications. There is no sensor, but the library starts.
check() {
    variables "$1" > got
    variables plain > own
    comm -23 got own | grep -vE '^((__pkg_config_(arguments|checked)_|pkgcfg_lib_)?(zol|ZOL)|FETCHCONTENT)_' > other || true
    [ ! -s other ] || fail "$1 has these variables: $(paste -sd ' ' other)"
    quietly cmake --build "$1/build"
    quietly cmake --install "$1/build" --prefix "$scratch/$1/installed"
    [ "$(cd "$1/installed" && find . -type f)" = ./bin/c_zol ] || fail "$1 installs $(find "$1/installed")"
    for application in "$1"/build/c*_zol*; do
        status=0
        "$application" "$source/Conf/kiv_test.xml" > log 2>&1 || status=$?
        { [ $status -le 1 ] && grep -q 'initialize kiv - configName' log; } || { cat log; fail "$application: $status"; }
        echo "$application: built and run"
    done
}

project plain 'C CXX' < /dev/null
echo "add_subdirectory(\"$source\" zol)" | project subdirectory 'C CXX'
check subdirectory
quietly cmake -DZOL_INSTALL=ON subdirectory/build
quietly cmake --build subdirectory/build
quietly cmake --install subdirectory/build --prefix "$scratch/both"
{ [ -e both/lib/libzol.so ] && [ "$(ls both/bin)" = c_zol ]; } || fail "with ZOL_INSTALL these are there: $(find both)"

quietly cpack --config "$build/CPackSourceConfig.cmake" -B package
archive=$(find "$scratch/package" -maxdepth 1 -name 'libzol-[0-9]*.tar.gz')
tar -tzf "$archive" | sed 's|^[^/]*/||' | sort > packed
! grep -E '(^|/)(build|\.git|\.cache|__pycache__)/' packed || fail "the source package has what is built"
if git -C "$source" ls-files > tracked 2> /dev/null; then
    sort tracked | comm -23 - packed > lacking
    [ ! -s lacking ] || fail "the source package lacks: $(head -n 5 lacking)"
fi
project fetched C << END
include(FetchContent)
FetchContent_Declare(zol URL "file://$archive" DOWNLOAD_EXTRACT_TIMESTAMP ON)
FetchContent_MakeAvailable(zol)
END
check fetched

# The parts that were asked for are there: some tests run in the unpacked tree.
quietly cmake -DASKED_FOR_MORE=ON -DZOL_BUILD_TOOLS=ON -DZOL_BUILD_TESTS=ON "$scratch/fetched/build"
quietly cmake --build fetched/build --target zol_timing zol
quietly ctest --test-dir fetched/build/_deps/zol-build -R '^(exported_names|readme_shows|completions)'
grep '^100% tests passed' log

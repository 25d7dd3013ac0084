#!/usr/bin/env bash
# Builds the Debian packages and checks them. See --help.

# shellcheck source=Scripts/common.sh
source "$(dirname "$0")/common.sh"

native=$(dpkg --print-architecture)
# What is known and not a fault: there is no public mail address of the developers.
readonly known_tags=bogus-mail-host,bogus-mail-host-in-debian-changelog
readonly libraries=(libc6 libgcc-s1 libstdc++6 libglib2.0-0 libxml2 libfuse3-3) # that the packages depend on

usage() {
    cat << END
usage: Scripts/package.sh [PRESET [CMAKE-OPTION...]]

Installs what is missing, builds the packages libzol0, libzol-dev, kivtest and kivboard for the
architecture of a preset (release: this machine's; armhf: a 32-bit ARM board's, for which
Scripts/arm.sh build has been run before), and checks them:
lintian finds no error; and in a bare Debian of their own they are installed, used (a program is
compiled and run, kivtest.exe is run), and purged without a trace. The latter is left out, and
said so, for packages of an architecture that this machine is not.
The packages are left in build/packages. Exit status 0 when all is well, 75 when the package
mirror could not deliver.
END
}

make_root() {
    local arch=$1 labels=$2
    shift 2
    package_sources "$arch" "$labels" > "$logs/sources"
    [ -s "$logs/sources" ] || { # apt knows the labels once it has the lists
        as_root apt-get -qq update && package_sources "$arch" "$labels" > "$logs/sources"
    }
    as_root mmdebstrap --architectures="$arch" --aptopt='Acquire::Retries "3"' --format=null "$@" \
        "$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)" - - < "$logs/sources"
}

# in_root ARCHITECTURE LABEL-PATTERN MMDEBSTRAP-OPTION...: makes a root file system and drops it; what counts are the
# hooks. Tried again where the mirror is at fault.
in_root() {
    local log=$logs/root-$1.log attempt
    for attempt in 1 2 3; do
        if make_root "$@" > "$log" 2>&1; then
            return 0
        fi
        if ! grep -qE 'Failed to fetch|Could not resolve|Unable to connect|Temporary failure' "$log"; then
            grep -a '^check:' "$log" >&2 || tail -n 20 "$log" >&2
            fail "see $log"
        fi
        sleep $((attempt * 5))
    done
    say "the package mirror did not deliver a bare Debian of $1; see $log" >&2
    exit $exit_no_packages
}

# A database of the target's packages, from which dpkg-shlibdeps takes what our packages depend on.
prepare_target() {
    local arch=$1 target=$PWD/build/target/packages-$1
    [ ! -e "$target/database/status" ] || return 0
    say "- fetching the libraries of $arch"
    mkdir -p "$target"
    in_root "$arch" Debian --variant=extract --include="$(IFS=,; echo "${libraries[*]}")" \
        --extract-hook="cp \"\$1\"/var/cache/apt/archives/*.deb '$target'"
    quietly "reading the libraries of $arch" make_database "$target"
}

make_database() {
    local target=$1 package name
    mkdir -p "$target/root/usr/lib" "$target/database/info"
    ln -sfn usr/lib "$target/root/lib"
    echo 1 > "$target/database/info/format" # its files are named with the architecture
    : > "$target/database/status.new"
    for package in "$target"/*.deb; do
        name=$(dpkg-deb -f "$package" Package):$(dpkg-deb -f "$package" Architecture)
        dpkg-deb --fsys-tarfile "$package" | tar -x --keep-directory-symlink -C "$target/root"
        dpkg-deb -e "$package" "$target/control"
        for control in symbols shlibs; do
            [ ! -e "$target/control/$control" ] || mv "$target/control/$control" "$target/database/info/$name.$control"
        done
        dpkg-deb -c "$package" | sed -n "s|.* \./\(usr/\)\?lib/\([^ ]*\).*|$target/root/usr/lib/\2|p" \
            > "$target/database/info/$name.list"
        { dpkg-deb -f "$package" Package Architecture Multi-Arch Version Maintainer Description
          printf 'Status: install ok installed\n\n'; } >> "$target/database/status.new"
        rm -rf "$package" "$target/control"
    done
    mv "$target/database/status.new" "$target/database/status"
}

architecture_of() {
    sed -n 's/^set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE "\(.*\)")$/\1/p' "$1/CPackConfig.cmake"
}

configure() {
    cmake -B "$build" -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_DOCDIR=share/doc/libzol0 \
        -DZOL_BUILD_TESTS=OFF -DZOL_BUILD_EXAMPLES=OFF "$@"
}

# For another architecture, with a database of its packages instead of this machine's.
pack() {
    if [ "$arch" != "$native" ]; then
        export DPKG_ADMINDIR=$PWD/build/target/packages-$arch/database DEB_HOST_ARCH=$arch
    fi
    rm -rf build/packages/*_"$arch".deb
    cpack --config "$build/CPackConfig.cmake" -B build/packages
}

# Every package but the library's own depends on what it links; none may have been forgotten.
check_dependencies() {
    dpkg-deb -f "build/packages/libzol0_${version}_$arch.deb" Depends | grep -q 'libglib2.0-0.*libxml2' &&
        dpkg-deb -f "build/packages/kivtest_${version}_$arch.deb" Depends | grep -q 'libzol0.*libc6' &&
        [ "$(dpkg-parsechangelog -l Packaging/changelog -S Version)" = "$version" ]
}

check_with_lintian() {
    lintian --fail-on error --suppress-tags "$known_tags" build/packages/*_"$arch".deb
}

use_in_root() {
    local packages=$build/in-root
    rm -rf "$packages"
    mkdir "$packages"
    cp build/packages/*_"$arch".deb Tests/install/application.c Tests/install/in_root.sh "$packages"
    say "- installing, using and purging them in a bare Debian"
    # shellcheck disable=SC2016 # $1 is the root, for the hook's shell
    in_root "$arch" 'Debian[^|]*' --variant=minbase --customize-hook="copy-in '$packages' /" \
        --customize-hook='chroot "$1" sh /in-root/in_root.sh'
    grep -a '^check:' "$logs/root-$arch.log" | sed 's/^check:/  /'
}

case ${1:-} in
-h | --help)
    usage
    exit 0
    ;;
-*)
    usage >&2
    exit 2
    ;;
esac
readonly preset=${1:-release}
[ $# -eq 0 ] || shift
check_preset "$preset"
readonly build=build/package-$preset

say "Packages of libzol: $preset"
install_packages "${build_packages[@]}" dpkg-dev lintian mmdebstrap
quietly "configuring" configure --preset "$preset" "$@"
arch=$(architecture_of "$build")
arch=${arch:-$native}
version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' "$build/CPackConfig.cmake")
if [ "$arch" != "$native" ]; then
    prepare_target "$arch"
    triplet=$(dpkg-architecture -f -a "$arch" -q DEB_HOST_MULTIARCH 2> /dev/null)
    quietly "configuring for $arch" cmake -B "$build" -DCMAKE_INSTALL_LIBDIR="lib/$triplet" \
        -DZOL_TARGET_LIBRARIES="$PWD/build/target/packages-$arch/root/usr/lib/$triplet"
fi
quietly "building" cmake --build "$build"
(quietly "packing" pack)
quietly "checking the dependencies and the version" check_dependencies
quietly "checking with lintian" check_with_lintian
if [ "$arch" = "$native" ]; then
    use_in_root
else
    say "- not installed: this machine is $native, no $arch"
fi
ls build/packages/*_"$arch".deb
say "packages for $arch: passed"

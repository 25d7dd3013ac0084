#!/usr/bin/env bash
# Builds the Debian packages and checks them. See --help.

# shellcheck source=Scripts/common.sh
source "$(dirname "$0")/common.sh"

native=$(dpkg --print-architecture)
# Not faults: the developers have no public mail address.
readonly known_tags=bogus-mail-host,bogus-mail-host-in-debian-changelog
# Our packages depend on these.
readonly libraries=(libc6 libgcc-s1 libstdc++6 libglib2.0-0 libxml2 libfuse3-3)

usage() {
    cat << END
usage: Scripts/package.sh [PRESET [CMAKE-OPTION...]]

Installs missing packages, then builds the packages libzol0, libzol-dev, kivtest, kivboard and
python3-zol in build/packages, for the architecture of a preset:
  release  this machine
  armhf    a 32-bit ARM board; run "Scripts/arm.sh build" first
Then it checks them with lintian, and in a bare Debian (see Scripts/bare_root.sh): they are
installed, used (kivtest.exe runs on the virtual board, examples are compiled and run), and purged
without a trace. The script skips the bare Debian, and says so, for packages of another
architecture and where no such system can be made.
Exit status: 0 on success, 75 when the package mirror did not deliver.
END
}

# The packages of the libraries as files, without a root file system.
fetch_libraries() {
    bootstrap - --architectures="$arch" --variant=extract --include="$(IFS=,; echo "${libraries[*]}")" \
        --format=null --extract-hook="cp \"\$1\"/var/cache/apt/archives/*.deb '$1'"
}

# A database of the target's packages. dpkg-shlibdeps finds the dependencies of our packages in it.
prepare_target() {
    local target=$PWD/build/target/packages-$arch
    [ ! -e "$target/database/status" ] || return 0
    mkdir -p "$target"
    prepare_bootstrap "$arch" Debian
    from_mirror "fetching the libraries of $arch" fetch_libraries "$target"
    quietly "reading the libraries of $arch" make_database "$target"
}

make_database() {
    local target=$1 package name
    mkdir -p "$target/root/usr/lib" "$target/database/info"
    ln -sfn usr/lib "$target/root/lib"
    echo 1 > "$target/database/info/format" # 1: file names contain the architecture
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

# Another architecture needs the database of its packages instead of this machine's.
pack() {
    if [ "$arch" != "$native" ]; then
        export DPKG_ADMINDIR=$PWD/build/target/packages-$arch/database DEB_HOST_ARCH=$arch
    fi
    rm -rf build/packages/*_{"$arch",all}.deb
    cpack --config "$build/CPackConfig.cmake" -B build/packages
}

# The packages depend on the libraries that they link.
check_dependencies() {
    dpkg-deb -f "build/packages/libzol0_${version}_$arch.deb" Depends | grep -q 'libglib2.0-0.*libxml2' &&
        dpkg-deb -f "build/packages/kivtest_${version}_$arch.deb" Depends | grep -q 'libzol0.*libc6' &&
        [ "$(dpkg-parsechangelog -l Packaging/changelog -S Version)" = "$version" ]
}

check_with_lintian() {
    lintian --fail-on error --suppress-tags "$known_tags" build/packages/*_{"$arch",all}.deb
}

use_in_root() {
    local log=$logs/in-root.log status=0
    say "- installing, using and purging them in a bare Debian"
    Scripts/bare_root.sh sh Tests/install/in_root.sh build/packages > "$log" 2>&1 || status=$?
    sed -n 's/^check:/  /p' "$log"
    case $status in
    0) ;;
    "$exit_no_root") say "  skipped: no bare Debian can be made on this machine" ;;
    "$exit_no_packages") tail -n 1 "$log" >&2 && exit $status ;;
    *) tail -n 20 "$log" >&2 && fail "see $log" ;;
    esac
}

answer_help "$@"
[[ ${1:-} != -* ]] || wrong_usage
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
    prepare_target
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
    say "- not installed: this machine is $native, not $arch"
fi
ls build/packages/*_{"$arch",all}.deb
say "packages for $arch: passed"

#!/bin/sh
# One entry point for a fresh Debian 12 machine: installs what the build
# lacks, configures, builds, and then demonstrates or tests.
#
#   ./dev.sh demo     build, then mount with -o cluster inside odm-sandbox
#   ./dev.sh check    build with g++, clang++ and the sanitizers, then run
#                     every test in each
#   ./dev.sh bench    build as shipped, then count the helper's start-up against
#                     /bin/true, a C floor and mount(8) (bench/README.md)
#   ./dev.sh package  build, then make the Debian package build/package/*.deb
set -eu
cd "$(dirname "$0")"

# Debian packages the build and the tests need.
PACKAGES="cmake ninja-build g++ clang libgtest-dev nlohmann-json3-dev libc-bin util-linux mount"
PACKAGES="$PACKAGES dpkg-dev lintian mandoc man-db locales"

# What the benchmark runs under, besides the build's own.
BENCH_PACKAGES="valgrind hyperfine time binutils"

# Locales the catalogue tests look messages up in; their tests skip without.
LOCALES="en_US.UTF-8 de_DE.UTF-8"

install_deps() {
    missing=
    for p in $PACKAGES; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'ok installed' ||
            missing="$missing $p"
    done
    [ -z "$missing" ] && return 0
    if [ "$(id -u)" -eq 0 ]; then
        apt-get update -qq
        DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $missing
    elif command -v sudo >/dev/null 2>&1; then
        sudo apt-get update -qq
        sudo DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $missing
    else
        echo "dev.sh: please install:$missing" >&2
        exit 1
    fi
}

install_locales() {
    for l in $LOCALES; do
        # locale -a spells UTF-8 as utf8.
        locale -a | grep -qx "${l%.UTF-8}.utf8" && continue
        if [ "$(id -u)" -eq 0 ]; then
            localedef -i "${l%.*}" -f UTF-8 "$l"
        elif command -v sudo >/dev/null 2>&1; then
            sudo localedef -i "${l%.*}" -f UTF-8 "$l"
        else
            echo "dev.sh: locale $l missing; its catalogue tests will skip" >&2
        fi
    done
}

build() {
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1"
}

case "${1:-}" in
demo)
    install_deps
    build gcc
    bin=build/gcc
    "$bin/sandbox/odm-sandbox" --tolvane-record -- "$bin/mount/mount.qeodmfs" -o cluster
    ;;
check)
    install_deps
    install_locales
    for preset in gcc clang asan; do
        build "$preset"
        ctest --preset "$preset"
    done
    ;;
bench)
    PACKAGES="$PACKAGES $BENCH_PACKAGES"
    install_deps
    build release
    bench/run.sh build/release
    ;;
package)
    install_deps
    build gcc
    rm -rf build/package
    cpack --config build/gcc/CPackConfig.cmake -B build/package >/dev/null
    ls build/package/*.deb
    ;;
*)
    echo "usage: $0 demo|check|package|bench" >&2
    exit 2
    ;;
esac

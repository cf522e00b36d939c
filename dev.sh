#!/bin/sh
# One entry point for a fresh Debian 12 machine: installs what the build
# lacks, configures, builds, and then demonstrates or tests.
#
#   ./dev.sh demo     build, then mount with -o cluster inside odm-sandbox
#   ./dev.sh check    build with g++, clang++ and the sanitizers, then run
#                     every test in each
set -eu
cd "$(dirname "$0")"

# Debian packages the build and the tests need.
PACKAGES="cmake ninja-build g++ clang libgtest-dev nlohmann-json3-dev libc-bin util-linux mount"

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

build() {
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1"
}

case "${1:-}" in
demo)
    install_deps
    build gcc
    bin=build/gcc
    "$bin/sandbox/odm-sandbox" -- "$bin/mount/mount.qeodmfs" -o cluster
    ;;
check)
    install_deps
    for preset in gcc clang asan; do
        build "$preset"
        ctest --preset "$preset"
    done
    ;;
*)
    echo "usage: $0 demo|check" >&2
    exit 2
    ;;
esac

#!/bin/sh
# One entry point for a fresh Debian 12 machine: installs what the build
# lacks, configures, builds, and then demonstrates or tests.
#
#   ./dev.sh demo     build, then mount with -o cluster inside odm-sandbox
#   ./dev.sh check    build with g++, clang++ and the sanitizers, run every
#                     test in each, lint, fuzz each target for 30 s, repro
#   ./dev.sh fuzz [S] run each fuzz target for S seconds (default 30)
#   ./dev.sh lint     clang-tidy and cppcheck over the whole tree
#   ./dev.sh bench    build as shipped, then count the helper's start-up against
#                     /bin/true, a C floor and mount(8) (bench/README.md)
#   ./dev.sh package  build as shipped, make the Debian package build/deb/*.deb
#                     and check it (tests/deb_package.sh)
#   ./dev.sh repro    package the last commit twice, in two fresh directories,
#                     and compare the two packages byte for byte
set -eu
cd "$(dirname "$0")"

# Debian packages the build and the tests need.
PACKAGES="cmake ninja-build g++ clang libgtest-dev nlohmann-json3-dev libc-bin util-linux mount"
PACKAGES="$PACKAGES dpkg-dev lintian devscripts mandoc man-db locales git"
# Lint, libFuzzer's runtime and memcheck.
PACKAGES="$PACKAGES clang-tidy cppcheck libclang-rt-14-dev valgrind"

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

# Each fuzz target for $1 seconds, starting from its checked-in seeds. New
# inputs stay in build/fuzz/corpus, a crashing one lands in build/fuzz/.
fuzz() {
    build fuzz
    for t in subopts; do
        mkdir -p "build/fuzz/corpus/$t"
        dict=
        [ -f "tests/fuzz/$t.dict" ] && dict="-dict=tests/fuzz/$t.dict"
        log="build/fuzz/fuzz_$t.log"
        if ! "build/fuzz/tests/fuzz/fuzz_$t" -max_total_time="$1" -timeout=10 \
            -print_final_stats=1 -close_fd_mask=3 -artifact_prefix=build/fuzz/ $dict \
            "build/fuzz/corpus/$t" "tests/fuzz/corpus/$t" >"$log" 2>&1; then
            tail -n 40 "$log"
            echo "dev.sh: fuzz_$t failed; see $log" >&2
            exit 1
        fi
        echo "fuzz_$t: $(grep -o 'Done [0-9]* runs in [0-9]* second(s)' "$log")"
    done
}

# clang-tidy (.clang-tidy) and cppcheck over every source the clang build
# compiles, with that build's flags; any finding fails.
lint() {
    cmake --preset clang >/dev/null
    db=build/clang/compile_commands.json
    out=build/clang/lint.log
    sed -n 's/^ *"file": "\(.*\)",*$/\1/p' "$db" | grep -v "^$PWD/build/" | sort -u |
        xargs -r -n 2 -P "$(nproc)" clang-tidy -p build/clang --quiet >"$out" 2>/dev/null ||
        { cat "$out"; echo "dev.sh: clang-tidy findings" >&2; exit 1; }
    cppcheck --project="$db" -i"$PWD/build" --std=c++20 --library=googletest \
        --enable=warning,style,performance,portability --inline-suppr \
        --suppressions-list=cppcheck-suppressions.txt --error-exitcode=1 --quiet \
        -D__x86_64__ -j "$(nproc)"
    echo "lint: clean"
}

# Every time in a package is the commit's (cmake/cpack_options.cmake).
epoch() {
    SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct)}
    export SOURCE_DATE_EPOCH
}

# The package of the source tree in $1, made in $1/build/deb.
package() {
    (
        cd "$1"
        build package
        rm -rf build/deb
        cpack --config build/package/CPackConfig.cmake -B build/deb >/dev/null
    )
}

# The last commit, packaged from two fresh copies whose paths differ in
# length, so that neither the time nor the place of a build can leak in.
repro() {
    epoch
    rm -rf build/repro
    for dir in build/repro/a build/repro/second-copy; do
        mkdir -p "$dir"
        git archive HEAD | tar -x -C "$dir"
        package "$dir"
    done
    set -- build/repro/a/build/deb/*.deb build/repro/second-copy/build/deb/*.deb
    sha256sum "$@"
    if [ "$(sha256sum <"$1")" != "$(sha256sum <"$2")" ]; then
        echo "dev.sh: two builds of $(git rev-parse --short HEAD) differ" >&2
        exit 1
    fi
    tests/deb_package.sh "$1"
    rm -rf build/repro
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
    lint
    fuzz 30
    repro
    ;;
fuzz)
    install_deps
    fuzz "${2:-30}"
    ;;
lint)
    install_deps
    lint
    ;;
bench)
    PACKAGES="$PACKAGES $BENCH_PACKAGES"
    install_deps
    build release
    bench/run.sh build/release
    ;;
package)
    install_deps
    epoch
    package .
    ls build/deb/*.deb
    tests/deb_package.sh build/deb/*.deb
    ;;
repro)
    install_deps
    repro
    ;;
*)
    echo "usage: $0 demo|check|fuzz [SECONDS]|lint|package|repro|bench" >&2
    exit 2
    ;;
esac

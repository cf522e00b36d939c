#!/bin/sh
# The entry point on a Debian 12 machine: installs the Debian packages that
# a command needs and no more (as root, or through sudo; anyone else is told
# the list), configures with the CMake presets, builds, and runs.
#
#   ./dev.sh demo      build the helper and odm-sandbox, mount -o cluster in it
#   ./dev.sh check [CTEST-OPTION...]
#                      build with g++, clang++ and the sanitizers and run every
#                      test in each; the virtual machine's once, in the g++ build
#   ./dev.sh lint      clang-format, clang-tidy and cppcheck over every source
#   ./dev.sh fuzz [S]  run each fuzz target for S seconds (default 30)
#   ./dev.sh package   build as shipped, make build/deb/*.deb and check it
#   ./dev.sh repro     package the last commit twice, in two fresh copies, and
#                      compare the two byte for byte
#   ./dev.sh bench     count the start-up against /bin/true, C and mount(8)
#   ./dev.sh vm        the package on Debian 12's kernel and systemd (vm/run.sh)
#   ./dev.sh fresh     as root: the README's commands on a new Debian 12 root
set -eu
cd "$(dirname "$0")"

# On top of what every Debian system has (gzip, sed, gencat, util-linux).
DEMO_PACKAGES="cmake ninja-build g++ nlohmann-json3-dev"
# cpack's dependency list (dpkg-shlibdeps, file), hardening-check (in
# devscripts), lintian, and git for the commit's time.
PACKAGE_PACKAGES="cmake ninja-build g++ binutils dpkg-dev file devscripts lintian git"
# qemu, mmdebstrap with mount(8), which it sets the root up with, and its
# converters, newuidmap for a user who is not root, and kbuild with the
# headers of Debian 12's current kernel, whose image vm/run.sh fetches.
VM_PACKAGES="$PACKAGE_PACKAGES qemu-system-x86 mmdebstrap mount libarchive-tools cpio uidmap make
    linux-headers-amd64"
# The clang builds, and what the tests run: mount(8), readelf, mandoc,
# man(1), and localedef with the locale sources for the catalogue tests.
TEST_PACKAGES="$DEMO_PACKAGES clang libclang-rt-14-dev libgtest-dev mount binutils mandoc man-db
    locales"
CHECK_PACKAGES="$TEST_PACKAGES $VM_PACKAGES"
LINT_PACKAGES="$TEST_PACKAGES clang-format clang-tidy cppcheck"
BENCH_PACKAGES="$DEMO_PACKAGES valgrind hyperfine time binutils"

# Locales the catalogue tests look messages up in; their tests skip without.
LOCALES="en_US.UTF-8 de_DE.UTF-8"

if [ "$(id -u)" -eq 0 ]; then
    as_root=
elif command -v sudo >/dev/null 2>&1; then
    as_root=sudo
else
    as_root=none
fi

# install_deps COMMAND PACKAGE...: installs those that are missing.
install_deps() {
    what=$1
    shift
    missing=
    for p in "$@"; do
        case " $missing " in *" $p "*) continue ;; esac
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'ok installed' ||
            missing="$missing $p"
    done
    [ -z "$missing" ] && return 0
    if [ "$as_root" = none ]; then
        echo "dev.sh: $what needs these Debian packages; as root, run" >&2
        echo "    apt-get install --no-install-recommends$missing" >&2
        exit 1
    fi
    echo "dev.sh: installing$missing"
    $as_root apt-get update -qq
    # shellcheck disable=SC2086 # one argument per package
    $as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -q --no-install-recommends -o Dpkg::Use-Pty=0 $missing
}

install_locales() {
    for l in $LOCALES; do
        # locale -a spells UTF-8 as utf8.
        locale -a | grep -qx "${l%.UTF-8}.utf8" && continue
        if [ "$as_root" = none ]; then
            echo "dev.sh: locale $l missing; its catalogue tests will skip" >&2
        else
            $as_root localedef -i "${l%.*}" -f UTF-8 "$l"
        fi
    done
}

build() {
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1"
}

# Each fuzz target for $1 seconds, starting from its checked-in seeds. New
# inputs stay in build/fuzz/corpus, a crashing one lands in build/fuzz/, and
# the fuzzer's own output in a log.
fuzz() {
    build fuzz
    for t in subopts; do
        mkdir -p "build/fuzz/corpus/$t"
        log="build/fuzz/fuzz_$t.log"
        echo "fuzz_$t: $1 s from tests/fuzz/corpus/$t and build/fuzz/corpus/$t"
        if ! "build/fuzz/tests/fuzz/fuzz_$t" -max_total_time="$1" -timeout=10 \
            -print_final_stats=1 -close_fd_mask=3 -artifact_prefix=build/fuzz/ \
            -dict="tests/fuzz/$t.dict" "build/fuzz/corpus/$t" "tests/fuzz/corpus/$t" \
            >"$log" 2>&1; then
            tail -n 40 "$log"
            echo "dev.sh: fuzz_$t failed; see $log" >&2
            exit 1
        fi
        echo "fuzz_$t: $(grep -o 'Done [0-9]* runs in [0-9]* second(s)' "$log")"
    done
}

# clang-format (.clang-format) over every C++ file, then clang-tidy
# (.clang-tidy) and cppcheck over every source the clang build compiles,
# with that build's flags; any finding fails. The stand-in kernel module
# keeps the kernel's own style.
lint() {
    echo "lint: clang-format"
    git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror
    cmake --preset clang >/dev/null
    db=build/clang/compile_commands.json
    logs=build/clang/lint
    rm -rf "$logs"
    mkdir -p "$logs"
    files=$(sed -n 's/^ *"file": "\(.*\)",*$/\1/p' "$db" | grep -v "^$PWD/build/" | sort -u)
    echo "lint: clang-tidy over $(echo "$files" | wc -l) files, $(nproc) at a time"
    # shellcheck disable=SC2016 # expanded by the inner shell
    echo "$files" | xargs -r -n 1 -P "$(nproc)" sh -c '
        f=${1#$PWD/}
        if clang-tidy -p build/clang --quiet "$1" >"$0/$(echo "$f" | tr / _).log" 2>/dev/null; then
            echo "  clean     $f"
        else
            echo "  FINDINGS  $f"
            exit 1
        fi' "$logs" ||
        { cat "$logs"/*.log; echo "dev.sh: clang-tidy findings" >&2; exit 1; }
    echo "lint: cppcheck"
    if ! cppcheck --project="$db" -i"$PWD/build" --std=c++20 --library=googletest \
        --enable=warning,style,performance,portability --inline-suppr \
        --suppressions-list=cppcheck-suppressions.txt --error-exitcode=1 \
        -D__x86_64__ -j "$(nproc)" >"$logs/cppcheck.log" 2>&1; then
        grep -v -e '^Checking ' -e 'files checked' "$logs/cppcheck.log"
        echo "dev.sh: cppcheck findings" >&2
        exit 1
    fi
    echo "lint: clean"
}

# The last commit, packaged from two fresh copies whose paths differ in
# length, so that neither the time nor the place of a build can leak in.
repro() {
    SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
    export SOURCE_DATE_EPOCH
    rm -rf build/repro
    for dir in build/repro/a build/repro/second-copy; do
        mkdir -p "$dir"
        git archive HEAD | tar -x -C "$dir"
        echo "repro: packaging in $dir"
        packaging/deb.sh "$dir"
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

command=${1:-}
[ $# -eq 0 ] || shift
case $command in
demo)
    install_deps demo $DEMO_PACKAGES
    build demo
    build/demo/sandbox/odm-sandbox --tolvane-record -- build/demo/mount/mount.qeodmfs -o cluster
    ;;
check)
    install_deps check $CHECK_PACKAGES
    install_locales
    for preset in gcc clang asan; do
        build "$preset"
        ctest --preset "$preset" "$@"
    done
    ;;
lint)
    install_deps lint $LINT_PACKAGES
    lint
    ;;
fuzz)
    install_deps fuzz $TEST_PACKAGES
    fuzz "${1:-30}"
    ;;
package)
    install_deps package $PACKAGE_PACKAGES
    deb=$(packaging/deb.sh)
    echo "$deb"
    tests/deb_package.sh "$deb"
    ;;
repro)
    install_deps repro $PACKAGE_PACKAGES
    repro
    ;;
bench)
    install_deps bench $BENCH_PACKAGES
    build release
    bench/run.sh build/release
    ;;
vm)
    install_deps vm $VM_PACKAGES
    vm/run.sh "$@"
    ;;
fresh)
    install_deps fresh mmdebstrap git
    .ci/fresh
    ;;
*)
    echo "usage: $0 demo|check [CTEST-OPTION...]|lint|fuzz [SECONDS]|package|repro|bench" >&2
    echo "       $0 vm [GROUP...]|fresh" >&2
    exit 2
    ;;
esac

#!/bin/sh
# One entry point for a Debian 12 machine: installs what the command needs
# and nothing more, configures, builds, and then demonstrates or tests.
#
#   ./dev.sh demo     build the helper and odm-sandbox alone, then mount with
#                     -o cluster inside odm-sandbox
#   ./dev.sh check    build with g++, clang++ and the sanitizers and run every
#                     test in each
#   ./dev.sh lint     clang-tidy and cppcheck over the whole tree
#   ./dev.sh fuzz [S] run each fuzz target for S seconds (default 30)
#   ./dev.sh package  build as shipped, make the Debian package build/deb/*.deb
#                     and check it (tests/deb_package.sh)
#   ./dev.sh repro    package the last commit twice, in two fresh directories,
#                     and compare the two packages byte for byte
#   ./dev.sh bench    build as shipped, then count the helper's start-up against
#                     /bin/true, a C floor and mount(8) (bench/README.md)
#   ./dev.sh fresh    as root: demo and check in a new minimal Debian 12 root,
#                     then install the package there and test again, as root
#                     and as a user who is not root; the root is thrown away
set -eu
cd "$(dirname "$0")"

# The Debian packages each command needs, on top of what every Debian
# system has (gzip, sed, gencat, util-linux).
DEMO_PACKAGES="cmake ninja-build g++ nlohmann-json3-dev"
# What the tests run: mount(8), umount(8), readelf, mandoc, man(1), and
# localedef with the locale sources for the catalogue tests.
CHECK_PACKAGES="$DEMO_PACKAGES clang libclang-rt-14-dev libgtest-dev mount binutils mandoc man-db locales"
LINT_PACKAGES="$CHECK_PACKAGES clang-tidy cppcheck"
FUZZ_PACKAGES="$CHECK_PACKAGES"
# cpack's dependency list (dpkg-shlibdeps, file), hardening-check, lintian,
# and git for the commit's time and for repro's copies.
PACKAGE_PACKAGES="cmake ninja-build g++ binutils dpkg-dev file devscripts lintian git"
BENCH_PACKAGES="$DEMO_PACKAGES valgrind hyperfine time binutils"
FRESH_PACKAGES="mmdebstrap git"

# Locales the catalogue tests look messages up in; their tests skip without.
LOCALES="en_US.UTF-8 de_DE.UTF-8"

# The base system ./dev.sh fresh starts from, made once by mmdebstrap.
FRESH_CACHE=/var/cache/qeodmfs-fresh

# install_deps COMMAND PACKAGE...: installs those that are missing, as root
# or through sudo; anyone else is told the list.
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
    if [ "$(id -u)" -eq 0 ]; then
        sudo=
    elif command -v sudo >/dev/null 2>&1; then
        sudo=sudo
    else
        echo "dev.sh: $what needs these Debian packages; as root, run" >&2
        echo "    apt-get install --no-install-recommends$missing" >&2
        exit 1
    fi
    echo "dev.sh: installing$missing"
    $sudo apt-get update -qq
    $sudo env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -q --no-install-recommends -o Dpkg::Use-Pty=0 $missing
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
# The fuzzer's own output goes to a log; its latest status line is shown
# every 10 seconds.
fuzz() {
    build fuzz
    for t in subopts; do
        mkdir -p "build/fuzz/corpus/$t"
        dict=
        [ -f "tests/fuzz/$t.dict" ] && dict="-dict=tests/fuzz/$t.dict"
        log="build/fuzz/fuzz_$t.log"
        echo "fuzz_$t: $1 s from tests/fuzz/corpus/$t and build/fuzz/corpus/$t"
        "build/fuzz/tests/fuzz/fuzz_$t" -max_total_time="$1" -timeout=10 \
            -print_final_stats=1 -close_fd_mask=3 -artifact_prefix=build/fuzz/ $dict \
            "build/fuzz/corpus/$t" "tests/fuzz/corpus/$t" >"$log" 2>&1 &
        pid=$!
        ticks=0
        while kill -0 "$pid" 2>/dev/null; do
            sleep 1
            ticks=$((ticks + 1))
            [ $((ticks % 10)) -eq 0 ] || continue
            echo "fuzz_$t: ${ticks} s: $(grep -a '^#[0-9]' "$log" | tail -n 1 | cut -c 1-100)"
        done
        if ! wait "$pid"; then
            tail -n 40 "$log"
            echo "dev.sh: fuzz_$t failed; see $log" >&2
            exit 1
        fi
        echo "fuzz_$t: $(grep -o 'Done [0-9]* runs in [0-9]* second(s)' "$log")"
    done
}

# clang-tidy (.clang-tidy) and cppcheck over every source the clang build
# compiles, with that build's flags; any finding fails. Each file is named
# as its check ends.
lint() {
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
    cppcheck --project="$db" -i"$PWD/build" --std=c++20 --library=googletest \
        --enable=warning,style,performance,portability --inline-suppr \
        --suppressions-list=cppcheck-suppressions.txt --error-exitcode=1 \
        -D__x86_64__ -j "$(nproc)" | grep -v '^Checking '
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
        echo "repro: packaging in $dir"
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

# Seconds of processor time that this shell's finished children took. Not
# in a command substitution, whose subshell has no children of its own yet.
cpu_seconds() {
    times >"$times_file"
    cpu=$(awk 'NR == 2 { split($1, u, /[ms]/); split($2, s, /[ms]/)
                         printf "%d", u[1] * 60 + u[2] + s[1] * 60 + s[2] }' "$times_file")
}

installed_packages() {
    dpkg-query -W -f='${db:Status-Abbrev}\n' 2>/dev/null | grep -c '^ii' || true
}

# step NAME COMMAND...: runs one step of ./dev.sh fresh, says how long it
# took, in wall and processor time (a busy machine stretches the first
# alone), and how many Debian packages it added, and names it if it fails.
step() {
    name=$1
    shift
    echo "=== fresh: $name"
    before=$(installed_packages)
    start=$(date +%s)
    cpu_seconds
    cpu_start=$cpu
    status=0
    "$@" || status=$?
    secs=$(($(date +%s) - start))
    cpu_seconds
    cpu=$((cpu - cpu_start))
    added=$(($(installed_packages) - before))
    line=$(printf '%5d s  %5d s cpu  %+4d packages  %s' "$secs" "$cpu" "$added" "$name")
    if [ "$status" -ne 0 ]; then
        echo "dev.sh fresh: FAILED at step \"$name\" (exit $status, after $secs s)" >&2
        exit 1
    fi
    echo "=== fresh: done: $line"
    echo "$line" >>"$summary"
}

# The machine's own Debian sources, for mmdebstrap.
host_sources() {
    for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources; do
        [ -s "$f" ] && echo "$f"
    done
}

# A new minimal Debian 12 root (the apt variant: essential packages and apt
# alone) in build/fresh, with a clone of the last commit in /src. It is
# entered through a private mount namespace and pivot_root: inside a chroot
# the kernel refuses the user namespaces that the sandbox needs when it is
# run by a user who is not root.
fresh() {
    if [ "$(id -u)" -ne 0 ]; then
        echo "dev.sh: fresh makes, enters and removes a Debian root: run it as root" >&2
        exit 1
    fi
    install_deps fresh $FRESH_PACKAGES
    root=$PWD/build/fresh
    summary=$PWD/build/fresh.steps
    # Mounts live only in the namespace of the run, so what a killed run
    # left behind is plain files.
    rm -rf --one-file-system "$root" "$summary"
    mkdir -p "$root" "$FRESH_CACHE"
    trap 'rm -rf --one-file-system "$root" "$PWD/build/fresh.times"' EXIT
    trap 'exit 130' INT TERM HUP
    : >"$summary"
    times_file=$PWD/build/fresh.times

    base=$FRESH_CACHE/bookworm-apt.tar
    if [ ! -s "$base" ]; then
        # shellcheck disable=SC2046 # one argument per sources file
        step "make the base system ($base)" mmdebstrap --variant=apt bookworm \
            "$FRESH_CACHE/new.tar" $(host_sources) </dev/null
        mv "$FRESH_CACHE/new.tar" "$base"
    fi
    step "unpack the base system" tar -xf "$base" -C "$root"
    step "clone the last commit into /src" git clone -q --no-local . "$root/src"
    cp /etc/resolv.conf "$root/etc/resolv.conf"

    unshare --mount --pid --fork --kill-child --propagation private "$0" fresh-root "$root" "$summary"
    echo "=== fresh: every step passed"
    cat "$summary"
}

# Inside the namespace: mount what a booted machine has, make the root the
# root, and run the steps.
fresh_root() {
    root=$1
    summary_host=$2
    mount --bind "$root" "$root"  # pivot_root wants a mount point
    mount -t proc proc "$root/proc"
    mount -t sysfs -o ro sysfs "$root/sys"
    mount -t tmpfs -o mode=755,nosuid dev "$root/dev"
    for n in null zero full random urandom tty; do
        : >"$root/dev/$n"
        mount --bind "/dev/$n" "$root/dev/$n"
    done
    mkdir "$root/dev/pts" "$root/dev/shm"
    mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts "$root/dev/pts"
    ln -s pts/ptmx "$root/dev/ptmx"
    ln -s /proc/self/fd "$root/dev/fd"
    ln -s /proc/self/fd/0 "$root/dev/stdin"
    ln -s /proc/self/fd/1 "$root/dev/stdout"
    ln -s /proc/self/fd/2 "$root/dev/stderr"
    mount -t tmpfs -o mode=1777,nosuid,nodev shm "$root/dev/shm"
    mount -t tmpfs -o mode=1777,nosuid,nodev tmp "$root/tmp"
    mount -t tmpfs -o mode=755,nosuid,nodev run "$root/run"
    # The packages are downloaded once for all runs; they are still
    # installed afresh in every root.
    mount --bind /var/cache/apt/archives "$root/var/cache/apt/archives"
    # The summary lives on in the host's file through an open descriptor.
    exec 3>>"$summary_host"
    summary=/proc/self/fd/3
    times_file=/tmp/fresh.times  # /tmp of the root, from here on
    # The base system has no umount(8) yet: the host's, from the old root.
    umount=/.host$(command -v umount)
    cd "$root"
    mkdir .host
    pivot_root . .host
    "$umount" -l /.host
    rmdir /.host
    cd /src

    export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root
    unset LANG LANGUAGE LC_ALL TMPDIR

    step "./dev.sh demo, as root" ./dev.sh demo
    step "./dev.sh check, as root" ./dev.sh check
    useradd --create-home --shell /bin/sh odm
    step "tests as a user who is not root" as_user ctest --preset gcc
    step "./dev.sh package, as root" ./dev.sh package
    step "install the package, and a tool at /opt/KELD/bin/tolvane" install_package
    rm -f /etc/mtab
    step "tests as root, the package installed, no /etc/mtab" ctest --preset gcc
    ln -s ../proc/self/mounts /etc/mtab
    step "tests as root, the package installed, /etc/mtab a link" ctest --preset gcc
    rm /etc/mtab
    cat /proc/self/mounts >/etc/mtab
    step "tests as root, the package installed, /etc/mtab a file" ctest --preset gcc
    step "./dev.sh check as a user who is not root, the package installed" as_user ./dev.sh check
}

# Steps run as the condition of an if, where set -e does not hold: each
# command of these is chained to the next.

# Runs a command in /src as the user odm, who owns it for that time: git
# refuses a repository that someone else owns, and root runs git later.
as_user() {
    chown -R odm:odm /src &&
        setpriv --reuid=odm --regid=odm --init-groups env HOME=/home/odm USER=odm LOGNAME=odm "$@"
    user_status=$?
    chown -R root:root /src && return $user_status
}

install_package() {
    apt-get install -y -q -o Dpkg::Use-Pty=0 ./build/deb/*.deb &&
        mkdir -p /opt/KELD/bin &&
        printf '#!/bin/sh\nexit 0\n' >/opt/KELD/bin/tolvane &&
        chmod 755 /opt/KELD/bin/tolvane &&
        ls -l /sbin/mount.qeodmfs /opt/KELD/messages/*/KELDodm.cat /opt/KELD/bin/tolvane
}

case "${1:-}" in
demo)
    install_deps demo $DEMO_PACKAGES
    build demo
    bin=build/demo
    "$bin/sandbox/odm-sandbox" --tolvane-record -- "$bin/mount/mount.qeodmfs" -o cluster
    ;;
check)
    install_deps check $CHECK_PACKAGES
    install_locales
    for preset in gcc clang asan; do
        build "$preset"
        ctest --preset "$preset"
    done
    ;;
lint)
    install_deps lint $LINT_PACKAGES
    lint
    ;;
fuzz)
    install_deps fuzz $FUZZ_PACKAGES
    fuzz "${2:-30}"
    ;;
package)
    install_deps package $PACKAGE_PACKAGES
    epoch
    package .
    ls build/deb/*.deb
    tests/deb_package.sh build/deb/*.deb
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
fresh)
    fresh
    ;;
fresh-root)
    # ./dev.sh fresh runs this itself, in the namespace it makes.
    fresh_root "$2" "$3"
    ;;
*)
    echo "usage: $0 demo|check|lint|fuzz [SECONDS]|package|repro|bench|fresh" >&2
    exit 2
    ;;
esac

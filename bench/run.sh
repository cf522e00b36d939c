#!/bin/sh
# Start-up cost of mount.qeodmfs beside /bin/true, a C program that makes the
# same library calls as a full mount (odm-floor), and util-linux mount(8)
# mounting a tmpfs.
#
#   bench/run.sh BUILD_DIR        ./dev.sh bench builds one and runs this
#
# Instructions come from callgrind and repeat exactly from run to run, so the
# ratios are taken from them. Wall time (hyperfine) and peak RSS (GNU time)
# are what this machine gives today. Everything runs with the same small
# environment, because the loader's work grows with it. Full mounts run only
# inside odm-sandbox. This measures and prints; no figure fails it.
set -eu

build=$(cd "${1:?usage: bench/run.sh BUILD_DIR}" && pwd)
runs=${BENCH_RUNS:-300}
sandbox=$build/sandbox/odm-sandbox

for tool in valgrind hyperfine /usr/bin/time strip readelf; do
    command -v "$tool" >/dev/null || { echo "bench: $tool is missing" >&2; exit 1; }
done

work=$(mktemp -d /tmp/odm-bench.XXXXXX)
trap 'rm -rf "$work"' EXIT
trap 'exit 130' INT TERM
mkdir "$work/cg" "$work/mnt"

# Measured as the package ships them: stripped.
helper=$work/mount.qeodmfs
floor=$work/odm-floor
strip -o "$helper" "$build/mount/mount.qeodmfs"
strip -o "$floor" "$build/bench/odm-floor"

# A helper started at boot sees little more than PATH.
clean() { env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"; }

# The configuration tool is /bin/true, so that its process is the floor's own.
put_tool='mkdir -p /opt/KELD/bin && cp /bin/true /opt/KELD/bin/tolvane && exec "$@"'
in_sandbox() { clean "$sandbox" -q -- sh -c "$put_tool" sh "$@"; }

results=$work/results

# measure NAME WHERE LABEL COMMAND...: WHERE is "bare" or "sandbox".
# callgrind writes one file per process; the tool that the command starts
# lands in a file of its own and is reported on a line of its own.
measure() {
    name=$1 where=$2 label=$3
    shift 3
    echo "bench: $label" >&2
    run=clean
    [ "$where" = sandbox ] && run=in_sandbox

    $run valgrind --tool=callgrind --trace-children=yes \
        --callgrind-out-file="$work/cg/$name.%p" "$@" >/dev/null 2>"$work/$name.cg.log" ||
        echo "bench: $label: callgrind run failed, see below" >&2
    main_ir=- tool_ir=-
    for f in "$work/cg/$name".*; do
        [ -f "$f" ] || continue
        cmd=$(sed -n 's/^cmd: *//p' "$f")
        ir=$(sed -n 's/^totals: *//p' "$f")
        case $cmd in
        "$1"*) main_ir=$ir ;;
        *) tool_ir=$ir ;;
        esac
    done
    [ "$main_ir" = - ] && sed 's/^/    /' "$work/$name.cg.log" >&2

    $run /usr/bin/time -f %M -o "$work/$name.rss" "$@" >/dev/null 2>&1 || true
    rss=$(tail -n 1 "$work/$name.rss" 2>/dev/null || echo -)

    # hyperfine's word splitting is plain: none of our paths holds a blank.
    $run hyperfine -N --warmup 20 --runs "$runs" --export-csv "$work/$name.csv" \
        "$*" >/dev/null 2>"$work/$name.hf.log" || true
    # Median and fastest run: a busy machine only ever adds time.
    wall=$(awk -F, 'NR == 2 { printf "%.0f (%.0f)", $4 * 1e6, $7 * 1e6 }' \
        "$work/$name.csv" 2>/dev/null || true)
    [ -n "$wall" ] || wall=-

    printf '%s|%s|%s|%s|%s\n' "$name" "$label" "$main_ir" "$rss" "$wall" >>"$results"
    if [ "$tool_ir" != - ]; then
        printf '%s|%s|%s|-|-\n' "$name.tool" "  its tool, /bin/true, forked and run" \
            "$tool_ir" >>"$results"
    fi
}

if [ -x "$sandbox" ]; then
    have_sandbox=1
else
    have_sandbox=0
    echo "bench: no $sandbox: the full mounts are left out" >&2
fi

measure true bare "/bin/true" /bin/true
if [ $have_sandbox = 1 ]; then
    measure floor sandbox "C floor: a full mount's calls" "$floor" -o cluster
fi
measure leave bare "mount.qeodmfs -L" "$helper" -L
measure usage bare "mount.qeodmfs -h" "$helper" -h
if [ $have_sandbox = 1 ]; then
    measure full sandbox "mount.qeodmfs -o cluster" "$helper" -o cluster
    # valgrind will not run a set-user-ID program; root needs no such bit.
    cp "$(command -v mount)" "$work/mount"
    measure peer sandbox "mount -t tmpfs none DIR" "$work/mount" -t tmpfs none "$work/mnt"
fi

size=$(wc -c <"$helper")
needed=$(readelf -d "$helper" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' | paste -s -d ' ')

awk -F'|' -v size="$size" -v needed="$needed" -v runs="$runs" '
function ratio(a, b) { return (a == "-" || b == "-" || b == 0) ? "-" : sprintf("%.3f", a / b) }
function thousands(n,    s) {
    if (n == "-") return n
    s = ""
    while (length(n) > 3) { s = "," substr(n, length(n) - 2) s; n = substr(n, 1, length(n) - 3) }
    return n s
}
function verdict(r, limit) { return r == "-" ? "not measured" : (r + 0 <= limit ? "held" : "MISSED") }
{ name[NR] = $1; label[NR] = $2; ir[NR] = $3; rss[NR] = $4; wall[NR] = $5; row[$1] = NR }
END {
    t = ir[row["true"]]
    p = ("peer" in row) ? ir[row["peer"]] : "-"
    printf "%-38s %12s %8s %8s %10s %16s\n", "", "instructions", "x true", "x peer", "peak RSS", "wall time"
    printf "%-38s %12s %8s %8s %10s %16s\n", "", "(callgrind)", "", "", "(KiB)", "us, median (min)"
    for (i = 1; i <= NR; i++)
        printf "%-38s %12s %8s %8s %10s %16s\n", label[i], thousands(ir[i]),
            ratio(ir[i], t), ratio(ir[i], p), rss[i], wall[i]
    printf "\nmount.qeodmfs stripped: %d bytes; NEEDED: %s\n", size, needed
    printf "wall time: %d runs after 20 warm-up runs; in the sandbox it includes the\n", runs
    printf "trapped mount(2), and for -o cluster the emulated module and the tool run\n\n"

    # The budget, for the hardened build that binds every import at start.
    l = ratio(ir[row["leave"]], t)
    f = ("full" in row) ? ratio(ir[row["full"]], t) : "-"
    ff = ("full" in row && "floor" in row) ? ratio(ir[row["full"]], ir[row["floor"]]) : "-"
    fp = ("full" in row) ? ratio(ir[row["full"]], p) : "-"
    printf "budget  -L          <= 1.35 x /bin/true  %6s  %s\n", l, verdict(l, 1.35)
    printf "budget  -o cluster  <= 1.45 x /bin/true  %6s  %s\n", f, verdict(f, 1.45)
    printf "budget  -o cluster  <= 1.15 x C floor    %6s  %s\n", ff, verdict(ff, 1.15)
    printf "budget  -o cluster  <= 0.20 x peer       %6s  %s\n", fp, verdict(fp, 0.20)
    printf "budget  NEEDED is libc.so.6 alone                %s\n", (needed == "libc.so.6") ? "held" : "MISSED"
}' "$results"

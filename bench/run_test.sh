#!/bin/sh
# The benchmark, cut to a few timed runs, must still measure every row and
# judge every budget line. The figures themselves are not judged here.
#
#   run_test.sh BUILD_DIR
set -eu
here=$(dirname "$0")
for tool in valgrind hyperfine /usr/bin/time; do
    if ! command -v "$tool" >/dev/null; then
        echo "$tool is missing (./dev.sh bench installs it); skipped" >&2
        exit 77
    fi
done
if ! "$1/sandbox/odm-sandbox" -q -- /bin/true; then
    echo "odm-sandbox cannot run here; skipped" >&2
    exit 77
fi

out=$(BENCH_RUNS=3 "$here/run.sh" "$1" 2>&1)
echo "$out"
fail=0
[ "$(echo "$out" | grep -c ' holds$\| MISSED$')" -eq 4 ] || fail=1
echo "$out" | grep -q 'not measured\|failed\|missing' && fail=1
exit $fail

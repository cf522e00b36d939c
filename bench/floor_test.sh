#!/bin/sh
# floor_test.sh ODM_SANDBOX HELPER FLOOR: odm-floor is only a fair floor while
# it does what the helper does, so the sandbox's reports of a full mount by
# each must agree on all but the program's name, pids and times.
set -eu
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
for prog in "$2" "$3"; do
    json=$dir/$(basename "$prog").json status=0
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin \
        "$1" -q --tolvane-record --json "$json" -- "$prog" -o cluster || status=$?
    if [ "$status" -eq 125 ] && [ ! -s "$json" ]; then
        echo "odm-sandbox cannot run here; skipped" >&2
        exit 77
    fi
    sed -e '/"pid":/d' -e '/"time":/d' -e "s|\"$prog\"|\"PROGRAM\"|" "$json" >"$json.seen"
done
diff -u "$dir/$(basename "$2").json.seen" "$dir/$(basename "$3").json.seen"

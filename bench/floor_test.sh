#!/bin/sh
# odm-floor is only a fair floor while it does what the helper does. Both run
# a full mount in odm-sandbox, and the sandbox's reports must agree on
# everything but the program's name, pids and times.
#
#   floor_test.sh ODM_SANDBOX HELPER FLOOR
set -eu
sandbox=$1 helper=$2 floor=$3

dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

for prog in "$helper" "$floor"; do
    json=$dir/$(basename "$prog").json
    status=0
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin \
        "$sandbox" -q --tolvane-record --json "$json" -- "$prog" -o cluster || status=$?
    if [ "$status" -eq 125 ] && [ ! -s "$json" ]; then
        echo "odm-sandbox cannot run here; skipped" >&2
        exit 77
    fi
    sed -e '/"pid":/d' -e '/"time":/d' -e "s|\"$prog\"|\"PROGRAM\"|" "$json" >"$json.seen"
done
diff -u "$dir/$(basename "$helper").json.seen" "$dir/$(basename "$floor").json.seen"

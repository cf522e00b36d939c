#!/bin/sh
# What the loader does for the helper before main, kept to what a C program
# needs (libc alone is checked beside the unit tests). The benchmark shows
# what losing any of this costs; this catches it.
#
#   startup_shape_test.sh HELPER
set -eu
dyn=$(readelf -d "$1")
fail=0
complain() { echo "$1: $2" >&2; fail=1; }

# Binding every imported symbol up front costs -L a fifth more.
echo "$dyn" | grep -q -E 'BIND_NOW|FLAGS.* NOW' &&
    complain "$1" "binds all symbols at start (-z now)"
echo "$dyn" | grep -q TEXTREL &&
    complain "$1" "relocates its text"
# The compiler's own frame_dummy is the one entry; any more is a static
# initialiser run on every start, printed or not.
init=$(echo "$dyn" | sed -n 's/.*(INIT_ARRAYSZ) *\([0-9]*\) (bytes)/\1/p')
[ "${init:-0}" -le 8 ] ||
    complain "$1" "$((init / 8)) .init_array entries, expected 1"
exit $fail

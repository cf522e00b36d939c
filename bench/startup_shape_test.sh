#!/bin/sh
# startup_shape_test.sh HELPER: the loader's work for the helper before main
# stays what a C program needs. The benchmark shows what losing it costs.
set -eu
dyn=$(readelf -d "$1")
fail=0
# Binding every imported symbol up front costs -L a fifth more.
echo "$dyn" | grep -q -E 'BIND_NOW|FLAGS.* NOW' && { echo "$1 binds at start (-z now)"; fail=1; }
echo "$dyn" | grep -q TEXTREL && { echo "$1 relocates its text"; fail=1; }
# The compiler's frame_dummy is the one entry; any more is a static
# initialiser run on every start.
init=$(echo "$dyn" | sed -n 's/.*(INIT_ARRAYSZ) *\([0-9]*\) (bytes)/\1/p')
[ "${init:-0}" -le 8 ] || { echo "$1 has $((init / 8)) .init_array entries, not 1"; fail=1; }
exit $fail

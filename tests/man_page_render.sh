#!/bin/sh
# The manual page PAGE rendered as lintian renders it: groff's warnings, at
# 80 columns, fail the test. Status 77 (skipped) without man(1).
command -v man >/dev/null || exit 77
out=$(LC_ALL=C.UTF-8 MANROFFSEQ= MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z "$1" 2>&1 >/dev/null)
[ -z "$out" ] || { echo "$out"; exit 1; }

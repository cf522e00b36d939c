#!/bin/sh
# deb_package.sh DEB        (./dev.sh package and ./dev.sh repro run it)
#
# What a user of the package gets: the files, links and modes, libc6 alone
# as dependency, a changelog of the version, a hardened helper, /opt left to
# base-files, and lintian tags only with a written reason.
set -eu
deb=$1
fail=0
work=$(mktemp -d "$(cd "$(dirname "$deb")" && pwd)/check.XXXXXX")
trap 'rm -rf "$work"' EXIT
problem() { printf '%s\n' "$@"; fail=1; }

depends=$(dpkg-deb -f "$deb" Depends)
echo "$depends" | grep -Eq '^libc6( \(>= [0-9.]+\))?$' || problem "Depends: $depends (expected libc6 alone)"

# Mode, owner and path of everything but directories.
contents=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { $3 = $4 = $5 = ""; print }' |
    tr -s ' ' | LC_ALL=C sort -k3)
expected="-rw-r--r-- root/root ./lib/systemd/system/dev-odm.mount.d/qeodmfs-mount.conf
-rw-r--r-- root/root ./opt/KELD/messages/de_DE.UTF-8/KELDodm.cat
lrwxrwxrwx root/root ./opt/KELD/messages/de_DE.utf8 -> de_DE.UTF-8
-rw-r--r-- root/root ./opt/KELD/messages/en_US.UTF-8/KELDodm.cat
lrwxrwxrwx root/root ./opt/KELD/messages/en_US.utf8 -> en_US.UTF-8
-rw-r--r-- root/root ./usr/lib/tmpfiles.d/qeodmfs-mount.conf
-rwxr-xr-x root/root ./usr/sbin/mount.qeodmfs
-rw-r--r-- root/root ./usr/share/doc/qeodmfs-mount/changelog.gz
-rw-r--r-- root/root ./usr/share/doc/qeodmfs-mount/copyright
-rw-r--r-- root/root ./usr/share/lintian/overrides/qeodmfs-mount
-rw-r--r-- root/root ./usr/share/man/man8/mount.qeodmfs.8.gz"
[ "$contents" = "$expected" ] || problem contents: "$contents" expected: "$expected"

dpkg-deb -x "$deb" "$work"
version=$(dpkg-deb -f "$deb" Version)
gzip -dc "$work/usr/share/doc/qeodmfs-mount/changelog.gz" | head -n 1 | grep -Fq "($version)" ||
    problem "packaging/changelog has no entry for $version"

# Debian 12's own start files (Scrt1.o, crti.o) carry no IBT/SHSTK mark, so
# no program built on it passes the control-flow check.
helper=$work/usr/sbin/mount.qeodmfs
hardening-check --nocfprotection "$helper" || fail=1
# Start-up as a C program's: no text relocations, and no static initialiser
# beyond the compiler's frame_dummy, run at every start.
dyn=$(readelf -d "$helper")
echo "$dyn" | grep -q TEXTREL && problem "$helper relocates its text"
init=$(echo "$dyn" | sed -n 's/.*(INIT_ARRAYSZ) *\([0-9]*\) (bytes)/\1/p')
[ "${init:-0}" -le 8 ] || problem "$helper has $((init / 8)) .init_array entries, not 1"

# No package owns /opt (base-files makes it): one that listed it would take
# it away with its last file. Installing and removing for real is the
# virtual machine's (tests/vm/scenarios.sh).
dpkg-deb -c "$deb" | grep -q ' \./opt/$' && problem "the package lists /opt"

# Root is how CI runs; lintian's notice about it is not a finding. Lintian
# leaves its caches in TMPDIR, so they go with the work directory.
report=$(TMPDIR=$work lintian -I --fail-on error,warning,info "$deb" 2>&1) || fail=1
printf '%s\n' "$report" | grep -v 'running with root privileges' || true
exit $fail

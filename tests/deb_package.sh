#!/bin/sh
# deb_package.sh <build dir> <scratch dir>
#
# Builds the Debian package from the build tree and checks what a user of
# it gets: the files and their modes, a dependency on libc6 alone, a
# changelog that matches the version, and a clean lintian report.
set -eu
build=$1 work=$2

for tool in cpack dpkg-deb dpkg-shlibdeps; do
    command -v "$tool" >/dev/null || { echo "$tool not installed; skipped"; exit 77; }
done

rm -rf "$work"
cpack --config "$build/CPackConfig.cmake" -B "$work" >"$work.log" 2>&1 ||
    { cat "$work.log"; exit 1; }
set -- "$work"/*.deb
[ $# -eq 1 ] && [ -f "$1" ] || { echo "expected one .deb, got: $*"; exit 1; }
deb=$1
fail=0

depends=$(dpkg-deb -f "$deb" Depends)
echo "$depends" | grep -Eq '^libc6( \(>= [0-9.]+\))?$' ||
    { echo "Depends: $depends (expected libc6 alone)"; fail=1; }

# Mode, owner and path of every file; directories are not interesting.
contents=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { print $1, $2, $6 }' | LC_ALL=C sort -k3)
expected="-rwxr-xr-x root/root ./usr/sbin/mount.qeodmfs
-rw-r--r-- root/root ./usr/share/doc/qeodmfs-mount/changelog.gz
-rw-r--r-- root/root ./usr/share/doc/qeodmfs-mount/copyright
-rw-r--r-- root/root ./usr/share/man/man8/mount.qeodmfs.8.gz"
[ "$contents" = "$expected" ] ||
    { printf 'contents:\n%s\nexpected:\n%s\n' "$contents" "$expected"; fail=1; }

version=$(dpkg-deb -f "$deb" Version)
dpkg-deb --fsys-tarfile "$deb" | tar -xOf - ./usr/share/doc/qeodmfs-mount/changelog.gz |
    gzip -dc | head -n 1 | grep -Fq "($version)" ||
    { echo "packaging/changelog has no entry for $version"; fail=1; }

if ! command -v lintian >/dev/null; then
    echo "lintian not installed; not checked"
    [ $fail -eq 0 ] && exit 77
    exit 1
fi
status=0
report=$(lintian --fail-on error,warning "$deb" 2>&1) || status=$?
# Root is how CI runs; lintian's notice about it is not a finding.
printf '%s\n' "$report" | grep -v 'running with root privileges' || true
[ $status -eq 0 ] || { echo "lintian reports errors or warnings"; fail=1; }
exit $fail

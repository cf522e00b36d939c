#!/bin/sh
# vm/debian-root.sh TARBALL [MMDEBSTRAP-OPTION...]
#
# A minimal Debian 12 root as a tarball: mmdebstrap's apt variant (the
# essential packages and apt), from this machine's own apt sources, with
# whatever the options add. Made once: a TARBALL that exists is kept. As
# root, or as another user through mmdebstrap's unshare mode. The
# fresh-machine check (.ci/fresh) and the virtual machine (vm/run.sh) start
# from it.
set -eu
out=$1
shift
[ -s "$out" ] && exit 0
# Without it mmdebstrap carries on with no /proc in the root, and the
# maintainer scripts that need one (systemd's makes /etc/mtab) do less.
command -v mount >/dev/null || { echo "debian-root: mount(8) is missing" >&2; exit 1; }
mkdir -p "$(dirname "$out")"
sources=
for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources; do
    [ -s "$f" ] && sources="$sources $f"
done
echo "debian-root: making $out"
# A failed run leaves no tarball that a later one would take for whole.
# shellcheck disable=SC2086 # one argument per sources file
mmdebstrap --quiet --variant=apt --format=tar "$@" bookworm "$out.new" $sources </dev/null
mv "$out.new" "$out"

#!/bin/sh
# packaging/deb.sh [SOURCE-DIR]: the Debian package of the tree (default:
# this one), built with the package preset into SOURCE-DIR/build/deb. Its
# times are the last commit's, or SOURCE_DATE_EPOCH's when that is set
# (cmake/cpack_options.cmake). Prints the package's path.
set -eu
cd "${1:-$(dirname "$0")/..}"
cmake --preset package >/dev/null
cmake --build --preset package >/dev/null
rm -rf build/deb
log=build/package/cpack.log
cpack --config build/package/CPackConfig.cmake -B build/deb >"$log" 2>&1 || { cat "$log" >&2; exit 1; }
echo "$PWD"/build/deb/*.deb

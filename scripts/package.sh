#!/usr/bin/env bash
# Builds the Debian packages: libveskan0 (the library), libveskan-dev (headers, CMake package,
# veskan.pc) and veskan-tools, into build-package/ (BUILD_DIR chooses another folder). The build
# is made for the prefix /usr, so that the installed programs need no library search path.
# Extra arguments go to CMake.
set -euo pipefail
cd "$(dirname "$0")/.."
build="${BUILD_DIR:-build-package}"

BUILD_DIR="$build" scripts/build.sh -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DVESKAN_BUILD_TESTS=OFF -DVESKAN_BUILD_BENCHMARKS=OFF "$@"
rm -f "$build"/*.deb
(cd "$build" && cpack -G DEB)
ls "$build"/*.deb

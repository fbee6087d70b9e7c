#!/usr/bin/env bash
# Builds the Debian packages from a Release tree of their own (build-package/)
# into build-package/packages/: qs-tools (the programs and their manual
# pages), libqscommon<N> (the shared library) and libqscommon-dev (headers,
# static library, CMake package, pkg-config file).  Prints their paths.
# Usage: scripts/package.sh
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh build tools package

# Debian's own compiler and linker flags, as a package built by Debian's
# tools would get: its hardening, and its optimisation level in place of
# CMake's -O3 for Release.  The last commit's time is the build date, so that
# the same sources give the same packages.
export DEB_BUILD_MAINT_OPTIONS=hardening=+all
if [[ -z ${SOURCE_DATE_EPOCH:-} ]]; then
    SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null || date +%s)
    export SOURCE_DATE_EPOCH
fi
cppflags=$(dpkg-buildflags --get CPPFLAGS)
scripts/build.sh build-package -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
    -DQS_BUILD_TESTS=OFF -DQS_BUILD_TOOLS=ON \
    -DCMAKE_C_FLAGS_RELEASE=-DNDEBUG -DCMAKE_CXX_FLAGS_RELEASE=-DNDEBUG \
    -DCMAKE_C_FLAGS="$(dpkg-buildflags --get CFLAGS) $cppflags" \
    -DCMAKE_CXX_FLAGS="$(dpkg-buildflags --get CXXFLAGS) $cppflags" \
    -DCMAKE_EXE_LINKER_FLAGS="$(dpkg-buildflags --get LDFLAGS)" \
    -DCMAKE_SHARED_LINKER_FLAGS="$(dpkg-buildflags --get LDFLAGS)"

out=build-package/packages
rm -rf "$out"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
(cd build-package && cpack -G DEB -B "$PWD/packages") >"$log" 2>&1 || { cat "$log" >&2; exit 1; }
ls "$PWD/$out"/*.deb

#!/usr/bin/env bash
# Builds a small program on an installed common library the four ways its
# users can (the CMake package and pkg-config, each shared and static), runs
# each with a private log directory and reads its record back with the
# installed qslog.  The CMake build also compiles every installed header on
# its own, with warnings as errors and only what the package passes on, so
# that a public header that leans on one left uninstalled, or on a setting
# the package does not carry, fails here rather than in a user's build.
# Usage: tests/install/consumer.sh PREFIX WORK_DIR
#   PREFIX    where the project is installed (cmake --install --prefix, or /usr)
#   WORK_DIR  emptied, then holds the builds and their log directories
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
prefix=$1
rm -rf "$2" && mkdir -p "$2"
work=$(cd "$2" && pwd)

fail() { echo "consumer.sh: $*" >&2; exit 1; }
# Runs a command with its output kept aside, shown only when it fails.
quiet() {
    local what=$1; shift
    "$@" >"$work/output" 2>&1 || { cat "$work/output" >&2; fail "$what failed"; }
}

qslog=$prefix/bin/qslog
[[ -x $qslog ]] || fail "no qslog in $prefix/bin"
version=$("$qslog" --version)
version=${version##* }
pc=$(find "$prefix"/lib* -maxdepth 3 -name qscommon.pc -path '*/pkgconfig/*' 2>/dev/null | head -1)
[[ -n $pc ]] || fail "no qscommon.pc under $prefix/lib*"
export PKG_CONFIG_PATH=${pc%/*}
includedir=$(pkg-config --variable=includedir qscommon)
libdir=$(pkg-config --variable=libdir qscommon)
cxx=${CXX:-c++}

headers=("$includedir"/qs/*.h)
[[ -e ${headers[0]} ]] || fail "no headers in $includedir/qs"
mkdir -p "$work/headers"
for h in "${headers[@]}"; do printf '#include <qs/%s>\n' "${h##*/}" >"$work/headers/${h##*/}.cpp"; done

# Runs the program built as $1, then finds its record with qslog.  $2: yes
# when it must load the shared library, no when the static one is linked in.
check() {
    local name=$1 shared=$2 program=$work/$1/consumer logs=$work/logs-$1
    local needed
    needed=$(readelf -d "$program" | grep -o 'libqscommon\.so[^]]*' || true)
    if [[ $shared == yes && $needed != "libqscommon.so.${version%%.*}" ]]; then
        fail "$name: loads '${needed:-nothing}', not libqscommon.so.${version%%.*}"
    fi
    [[ $shared == yes || -z $needed ]] || fail "$name: loads $needed, though linked statically"
    QS_LOG_DIR=$logs "$program" "consumer-$name" || fail "$name: the program failed"
    local out
    out=$(QS_LOG_DIR=$logs "$qslog" -g "consumer-$name") || fail "$name: qslog failed"
    [[ $out == *"consumer-$name: built on qs $version"* ]] ||
        fail "$name: qslog did not read its record back (it printed: ${out:-nothing})"
}

# The headers are checked in the shared build only: both see the same ones.
for kind in shared static; do
    static=OFF checks=$work/headers
    [[ $kind == static ]] && static=ON checks=""
    quiet "find_package, $kind: cmake" cmake -S "$here/consumer" -B "$work/cmake-$kind" -G Ninja \
        -DCMAKE_PREFIX_PATH="$prefix" -DQS_EXPECTED_VERSION="$version" \
        -DQS_USE_STATIC_LIBS=$static -DQS_HEADER_CHECKS="$checks"
    quiet "find_package, $kind: build" cmake --build "$work/cmake-$kind"
    check cmake-$kind $([[ $static == OFF ]] && echo yes || echo no)
done

mkdir -p "$work/pkg-config-shared" "$work/pkg-config-static"
# shellcheck disable=SC2046
quiet "pkg-config, shared: build" $cxx -std=c++20 -o "$work/pkg-config-shared/consumer" \
    "$here/consumer/main.cpp" $(pkg-config --cflags --libs qscommon) -Wl,-rpath,"$libdir"
check pkg-config-shared yes
# The static archive by name, and everything it needs from --static.
libs=$(pkg-config --static --libs qscommon)
# shellcheck disable=SC2086
quiet "pkg-config, static: build" $cxx -std=c++20 -o "$work/pkg-config-static/consumer" \
    "$here/consumer/main.cpp" $(pkg-config --cflags qscommon) ${libs//-lqscommon/-l:libqscommon.a}
check pkg-config-static no

echo "consumer: ${#headers[@]} headers compile alone; built with find_package and pkg-config," \
     "shared and static, against $prefix; each logged and qslog $version read it back"

#!/usr/bin/env bash
# Tells whether this machine can run 32-bit (i386) programs: compiles a tiny
# -m32 program with the C++ compiler the builds use and executes it.  Exits 0
# when it runs; otherwise prints one line saying why and exits 1.  Some
# kernels are built without i386 support, and then every such program fails
# with "Exec format error" although the multilib compiler builds it fine.
# Usage: scripts/probe-m32.sh
set -uo pipefail

dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
echo 'int main() { return 0; }' >"$dir/probe.cpp"
if ! out=$("${CXX:-c++}" -m32 -o "$dir/probe" "$dir/probe.cpp" 2>&1); then
    echo "a -m32 program does not build here${out:+ (${out//$'\n'/; })}"
    exit 1
fi
if ! out=$("$dir/probe" 2>&1); then
    echo "this machine cannot execute i386 programs (a -m32 program fails: ${out##*: })"
    exit 1
fi

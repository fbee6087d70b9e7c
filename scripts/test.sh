#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test:
#   build/         the ordinary build: unit, process, stress and replayed fuzz
#                  tests; then installed into a temporary prefix, and a program
#                  built on that installation (tests/install/consumer.sh)
#   build-package/ the Debian packages (scripts/package.sh), installed into this
#                  system, used and purged again (tests/install/packages.sh)
#   build-asan/    build/'s tests under AddressSanitizer and UndefinedBehaviorSanitizer
#   build-m32/     a 32-bit (i386) build, the library's own platform: built
#                  whenever apt provides the multilib compiler, its tests run
#                  whenever this machine executes i386 programs (one line says
#                  why when either is not so)
#   build-fuzz/    clang + libFuzzer: each fuzz target for QS_FUZZ_SECONDS
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)
fuzz_seconds=${QS_FUZZ_SECONDS:-15}

scripts/deps.sh build tools fuzz nfs package

echo "== build and test (build/)"
scripts/build.sh build -DQS_BUILD_TESTS=ON
ctest --test-dir build -j "$jobs" --output-on-failure --timeout 300

echo "== install build/ into a temporary prefix and build a program on it (build/install-test/)"
rm -rf build/install-test
cmake --install build --prefix "$PWD/build/install-test/prefix" >/dev/null
tests/install/consumer.sh "$PWD/build/install-test/prefix" build/install-test/consumer

echo "== Debian packages: build, install into this system, use, purge (build-package/)"
scripts/package.sh >/dev/null
tests/install/packages.sh build-package/packages build-package/package-test

echo "== AddressSanitizer + UndefinedBehaviorSanitizer (build-asan/)"
scripts/build.sh build-asan -DQS_SANITIZE=address,undefined
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
QS_STRESS_SCALE=0.25 \
    ctest --test-dir build-asan -j "$jobs" --output-on-failure --timeout 600

echo "== 32-bit (build-m32/)"
if ! why=$(scripts/deps.sh m32 2>&1 >/dev/null); then
    echo "== 32-bit build skipped: apt cannot provide the multilib compiler (${why//$'\n'/; })"
else
    # The i386 libraries (libtirpc for the NFS client, libcrypt) may be out of
    # the mirror's reach.  That does not stop the 32-bit tree: what needs a
    # missing one is compiled there but not linked.
    if ! why=$(scripts/deps.sh m32libs 2>&1 >/dev/null); then
        echo "== note: i386 libraries missing (${why//$'\n'/; }); parts that need them are compiled, not linked"
    fi
    # Compile and link errors count even where the tests cannot run.
    scripts/build.sh build-m32 -DQS_M32=ON
    if why=$(scripts/probe-m32.sh); then
        ctest --test-dir build-m32 -j "$jobs" --output-on-failure --timeout 300
    else
        echo "== 32-bit tests not run: $why"
    fi
fi

echo "== fuzz, ${fuzz_seconds} s per target (build-fuzz/, clang)"
CC=clang CXX=clang++ scripts/build.sh build-fuzz -DQS_BUILD_FUZZ=ON -DQS_BUILD_TESTS=OFF \
    -DQS_BUILD_TOOLS=OFF -DQS_FUZZ_SECONDS="$fuzz_seconds"
ctest --test-dir build-fuzz -j "$jobs" --output-on-failure

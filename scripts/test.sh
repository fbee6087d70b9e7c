#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

scripts/deps.sh build tools

echo "== build and test (build/)"
scripts/build.sh build -DQS_BUILD_TESTS=ON
ctest --test-dir build -j "$jobs" --output-on-failure --timeout 300

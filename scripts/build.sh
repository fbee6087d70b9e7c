#!/usr/bin/env bash
# Configures and builds one build tree.
# Usage: scripts/build.sh BUILD_DIR [extra cmake arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$1; shift
cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
ninja -C "$dir" -j "$(nproc)" --quiet

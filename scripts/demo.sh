#!/usr/bin/env bash
# Installs what is missing, builds, and runs the watcher in the foreground on a
# demo target that fails a few times before it succeeds; then shows the log.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh build tools
scripts/build.sh build -DQS_BUILD_TESTS=OFF

export QS_LOG_DIR=${QS_LOG_DIR:-$PWD/build/demo-logs}
state=$(mktemp)
trap 'rm -f "$state"' EXIT

echo "== watcher -f -d 1 -r 5 qs-demo-target (logs in $QS_LOG_DIR)"
build/watcher/watcher -f -d 1 -r 5 "$PWD/build/watcher/demo_target" "$state" 3
echo "== watcher exited with status $?"

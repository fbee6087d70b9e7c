#!/usr/bin/env bash
# Installs what is missing, builds, and runs the watcher in the foreground on a
# demo target that fails a few times before it succeeds; then shows the log.
set -euo pipefail
cd "$(dirname "$0")/.."

echo "== installing the Debian packages it needs (only those missing)"
scripts/deps.sh build tools
echo "== configuring build/"
cmake -S . -B build -G Ninja >/dev/null
echo "== building watcher, demo_target and qslog (a first build takes a few minutes)"
ninja -C build watcher demo_target qslog

export QS_LOG_DIR=${QS_LOG_DIR:-$PWD/build/demo-logs}
state=$(mktemp)
trap 'rm -f "$state"' EXIT

echo "== watcher -f -d 1 -r 5 demo_target (logs in $QS_LOG_DIR)"
since=$(date '+%Y-%m-%d %H:%M:%S')
status=0
build/watcher/watcher -f -d 1 -r 5 "$PWD/build/watcher/demo_target" "$state" 3 || status=$?
echo "== watcher exited with status $status"

echo "== its log: qslog --since '$since'"
build/tools/qslog/qslog --since "$since"

#!/usr/bin/env bash
# Installs the Debian packages a step needs, only those missing, quietly.
# Usage: scripts/deps.sh GROUP...   (groups: build tools bench fuzz)
set -euo pipefail

declare -A GROUP=(
    [build]="g++ cmake ninja-build pkg-config libgtest-dev libgmock-dev googletest"
    [tools]="libcli11-dev nlohmann-json3-dev"
    [bench]="libbenchmark-dev libspdlog-dev libgoogle-glog-dev"
    [fuzz]="clang libclang-rt-14-dev"
)

wanted=()
for g in "$@"; do
    [[ -n "${GROUP[$g]:-}" ]] || { echo "deps.sh: unknown group '$g'" >&2; exit 2; }
    wanted+=(${GROUP[$g]})
done

missing=()
for p in "${wanted[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

SUDO=""
[[ $(id -u) -eq 0 ]] || SUDO="sudo"
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq >/dev/null
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null

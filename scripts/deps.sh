#!/usr/bin/env bash
# Installs the Debian packages a step needs, only those missing, quietly.
# Usage: scripts/deps.sh GROUP...   (groups: build tools bench fuzz m32 m32libs nfs nfsbench package)
# Packages named NAME:i386 bring in the i386 architecture first.  Installs
# what can be had; exits non-zero, with apt's last words on stderr (per
# package when there were several), when something cannot be had.
set -euo pipefail

declare -A GROUP=(
    [build]="g++ cmake ninja-build pkg-config libgtest-dev libgmock-dev googletest libcrypt-dev libtirpc-dev rpcsvc-proto"
    [tools]="libcli11-dev nlohmann-json3-dev"
    [bench]="libbenchmark-dev libspdlog-dev libgoogle-glog-dev rsyslog"
    [fuzz]="clang libclang-rt-14-dev"
    [m32]="g++-multilib"
    # Installed one by one when the group fails, so a mirror that lacks one
    # (libtirpc-dev:i386 needs a libssl3:i386 some mirrors miss) still gets the other.
    [m32libs]="libcrypt-dev:i386 libtirpc-dev:i386"
    # The NFS client and the real server its tests run against (tests/nfs).
    [nfs]="libtirpc-dev rpcsvc-proto rpcbind nfs-common nfs-ganesha nfs-ganesha-vfs iproute2"
    # scripts/bench-nfs.sh: the reference client (nfs-cat, nfs-cp) and a plain
    # TCP copy over loopback as the limit.
    [nfsbench]="libnfs-utils socat"
    # CPack's Debian packages: dpkg-shlibdeps, file to tell binaries apart,
    # lintian and systemd-analyze (the example unit) to check what is made.
    [package]="dpkg-dev file lintian systemd"
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
export DEBIAN_FRONTEND=noninteractive
if [[ " ${missing[*]}" == *":i386"* ]] && ! dpkg --print-foreign-architectures | grep -qx i386; then
    $SUDO dpkg --add-architecture i386
fi
echo "Installing: ${missing[*]}"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
# A mirror caught mid-sync fails some indexes; what was fetched still serves.
# Another apt run (a parallel build, the NFS test server's set-up) may hold the
# lock: wait for it rather than fail.
lock=(-o DPkg::Lock::Timeout=600)
$SUDO apt-get "${lock[@]}" update -qq >/dev/null 2>&1 || $SUDO apt-get "${lock[@]}" update -qq >/dev/null 2>&1 || true
apt_install() { $SUDO apt-get "${lock[@]}" install -y -q --no-install-recommends "$@" >"$log" 2>&1; }
why() {
    { grep ': Depends:' "$log" | head -1 | sed 's/^ *//' || true; grep '^E:' "$log" | tail -1 || true; } |
        paste -sd ' '
}
apt_install "${missing[@]}" && exit 0
if [[ ${#missing[@]} -eq 1 ]]; then
    echo "${missing[0]}: $(why)" >&2
    exit 1
fi
# apt installs all or nothing: one package the mirror cannot provide must not
# keep the others out.  Each alone, then, naming those that failed.
status=0
for p in "${missing[@]}"; do
    apt_install "$p" && continue
    echo "$p: $(why)" >&2
    status=1
done
exit $status

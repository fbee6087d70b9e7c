#!/usr/bin/env bash
# Installs the Debian packages into this system, uses them as a user would and
# removes them again: runs the watcher from /usr/bin in the foreground on a
# program that exits 0 and reads its log with /usr/bin/qslog, builds and runs
# the consumer program against /usr (tests/install/consumer.sh), checks the
# example service unit, then purges the packages and checks that none of
# their files is left.  Lintian checks the packages first where it is
# installed.  What this machine cannot do is skipped with one line.
# Usage: tests/install/packages.sh PACKAGE_DIR WORK_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../.." && pwd)
debs=("$(cd "$1" && pwd)"/*.deb)
rm -rf "$2" && mkdir -p "$2"
work=$(cd "$2" && pwd)

fail() { echo "packages.sh: $*" >&2; exit 1; }
skip() { echo "== packages not installed: $*"; exit 0; }

[[ -e ${debs[0]} ]] || fail "no packages in $1 (scripts/package.sh makes them)"
SUDO=""
if [[ $(id -u) -ne 0 ]]; then
    sudo -n true 2>/dev/null || skip "that needs root, or sudo without a password"
    SUDO=sudo
fi
command -v apt-get >/dev/null || skip "no apt-get on this machine"

names=()
for deb in "${debs[@]}"; do names+=("$(dpkg-deb -f "$deb" Package)"); done
version=$(dpkg-deb -f "${debs[0]}" Version)
# A developer's own installation of them is not this test's to replace.
for name in "${names[@]}"; do
    if dpkg-query -W -f='${db:Status-Status}' "$name" 2>/dev/null | grep -qx installed; then
        skip "$name is installed on this machine already (left as it is)"
    fi
done

if command -v lintian >/dev/null; then
    # Its one remaining warning is CPack's ldconfig call in the library's
    # maintainer scripts, which the dpkg trigger the package also declares
    # makes redundant but not wrong.
    lintian --fail-on error,warning --suppress-tags maintscript-calls-ldconfig "${debs[@]}" \
        >"$work/lintian" 2>&1 || { cat "$work/lintian" >&2; fail "lintian found faults"; }
else
    echo "== lintian not installed: the packages are not checked by it"
fi

apt=(env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 -y -q)
purge() { $SUDO "${apt[@]}" purge "${names[@]}" >"$work/purge" 2>&1; }
trap 'purge || true' EXIT
$SUDO "${apt[@]}" install --no-install-recommends "${debs[@]}" >"$work/install" 2>&1 ||
    { cat "$work/install" >&2; fail "apt-get install failed"; }
for name in "${names[@]}"; do dpkg-query -L "$name" >"$work/$name.files"; done

export QS_LOG_DIR=$work/logs
for tool in qslog qsnfs; do
    [[ $(/usr/bin/$tool --version) == "$tool $version" ]] || fail "$tool --version is not $tool $version"
done
zcat /usr/share/man/man1/watcher.1.gz | grep -q "^\.TH .*\"watcher $version\"" ||
    fail "the installed watcher(1) does not name version $version"
status=0
/usr/bin/watcher -f -d 0 -r 2 /bin/true || status=$?
[[ $status -eq 0 ]] || fail "watcher -f on /bin/true exited with $status"
log=$(/usr/bin/qslog)
[[ $log == *"normal exit, no restart necessary"* ]] ||
    fail "qslog did not show the watcher's run; it printed: ${log:-nothing}"

"$here/consumer.sh" /usr "$work/consumer"

if command -v systemd-analyze >/dev/null; then
    systemd-analyze verify "$top/contrib/watcher-example.service" >"$work/verify" 2>&1 ||
        { cat "$work/verify" >&2; fail "systemd-analyze verify rejects contrib/watcher-example.service"; }
else
    echo "== systemd-analyze not installed: contrib/watcher-example.service is not verified"
fi

trap - EXIT
purge || { cat "$work/purge" >&2; fail "apt-get purge failed"; }
for name in "${names[@]}"; do
    if dpkg-query -W -f='${db:Status-Status}' "$name" 2>/dev/null | grep -qvx not-installed; then
        fail "$name is still known to dpkg after the purge"
    fi
    # Directories shared with other packages (/usr/bin, ...) stay, rightly.
    while read -r path; do
        [[ -e $path || -L $path ]] || continue
        [[ -d $path ]] && dpkg-query -S "$path" >/dev/null 2>&1 && continue
        fail "$path of $name is still there after the purge"
    done <"$work/$name.files"
done
echo "packages: ${names[*]} $version installed, watcher and qslog ran from /usr/bin," \
     "the consumer built against /usr, all purged without a trace"

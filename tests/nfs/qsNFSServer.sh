#!/usr/bin/env bash
# The real NFS server of the NFS client's tests: rpcbind, rpc.statd and
# nfs-ganesha (NFS 3, MOUNT 1 and 3, NLM 4; real files through FSAL_VFS),
# serving one export on 127.0.0.1.
#
# Usage: qsNFSServer.sh start STATE_DIR NETNS [HOSTS_FILE]
#        qsNFSServer.sh stop  STATE_DIR NETNS
#        qsNFSServer.sh run   STATE_DIR COMMAND [ARG...]
#
# start  serves STATE_DIR/export (emptied, mode 1777) and keeps the server's
#        configuration, logs and process ids in STATE_DIR.  HOSTS_FILE is
#        added to the server's /etc/hosts.
# stop   ends every process of the server and removes its namespace.
# run    runs COMMAND beside the server, where 127.0.0.1 reaches it.
#
# The server lives in a network namespace of its own, named by the caller
# (one per build tree), with a private /run and its own /etc/hosts and name
# service (files only: nothing leaves the machine).  A port mapper's registry
# is one per network namespace, and rpcbind keeps its lock and socket in
# /run: two servers in one namespace would silently take over each other's
# registrations, and a port mapper already running on the machine would
# serve the wrong one.  Root only.  Needs: scripts/deps.sh nfs.
set -euo pipefail

readonly SELF=$(readlink -f "${BASH_SOURCE[0]}")
readonly READY_SECONDS=60

die() {
    echo "qsNFSServer: $*" >&2
    exit 1
}

# A process counts as gone once it is a zombie: orphans may be reaped late.
alive() {
    local state
    state=$(sed 's/^.*) //' "/proc/$1/stat" 2>/dev/null | cut -d' ' -f1) || return 1
    [[ -n $state && $state != Z && $state != X ]]
}

# Waits up to `seconds` for a condition, polling; false when it never held.
await() {
    local seconds=$1
    shift
    local end=$((SECONDS + seconds))
    until "$@"; do
        ((SECONDS < end)) || return 1
        sleep 0.05
    done
}

now() { date +%s.%N; }
elapsed() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.2f", b - a }'; }

# --- start, inside the namespace -------------------------------------------

portmapper() { rpcinfo -p 127.0.0.1 >/dev/null 2>&1; }
registered() { rpcinfo -p 127.0.0.1 2>/dev/null | awk -v p="$1" '$1 == p { f = 1 } END { exit !f }'; }
answers() { rpcinfo -T "$3" 127.0.0.1 "$1" "$2" >/dev/null 2>&1; }
serving() {
    answers 100003 3 tcp && answers 100003 3 udp && answers 100005 3 tcp &&
        answers 100005 3 udp && answers 100021 4 tcp
}

# Starts one daemon in its own session, its output to STATE/<name>.log.
launch() {
    local name=$1
    shift
    setsid "$@" </dev/null >"$state/$name.log" 2>&1 &
    echo "$!" >"$state/$name.pid"
}

gone() { ! alive "$1"; }
ready_or_gone() {
    local pid=$1
    shift
    "$@" || gone "$pid"
}

# A daemon that exits while we wait for it is reported with its last words.
await_daemon() {
    local name=$1
    shift
    local pid
    pid=$(<"$state/$name.pid")
    await "$READY_SECONDS" ready_or_gone "$pid" "$@" || true
    "$@" && return 0
    tail -n 5 "$state/$name.log" >&2 || true
    alive "$pid" || die "$name exited during start-up (log: $state/$name.log)"
    die "$name not ready within ${READY_SECONDS}s (log: $state/$name.log)"
}

inner() {
    state=$1
    # ip netns exec made this mount namespace a slave of the machine's: the
    # private /run stays here.
    mount -t tmpfs -o mode=755 qsnfs /run
    mkdir -p /run/rpcbind /run/lock /run/ganesha
    chown _rpc /run/rpcbind 2>/dev/null || true
    ip link set lo up

    # Not -w (a warm start restores stale registrations) and not -h
    # 127.0.0.1 (rpcbind 1.2.6 then aborts with a double free).
    launch rpcbind rpcbind -f
    await_daemon rpcbind portmapper

    # Without a status monitor every NLM lock is refused.  -L: no reboot
    # notifications; -P: private state (with sm/ and sm.bak/).
    launch statd rpc.statd -F -d -L -P "$state/statd"
    await_daemon statd registered 100024

    # Graceless: otherwise for 90 s NLM refuses locks and SETATTR of a size
    # (create, truncate) fails with NFS3ERR_JUKEBOX.  No Bind_addr: with only
    # a loopback interface Ganesha cannot resolve one.
    cat >"$state/ganesha.conf" <<EOF
NFS_CORE_PARAM {
    Protocols = 3;
    NFS_Port = 2049;
    Enable_NLM = true;
    Enable_RQUOTA = false;
    Enable_UDP = true;
}
NFSv4 {
    Graceless = true;
    RecoveryRoot = "$state/recovery";
}
NFS_KRB5 { Active_krb5 = false; }
EXPORT {
    Export_Id = 1;
    Path = "$state/export";
    Pseudo = "$state/export";
    Protocols = 3;
    Transports = UDP, TCP;
    Access_Type = RW;
    Squash = No_Root_Squash;
    SecType = sys, none;
    # The tests change the exported files directly as well: the server must
    # not answer from attributes it cached before.
    Attr_Expiration_Time = 0;
    FSAL { Name = VFS; }
}
LOG { Default_Log_Level = EVENT; }
EOF
    launch ganesha ganesha.nfsd -F -f "$state/ganesha.conf" -L "$state/ganesha.log" \
        -p "$state/ganesha.nfsd.pid" -N NIV_EVENT
    await_daemon ganesha serving
}

# --- start and stop, outside ----------------------------------------------

netns_exists() { ip netns list | awk '{ print $1 }' | grep -qx -- "$1"; }

# Every process in the namespace is the server's (or a test's that outlived
# its run): the namespace is named after one build tree.  Ganesha goes first,
# while the port mapper it unregisters from is still there.
stop() {
    local state=$1 netns=$2 name pid pids
    if netns_exists "$netns"; then
        for name in ganesha statd rpcbind; do
            pid=$(cat "$state/$name.pid" 2>/dev/null) || continue
            alive "$pid" || continue
            kill -TERM "$pid" 2>/dev/null || true
            await 10 gone "$pid" || kill -KILL "$pid" 2>/dev/null || true
        done
        pids=$(ip netns pids "$netns" 2>/dev/null || true)
        [[ -z $pids ]] || kill -KILL $pids 2>/dev/null || true
        for pid in $pids; do await 10 gone "$pid" || die "process $pid survived SIGKILL"; done
        ip netns delete "$netns"
    fi
    rm -rf "/etc/netns/$netns" "$state/server.env"
}

start() {
    local state=$1 netns=$2 hosts=${3:-} t0 missing=() tool
    t0=$(now)
    [[ $(id -u) == 0 ]] || die "must run as root (namespaces, rpcbind)"
    for tool in rpcbind rpc.statd ganesha.nfsd rpcinfo ip nsenter setsid; do
        command -v "$tool" >/dev/null || missing+=("$tool")
    done
    [[ ${#missing[@]} == 0 ]] || die "missing ${missing[*]}: run scripts/deps.sh nfs"

    stop "$state" "$netns" # a run that ended without its clean-up
    rm -rf "$state"
    mkdir -p "$state/export" "$state/statd/sm" "$state/statd/sm.bak" "$state/recovery"
    chmod 1777 "$state/export"

    # ip netns exec mounts these over /etc for everything it starts.
    mkdir -p "/etc/netns/$netns"
    {
        echo "127.0.0.1 localhost $(uname -n)"
        [[ -z $hosts ]] || cat "$hosts"
    } >"/etc/netns/$netns/hosts"
    echo "multi on" >"/etc/netns/$netns/host.conf"
    printf '%s\n' "passwd: files" "group: files" "shadow: files" "hosts: files" \
        "networks: files" "protocols: files" "services: files" "rpc: files" \
        >"/etc/netns/$netns/nsswitch.conf"

    ip netns add "$netns"
    if ! ip netns exec "$netns" "$SELF" inner "$state"; then
        stop "$state" "$netns"
        exit 1
    fi
    {
        echo "NETNS=$netns"
        echo "SERVER_PID=$(<"$state/ganesha.pid")"
    } >"$state/server.env"
    echo "qsNFSServer: serving $state/export on 127.0.0.1 (namespace $netns), ready in $(elapsed "$t0")s"
}

run() {
    local state=$1
    shift
    [[ -f $state/server.env ]] || die "no NFS test server in $state (start it first)"
    local SERVER_PID NETNS
    source "$state/server.env"
    alive "$SERVER_PID" || die "the NFS test server in $state is not running (log: $state/ganesha.log)"
    exec nsenter --target "$SERVER_PID" --net --mount --wd="$PWD" -- "$@"
}

command=${1:-}
case $command in
start) (($# >= 3)) || die "usage: $0 start STATE_DIR NETNS [HOSTS_FILE]"; start "$2" "$3" "${4:-}" ;;
stop)
    (($# == 3)) || die "usage: $0 stop STATE_DIR NETNS"
    t0=$(now)
    stop "$2" "$3"
    echo "qsNFSServer: stopped in $(elapsed "$t0")s"
    ;;
run) (($# >= 3)) || die "usage: $0 run STATE_DIR COMMAND [ARG...]"; shift; run "$@" ;;
inner) inner "$2" ;;
*) die "usage: $0 start|stop|run STATE_DIR ..." ;;
esac

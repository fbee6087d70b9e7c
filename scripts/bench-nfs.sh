#!/usr/bin/env bash
# Times whole-file reads and writes of one 256 MiB file against the real NFS
# test server: qsnfs cat, get and put over plain TCP, plain UDP and the
# pipelined path, libnfs's nfs-cat and nfs-cp (the reference client), and a
# plain TCP copy over loopback as the limit.  Prints the median MB/s of each
# row (MB = 10^6 bytes) and its ratio to libnfs doing the same thing.
# Usage: scripts/bench-nfs.sh            (QS_BENCH_REPS repetitions, default 5)
# Root only (the server runs in a network namespace).  Not part of the tests.
set -euo pipefail
cd "$(dirname "$0")/.."

readonly SIZE_MIB=256

# --- inside the server's namespace ------------------------------------------

now_ns() { date +%s%N; }

# One timed run of a shell command; the seconds on stdout, or the command's
# last words on stderr and a failure.
timed() {
    local t0 t1 err
    err=$(mktemp)
    t0=$(now_ns)
    if ! bash -c "$1" 2>"$err" >/dev/null; then
        tail -n 1 "$err" >&2
        rm -f "$err"
        return 1
    fi
    t1=$(now_ns)
    rm -f "$err"
    awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.6f\n", (b - a) / 1e9 }'
}

median() { sort -g | awk '{ v[NR] = $1 } END { print NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

port_listening() { ss -Hltn "sport = :$1" | grep -q .; }

# One copy of `file` over loopback TCP to a receiver that drops it, timed
# from the first byte sent to the last byte received.
loopback_once() {
    local file=$1 port=47123 receiver t0 t1
    while port_listening "$port"; do port=$((port + 1)); done
    # Blocks as large as the clients' chunks: socat's default 8 KiB would
    # measure socat, not the loopback.
    socat -u -b 1048576 "TCP-LISTEN:$port,bind=127.0.0.1,reuseaddr" OPEN:/dev/null &
    receiver=$!
    until port_listening "$port"; do kill -0 "$receiver" || return 1; done
    t0=$(now_ns)
    socat -u -b 1048576 "FILE:$file" "TCP:127.0.0.1:$port" || return 1
    wait "$receiver" || return 1
    t1=$(now_ns)
    awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.6f\n", (b - a) / 1e9 }'
}

inner() {
    local tree=$1 export=$2 reps=$3
    local q=$tree/tools/qsnfs/qsnfs work=$tree/bench-nfs
    local src=$export/src.bin dst=$export/dst.bin
    local host=127.0.0.1 url=nfs://127.0.0.1$export
    rm -rf "$work" && mkdir -p "$work"
    head -c "${SIZE_MIB}M" /dev/urandom >"$work/local.bin"
    cp "$work/local.bin" "$src"

    # label | reference row | prepare (untimed) | command | check (untimed)
    local rows=(
        "qsnfs cat, TCP|nfs-cat||$q --proto tcp cat $host:$src|"
        "qsnfs cat, UDP|nfs-cat||$q --proto udp cat $host:$src|"
        "qsnfs cat, pipelined|nfs-cat||$q --pipelined cat $host:$src|"
        "libnfs nfs-cat|nfs-cat||nfs-cat $url/src.bin|"
        "qsnfs get, TCP|nfs-cp read|rm -f $work/got.bin|$q --proto tcp get $host:$src $work/got.bin|cmp -s $src $work/got.bin"
        "qsnfs get, UDP|nfs-cp read|rm -f $work/got.bin|$q --proto udp get $host:$src $work/got.bin|cmp -s $src $work/got.bin"
        "qsnfs get, pipelined|nfs-cp read|rm -f $work/got.bin|$q --pipelined get $host:$src $work/got.bin|cmp -s $src $work/got.bin"
        "libnfs nfs-cp, read|nfs-cp read|rm -f $work/got.bin|nfs-cp $url/src.bin $work/got.bin|cmp -s $src $work/got.bin"
        "qsnfs put, TCP|nfs-cp write|rm -f $dst|$q --proto tcp put $work/local.bin $host:$dst|cmp -s $work/local.bin $dst"
        "qsnfs put, UDP|nfs-cp write|rm -f $dst|$q --proto udp put $work/local.bin $host:$dst|cmp -s $work/local.bin $dst"
        "qsnfs put, pipelined|nfs-cp write|rm -f $dst|$q --pipelined put $work/local.bin $host:$dst|cmp -s $work/local.bin $dst"
        "libnfs nfs-cp, write|nfs-cp write|rm -f $dst|nfs-cp $work/local.bin $url/dst.bin|cmp -s $work/local.bin $dst"
        "loopback TCP (socat), the limit|nfs-cat|||"
    )
    local -A mbs why
    local -A reference=([nfs-cat]="libnfs nfs-cat" [nfs-cp read]="libnfs nfs-cp, read"
        [nfs-cp write]="libnfs nfs-cp, write")
    local row label ref prepare command check i t
    # Rounds, not rows, outermost: a row's repetitions are spread over the
    # run, so that a passing disturbance does not fall on one row alone.
    declare -A samples
    for ((i = 0; i < reps; i++)); do
        for row in "${rows[@]}"; do
            IFS='|' read -r label ref prepare command check <<<"$row"
            [[ -z ${why[$label]:-} ]] || continue
            if [[ $label == loopback* ]]; then
                t=$(loopback_once "$work/local.bin" 2>"$work/why") || t=""
            else
                [[ -z $prepare ]] || bash -c "$prepare"
                t=$(timed "$command" 2>"$work/why") || t=""
                if [[ -n $t && -n $check ]] && ! bash -c "$check"; then
                    echo "the copy differs from the original" >"$work/why"
                    t=""
                fi
            fi
            if [[ -z $t ]]; then
                # The reason, without the "qsnfs: COMMAND PATH: " it starts with.
                why[$label]=$(sed 's/^qsnfs: [a-z]* [^ ]*: //' "$work/why" 2>/dev/null | head -c 120)
                [[ -n ${why[$label]} ]] || why[$label]=failed
                continue
            fi
            samples[$label]+="$t "
        done
    done

    for row in "${rows[@]}"; do
        IFS='|' read -r label ref _ <<<"$row"
        [[ -z ${why[$label]:-} ]] || continue
        t=$(tr ' ' '\n' <<<"${samples[$label]}" | grep . | median)
        mbs[$label]=$(awk -v t="$t" -v m="$SIZE_MIB" 'BEGIN { printf "%.1f", m * 1048576 / t / 1e6 }')
    done

    printf '\n%s MiB, median of %d; ratio: to libnfs doing the same (nfs-cat, or nfs-cp in that direction)\n' \
        "$SIZE_MIB" "$reps"
    printf '%-34s %10s %8s\n' "" "MB/s" "x libnfs"
    for row in "${rows[@]}"; do
        IFS='|' read -r label ref _ <<<"$row"
        if [[ -n ${why[$label]:-} ]]; then
            printf '%-34s %10s %8s  (%s)\n' "$label" "-" "-" "${why[$label]//$'\n'/ }"
            continue
        fi
        local base=${mbs[${reference[$ref]}]:-}
        printf '%-34s %10s %8s\n' "$label" "${mbs[$label]}" \
            "$(awk -v a="${mbs[$label]}" -v b="$base" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "-" }')"
    done
    rm -rf "$work" "$src" "$dst"
}

if [[ ${1:-} == --inner ]]; then
    shift
    inner "$@"
    exit
fi

# --- outside: build, start the server, run, stop -----------------------------

[[ $(id -u) == 0 ]] || { echo "bench-nfs.sh: must run as root (the server's namespace)" >&2; exit 1; }
reps=${QS_BENCH_REPS:-5}
scripts/deps.sh build tools nfs nfsbench
scripts/build.sh build-bench-nfs -DCMAKE_BUILD_TYPE=Release -DQS_BUILD_TESTS=OFF
tree=$PWD/build-bench-nfs
state=$tree/nfs-server
netns=qsnfs-bench-$(printf '%s' "$tree" | md5sum | cut -c1-10)
trap 'tests/nfs/qsNFSServer.sh stop "$state" "$netns" >/dev/null || true' EXIT
tests/nfs/qsNFSServer.sh start "$state" "$netns"
mkdir -p "$tree/bench-logs"
QS_LOG_DIR=$tree/bench-logs tests/nfs/qsNFSServer.sh run "$state" \
    bash "$PWD/scripts/bench-nfs.sh" --inner "$tree" "$state/export" "$reps"

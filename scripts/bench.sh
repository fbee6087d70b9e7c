#!/usr/bin/env bash
# Builds the benchmarks (Release, build-bench/), runs ours, the floor and the
# peers side by side, and prints a table of nanoseconds per message with each
# row's ratio to ours (qsLogPrintfA, append alone).
# Usage: scripts/bench.sh [extra Google Benchmark arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh build bench
scripts/build.sh build-bench -DCMAKE_BUILD_TYPE=Release -DQS_BUILD_BENCH=ON \
    -DQS_BUILD_TESTS=OFF -DQS_BUILD_TOOLS=OFF

out=build-bench/results
rm -rf "$out" && mkdir -p "$out/logs"
export QS_LOG_DIR=$PWD/$out/logs

# The syslog row needs a daemon on /dev/log; start one for this run only if
# none listens and rsyslogd is installed.  Otherwise that row is skipped.
syslogd_pid=""
if [[ ! -S /dev/log ]] && command -v rsyslogd >/dev/null; then
    printf 'module(load="imuxsock")\n*.* %s/syslog.out\n' "$PWD/$out" >"$out/rsyslog.conf"
    rsyslogd -n -f "$out/rsyslog.conf" -i "$PWD/$out/rsyslogd.pid" >/dev/null 2>&1 &
    syslogd_pid=$!
    sleep 1
fi
trap '[[ -n "$syslogd_pid" ]] && kill "$syslogd_pid" 2>/dev/null || true' EXIT

build-bench/bench/benchLogging --benchmark_out="$out/bench.csv" --benchmark_out_format=csv "$@"

echo
awk -F, '
function label(n) {
    if (n ~ /qsLogPrintfA_Append$/) return "ours: qsLogPrintfA, append alone"
    if (n ~ /qsLogPrintfA_Flush16384$/) return "ours: qsLogPrintfA, flush every 16384 (amortized)"
    if (n ~ /ZLogFile_NewRecord$/) return "ours: ZLogFile::NewRecord alone"
    if (n ~ /ZLogFile_NewRecord_Now$/) return "ours: NewRecord with clock, process, thread"
    if (n ~ /Floor_Lock$/) return "floor: ring + lock"
    if (n ~ /Floor_NoLock$/) return "floor: ring, no lock"
    if (n ~ /Floor_Lock_getpid3$/) return "floor: ring + lock, getpid() x3"
    if (n ~ /spdlog_PatternV$/) return "spdlog, file sink, \"%v\""
    if (n ~ /spdlog_Default$/) return "spdlog, file sink, default pattern"
    if (n ~ /spdlog_FlushEach$/) return "spdlog, flush after every message"
    if (n ~ /BM_write$/) return "one write(2) per message"
    if (n ~ /BM_syslog$/) return "syslog(3) to a local daemon"
    if (n ~ /BM_glog$/) return "glog"
    if (n ~ /qsLogPrintfA_Append.*threads:1/) return "ours: 1 thread (wall clock)"
    if (n ~ /qsLogPrintfA_Append.*threads:2/) return "ours: 2 threads, one stream"
    if (n ~ /Floor_Lock_Threads.*threads:1/) return "floor + lock: 1 thread (wall clock)"
    if (n ~ /Floor_Lock_Threads.*threads:2/) return "floor + lock: 2 threads"
    if (n ~ /Processes\/1\//) return "ours: 1 forked process"
    if (n ~ /Processes\/2\//) return "ours: 2 forked processes"
    return n
}
/^name,/ { for (i = 1; i <= NF; i++) col[$i] = i; next }
/^"/ {
    name = $1; gsub(/"/, "", name)
    n++; names[n] = name
    err[name] = $(col["error_occurred"]) == "true" ? $(col["error_message"]) : ""
    ns[name] = $(col["real_time"]); rate[name] = $(col["items_per_second"])
    fail[name] = ("\"failed%\"" in col) ? $(col["\"failed%\""]) : ""
    if (name == "BM_qsLogPrintfA_Append") base = ns[name]
}
END {
    printf "%-52s %12s %10s\n", "one thread, ~60-byte message", "ns/msg", "x ours"
    for (i = 1; i <= n; i++) {
        name = names[i]
        if (name ~ /threads:|Processes/) continue
        if (err[name] != "") { printf "%-52s %12s %10s  (%s)\n", label(name), "-", "-", err[name]; continue }
        printf "%-52s %12.1f %10.2f\n", label(name), ns[name], base ? ns[name] / base : 0
    }
    printf "\n%-52s %12s %10s %9s\n", "throughput", "msgs/s", "x one", "failed%"
    one = rate["BM_qsLogPrintfA_Append"]
    for (i = 1; i <= n; i++) {
        name = names[i]
        if (name !~ /threads:|Processes/) continue
        # Two threads against one thread of the same pair, two processes
        # against one: ratios within one run, by the same clock.
        single = name; sub(/threads:2/, "threads:1", single)
        ref = name ~ /threads:/ ? rate[single] : name ~ /Processes\/2/ ? rate[proc1] : one
        if (name ~ /Processes\/1\//) proc1 = name
        printf "%-52s %12.0f %10.2f %9s\n", label(name), rate[name], ref ? rate[name] / ref : 0, fail[name]
    }
}' "$out/bench.csv"

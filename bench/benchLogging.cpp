// The logging library against its peers and against the floor, one thread
// per row unless the row says otherwise.  Every row logs the same message of
// about 60 bytes: "qsProcess::Wait: watched process <pid> exited with
// status <n>."
//
// Rows (scripts/bench.sh turns them into a table against ours):
//   ours   qsLogPrintfA on a stream that never flushes (the append alone),
//          on a default stream (flush every 16384 records, amortized),
//          ZLogFile::NewRecord alone (placement only, and with clock/ids);
//   floor  a minimal ring laid out like ours, with its lock and without, and
//          with getpid() called three times per message, as an appender
//          that does not cache the process id must;
//   peers  spdlog (pattern "%v", default pattern, flush after every
//          message), one write(2) per message, syslog(3) when a daemon
//          listens on /dev/log, glog;
//   scale  two threads, and one or two forked processes, on one stream.
//
// Log files go under $QS_LOG_DIR (scripts/bench.sh points it at the build
// tree): the library opens its default streams there before main.
#include "ZLogFile.h"
#include "ZLogStream.h"
#include "floorRing.h"
#include "qsLog.h"
#include "qsLogState.h"

#include <benchmark/benchmark.h>
#include <glog/logging.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <atomic>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <vector>

// "%hs" is this system's spelling of a narrow string in log formats; the
// compiler's format check takes the 'h' for undefined, so its format
// warnings are off in this file, whose log calls all use it.
#pragma GCC diagnostic ignored "-Wformat"

namespace {

#define MSG_FORMAT "%hs: watched process %d exited with status %d."
constexpr const char* kWhere = "qsProcess::Wait";
constexpr uint32_t kFileKB = 4096; // the default streams' size

int PidArg(int64_t i) {
    return 10000 + int(i & 0x3FFF);
}
int StatusArg(int64_t i) {
    return int(i & 7);
}

std::string BenchDir() {
    const char* dir = getenv("QS_LOG_DIR");
    std::string d = dir && *dir == '/' ? dir : "/tmp/qs-bench";
    mkdir(d.c_str(), 0755);
    d += "/bench";
    mkdir(d.c_str(), 0755);
    return d;
}

// A stream of the default size whose flush interval is never reached: the
// append alone.  Filled once so that every page is resident, as in a log
// that has been running for a while.
ZLogStream* AppendOnlyStream() {
    static ZLogStream* stream = [] {
        auto* s = new ZLogStream(BenchDir().c_str(), "AppendOnly.log", kFileKB, 0xFFFFFFFF, true);
        for (int i = 0; s->IsValid() && i < 100000; i++)
            s->PrintString("warming up every page of the mapping, once, before measuring", 0,
                           qsLogSevNormal, 0);
        return s;
    }();
    return stream;
}

void Warm(ZLogStream* stream) {
    static bool done = false;
    for (int i = 0; !done && stream && i < 100000; i++)
        qsLogPrintfA(0, qsLogSevNormal, MSG_FORMAT, kWhere, PidArg(i), StatusArg(i));
    done = true;
}

void RunPrintf(benchmark::State& state, ZLogStream* stream) {
    if (!stream || !stream->IsValid()) {
        state.SkipWithError("log stream not open (is QS_LOG_DIR writable?)");
        return;
    }
    ZLogStream* saved = g_pZLogStreamDefault;
    if (state.thread_index() == 0)
        g_pZLogStreamDefault = stream;
    int64_t i = 0, failed = 0;
    for (auto _ : state) {
        qsStatus s = qsLogPrintfA(0, qsLogSevNormal, MSG_FORMAT, kWhere, PidArg(i), StatusArg(i));
        failed += qsFailed(s);
        i++;
    }
    state.SetItemsProcessed(i - failed);
    state.counters["failed%"] = benchmark::Counter(100.0 * double(failed) / double(i ? i : 1),
                                                   benchmark::Counter::kAvgThreads);
    if (state.thread_index() == 0)
        g_pZLogStreamDefault = saved;
}

void BM_qsLogPrintfA_Append(benchmark::State& state) {
    RunPrintf(state, AppendOnlyStream());
}
BENCHMARK(BM_qsLogPrintfA_Append);

void BM_qsLogPrintfA_Flush16384(benchmark::State& state) {
    Warm(g_pZLogStreamDefault);
    RunPrintf(state, g_pZLogStreamDefault);
}
BENCHMARK(BM_qsLogPrintfA_Flush16384);

// Placement only: header bookkeeping and the record header, no payload copy.
void BM_ZLogFile_NewRecord(benchmark::State& state) {
    std::vector<uint32_t> image(kFileKB * 256);
    auto* file = new (image.data()) ZLogFile(kFileKB);
    FILETIME t{};
    void* payload;
    for (auto _ : state) {
        benchmark::DoNotOptimize(file->NewRecord(t, 1, 2, LOGREC_STRING_A, 0, 68, &payload));
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ZLogFile_NewRecord);

void BM_ZLogFile_NewRecord_Now(benchmark::State& state) {
    std::vector<uint32_t> image(kFileKB * 256);
    auto* file = new (image.data()) ZLogFile(kFileKB);
    void* payload;
    for (auto _ : state) {
        benchmark::DoNotOptimize(file->NewRecord(LOGREC_STRING_A, 0, 68, &payload));
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ZLogFile_NewRecord_Now);

FloorRing& Floor() {
    static FloorRing ring(BenchDir() + "/floor.log", kFileKB << 10);
    return ring;
}

void RunFloor(benchmark::State& state, bool lock, FloorRing::PidMode pid) {
    FloorRing& ring = Floor();
    int64_t i = 0;
    for (auto _ : state) {
        ring.Printf(lock, pid, 0, MSG_FORMAT, kWhere, PidArg(i), StatusArg(i));
        i++;
    }
    state.SetItemsProcessed(i);
}
void BM_Floor_Lock(benchmark::State& s) {
    RunFloor(s, true, FloorRing::kPidCached);
}
void BM_Floor_NoLock(benchmark::State& s) {
    RunFloor(s, false, FloorRing::kPidCached);
}
void BM_Floor_Lock_getpid3(benchmark::State& s) {
    RunFloor(s, true, FloorRing::kPidEachCall);
}
BENCHMARK(BM_Floor_Lock);
BENCHMARK(BM_Floor_NoLock);
BENCHMARK(BM_Floor_Lock_getpid3);

// The multi-writer rows run before the peers that write hundreds of megabytes
// through the page cache: the kernel's write-back of those takes a core for a
// while afterwards.
// Two threads of one process on one stream: messages that landed per second
// (items_per_second), and the share of calls that failed (failed%).  Each
// pair of rows is measured by the wall clock, one thread then two, so that
// the ratio holds on a machine whose cores are busy with other work.
BENCHMARK(BM_qsLogPrintfA_Append)->Threads(1)->UseRealTime();
BENCHMARK(BM_qsLogPrintfA_Append)->Threads(2)->UseRealTime();
void BM_Floor_Lock_Threads(benchmark::State& s) {
    RunFloor(s, true, FloorRing::kPidCached);
}
BENCHMARK(BM_Floor_Lock_Threads)->Threads(1)->UseRealTime();
BENCHMARK(BM_Floor_Lock_Threads)->Threads(2)->UseRealTime();

// N processes forked after the stream was opened, each appending a fixed
// number of messages: messages that landed per second over all of them.
void BM_qsLogPrintfA_Processes(benchmark::State& state) {
    ZLogStream* stream = AppendOnlyStream();
    if (!stream->IsValid()) {
        state.SkipWithError("log stream not open");
        return;
    }
    const int processes = int(state.range(0));
    constexpr int kPerProcess = 50000;
    auto* landed = static_cast<std::atomic<int64_t>*>(
        mmap(nullptr, sizeof(std::atomic<int64_t>) * 2, PROT_READ | PROT_WRITE,
             MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    new (landed) std::atomic<int64_t>(0);
    new (landed + 1) std::atomic<int64_t>(0);
    ZLogStream* saved = g_pZLogStreamDefault;
    g_pZLogStreamDefault = stream;
    for (auto _ : state) {
        std::vector<pid_t> children;
        for (int p = 0; p < processes; p++) {
            pid_t pid = fork();
            if (pid == 0) {
                int64_t ok = 0, failed = 0;
                for (int i = 0; i < kPerProcess; i++) {
                    qsStatus s = qsLogPrintfA(0, qsLogSevNormal, MSG_FORMAT, kWhere, PidArg(i),
                                              StatusArg(i));
                    qsFailed(s) ? failed++ : ok++;
                }
                landed[0] += ok;
                landed[1] += failed;
                _exit(0);
            }
            children.push_back(pid);
        }
        for (pid_t pid : children)
            waitpid(pid, nullptr, 0);
    }
    g_pZLogStreamDefault = saved;
    int64_t ok = landed[0], failed = landed[1];
    state.SetItemsProcessed(ok);
    state.counters["failed%"] = 100.0 * double(failed) / double(ok + failed ? ok + failed : 1);
    munmap(landed, sizeof(std::atomic<int64_t>) * 2);
}
BENCHMARK(BM_qsLogPrintfA_Processes)->Arg(1)->Arg(2)->Iterations(10)->UseRealTime();


void RunSpdlog(benchmark::State& state, const char* name, const char* pattern, bool flushEach) {
    auto logger = spdlog::basic_logger_mt(name, BenchDir() + "/" + name + ".log", true);
    if (pattern)
        logger->set_pattern(pattern);
    if (flushEach)
        logger->flush_on(spdlog::level::info);
    int64_t i = 0;
    for (auto _ : state) {
        logger->info("{}: watched process {} exited with status {}.", kWhere, PidArg(i),
                     StatusArg(i));
        i++;
    }
    logger->flush();
    spdlog::drop(name);
    state.SetItemsProcessed(i);
}
void BM_spdlog_PatternV(benchmark::State& s) {
    RunSpdlog(s, "spdlog_v", "%v", false);
}
void BM_spdlog_Default(benchmark::State& s) {
    RunSpdlog(s, "spdlog_default", nullptr, false);
}
void BM_spdlog_FlushEach(benchmark::State& s) {
    RunSpdlog(s, "spdlog_flush", nullptr, true);
}
BENCHMARK(BM_spdlog_PatternV);
BENCHMARK(BM_spdlog_Default);
BENCHMARK(BM_spdlog_FlushEach);

void BM_write(benchmark::State& state) {
    std::string path = BenchDir() + "/write.log";
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0644);
    int64_t i = 0;
    for (auto _ : state) {
        char text[1017];
        int n = snprintf(text, sizeof text, "%s: watched process %d exited with status %d.\n",
                         kWhere, PidArg(i), StatusArg(i));
        benchmark::DoNotOptimize(write(fd, text, size_t(n)));
        i++;
    }
    close(fd);
    state.SetItemsProcessed(i);
}
BENCHMARK(BM_write);

bool SyslogListening() {
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, "/dev/log");
    bool ok = fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    if (fd >= 0)
        close(fd);
    return ok;
}

void BM_syslog(benchmark::State& state) {
    if (!SyslogListening()) {
        state.SkipWithError("no syslog daemon listening on /dev/log");
        return;
    }
    openlog("qsbench", LOG_NDELAY, LOG_USER);
    int64_t i = 0;
    for (auto _ : state) {
        syslog(LOG_INFO, "%s: watched process %d exited with status %d.", kWhere, PidArg(i),
               StatusArg(i));
        i++;
    }
    closelog();
    state.SetItemsProcessed(i);
}
void BM_glog(benchmark::State& state) {
    static bool init = [] {
        FLAGS_log_dir = BenchDir();
        FLAGS_logtostderr = false;
        FLAGS_alsologtostderr = false;
        FLAGS_stderrthreshold = google::GLOG_FATAL;
        google::InitGoogleLogging("qsbench");
        return true;
    }();
    (void)init;
    int64_t i = 0;
    for (auto _ : state) {
        LOG(INFO) << kWhere << ": watched process " << PidArg(i) << " exited with status "
                  << StatusArg(i) << ".";
        i++;
    }
    google::FlushLogFiles(google::GLOG_INFO);
    state.SetItemsProcessed(i);
}
BENCHMARK(BM_glog);

// Registered last: the daemon goes on draining its queue after this run and
// would take a core from the multi-writer rows.
BENCHMARK(BM_syslog);

} // namespace

BENCHMARK_MAIN();

// Running the real qslog in tests, and making log files for it to read.
#pragma once

#include "ZLogStream.h"
#include "qsBitUtils.h"
#include "qsTestSupport.h"
#include "qsWinApi.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace qsTest {

struct RunResult {
    int status = -1; // exit code, or 128 + signal
    std::string out;
    std::string err;

    std::vector<std::string> Lines() const {
        std::vector<std::string> lines;
        std::istringstream in(out);
        for (std::string line; std::getline(in, line);)
            lines.push_back(line);
        return lines;
    }
};

// Environment changes for a child: a value sets the variable, nullopt removes it.
using EnvChanges = std::map<std::string, std::optional<std::string>>;

// A qslog process with its standard output and error on pipes (or its
// standard output on a terminal when `stdoutFd` is given).
class QslogProcess {
public:
    QslogProcess(const std::vector<std::string>& args, const EnvChanges& env = {},
                 int stdoutFd = -1) {
        int out[2], err[2];
        if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe failed");
        m_Pid = fork();
        if (m_Pid == 0) {
            dup2(stdoutFd >= 0 ? stdoutFd : out[1], STDOUT_FILENO);
            dup2(err[1], STDERR_FILENO);
            for (const auto& [name, value] : env) {
                if (value)
                    setenv(name.c_str(), value->c_str(), 1);
                else
                    unsetenv(name.c_str());
            }
            std::vector<char*> argv;
            argv.push_back(const_cast<char*>(QSLOG_PATH));
            for (const std::string& a : args)
                argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            execv(QSLOG_PATH, argv.data());
            _exit(127);
        }
        close(out[1]);
        close(err[1]);
        m_Out = out[0];
        m_Err = err[0];
    }
    ~QslogProcess() {
        if (m_Pid > 0 && m_Status < 0) {
            kill(m_Pid, SIGKILL);
            Wait(std::chrono::seconds(5));
        }
        close(m_Out);
        close(m_Err);
    }
    QslogProcess(const QslogProcess&) = delete;
    QslogProcess& operator=(const QslogProcess&) = delete;

    // Reads what is available within `timeout`; true when something came or
    // both pipes closed.
    bool Pump(std::chrono::milliseconds timeout) {
        struct pollfd fds[2] = {{m_Out, POLLIN, 0}, {m_Err, POLLIN, 0}};
        int n = poll(fds, 2, int(timeout.count()));
        if (n <= 0)
            return false;
        bool any = false;
        for (int i = 0; i < 2; ++i) {
            if (!(fds[i].revents & (POLLIN | POLLHUP)))
                continue;
            char buf[65536];
            ssize_t got = read(fds[i].fd, buf, sizeof buf);
            if (got > 0) {
                (i == 0 ? m_Result.out : m_Result.err).append(buf, size_t(got));
                any = true;
            } else if (got == 0) {
                fds[i].fd = -1;
                (i == 0 ? m_OutClosed : m_ErrClosed) = true;
            }
        }
        return any;
    }
    // Reads until `done` holds for the output so far or `timeout` passes.
    bool ReadUntil(const std::function<bool(const std::string&)>& done,
                   std::chrono::milliseconds timeout) {
        auto end = std::chrono::steady_clock::now() + timeout;
        while (!done(m_Result.out)) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                end - std::chrono::steady_clock::now());
            if (left.count() <= 0 || (m_OutClosed && m_ErrClosed))
                return done(m_Result.out);
            Pump(std::min(left, std::chrono::milliseconds(50)));
        }
        return true;
    }
    bool ReadUntilContains(const std::string& needle, std::chrono::milliseconds timeout) {
        return ReadUntil([&](const std::string& s) { return s.find(needle) != std::string::npos; },
                         timeout);
    }
    void Signal(int sig) { kill(m_Pid, sig); }
    // Collects the remaining output and the exit status; -1 on time-out.
    int Wait(std::chrono::milliseconds timeout) {
        auto end = std::chrono::steady_clock::now() + timeout;
        while (m_Status < 0) {
            int st;
            pid_t r = waitpid(m_Pid, &st, WNOHANG);
            if (r == m_Pid) {
                m_Status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
                break;
            }
            if (std::chrono::steady_clock::now() > end)
                return -1;
            Pump(std::chrono::milliseconds(20));
        }
        while (!(m_OutClosed && m_ErrClosed) && Pump(std::chrono::milliseconds(200))) {
        }
        m_Result.status = m_Status;
        return m_Status;
    }
    const RunResult& Result() const { return m_Result; }
    pid_t Pid() const { return m_Pid; }

private:
    pid_t m_Pid = -1;
    int m_Out = -1, m_Err = -1;
    bool m_OutClosed = false, m_ErrClosed = false;
    int m_Status = -1;
    RunResult m_Result;
};

// Runs qslog to the end (at most 20 s).
inline RunResult RunQslog(const std::vector<std::string>& args, const EnvChanges& env = {}) {
    QslogProcess p(args, env);
    p.Wait(std::chrono::seconds(20));
    return p.Result();
}

// A live log stream of sizeKB in `dir` (created when missing); a new file
// starts with a start record unless `startRecord` is false.
inline std::unique_ptr<ZLogStream> OpenLog(const std::string& dir, const std::string& name,
                                           DWORD sizeKB, bool startRecord = true) {
    std::filesystem::create_directories(dir);
    auto s = std::make_unique<ZLogStream>(dir.c_str(), name.c_str(), sizeKB, 16384, startRecord);
    if (!s->IsValid())
        throw std::runtime_error("cannot open log " + dir + "/" + name);
    return s;
}

// A narrow message record with a given time and process, as the library
// lays it out: code, severity, then the text.
inline qsStatus WriteMessageAt(ZLogStream& log, uint64_t filetime, DWORD pid, int32_t severity,
                               int32_t code, const std::string& text) {
    std::vector<unsigned char> payload(8 + text.size());
    memcpy(payload.data(), &code, 4);
    memcpy(payload.data() + 4, &severity, 4);
    memcpy(payload.data() + 8, text.data(), text.size());
    return log.WriteRec(payload.data(), DWORD(payload.size()), qsUInt64ToFileTime(filetime), pid, 7,
                        LOGREC_STRING_A, 0);
}

inline uint64_t NowFileTime() {
    FILETIME ft;
    GetSystemTimeAsFileTime(&ft);
    return qsFileTimeToUInt64(ft);
}

constexpr uint64_t kMinute = 60ULL * 10000000ULL;

// The offsets of every intact record of a native-order image, newest first,
// found with the library's own walk.
inline std::vector<DWORD> RecordOffsets(const std::vector<uint8_t>& bytes) {
    std::vector<DWORD> offsets;
    auto* file = reinterpret_cast<const ZLogFile*>(bytes.data());
    for (const ZLogRec* r = file->LastRec(); r && r != static_cast<const void*>(file);
         r = file->PrevRec(r))
        offsets.push_back(file->OffsetOf(r));
    return offsets;
}

inline void SwapWord(std::vector<uint8_t>& b, size_t at) {
    uint32_t w;
    memcpy(&w, b.data() + at, 4);
    w = qsBitUtils::ReverseEndiannessOf(w);
    memcpy(b.data() + at, &w, 4);
}

// The same log as written by a machine of the other byte order: every header
// field and every field of every intact record reversed, the timestamp as
// one 64-bit value, the payload by type (wide text unit by unit).
inline std::vector<uint8_t> ByteSwapped(std::vector<uint8_t> b) {
    std::vector<DWORD> offsets = RecordOffsets(b);
    for (DWORD off : offsets) {
        const auto* rec = reinterpret_cast<const ZLogRec*>(b.data() + off);
        DWORD size = rec->GetRecSize();
        qsLogRecType type = rec->GetRecInfoType();
        uint64_t t;
        memcpy(&t, b.data() + off + 8, 8);
        t = qsBitUtils::ReverseEndiannessOf(t);
        memcpy(b.data() + off + 8, &t, 8);
        for (size_t field : {0, 4, 16, 20, 24, 28, 32, 36})
            SwapWord(b, off + field);
        size_t payload = off + LOG_REC_HEADER_SIZE, payloadSize = size - LOG_REC_HEADER_SIZE;
        if (type == LOGREC_STRING_A || type == LOGREC_STRING_W || type == LOGREC_RESIZE)
            for (size_t i = 0; i < 2 && (i + 1) * 4 <= payloadSize; ++i)
                SwapWord(b, payload + i * 4);
        if (type == LOGREC_STRING_W)
            for (size_t i = 8; i + 4 <= payloadSize; i += 4)
                SwapWord(b, payload + i);
    }
    for (size_t i = 0; i < 7; ++i)
        SwapWord(b, i * 4);
    return b;
}

// The ids qslog printed in short form, in order.
inline std::vector<DWORD> PrintedIds(const std::string& out) {
    std::vector<DWORD> ids;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        size_t hash = line.find("] #");
        if (hash != std::string::npos)
            ids.push_back(DWORD(strtoul(line.c_str() + hash + 3, nullptr, 10)));
    }
    return ids;
}

inline size_t CountOf(const std::string& s, const std::string& needle) {
    size_t n = 0;
    for (size_t at = s.find(needle); at != std::string::npos; at = s.find(needle, at + 1))
        ++n;
    return n;
}

} // namespace qsTest

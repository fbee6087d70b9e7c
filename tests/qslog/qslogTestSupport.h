// Running the real qslog in tests, and making log files for it to read.
#pragma once

#include "ZLogStream.h"
#include "qsBitUtils.h"
#include "qsTestSupport.h"
#include "qsWinApi.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace qsTest {

using namespace std::chrono_literals;

// Environment changes for a child: a value sets the variable, nullopt removes it.
using EnvChanges = std::map<std::string, std::optional<std::string>>;

inline bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Polls `done` every 10 ms for at most `timeout`.
template <typename Pred> bool Until(Pred done, std::chrono::milliseconds timeout = 10s) {
    for (auto end = std::chrono::steady_clock::now() + timeout; !done(); usleep(10000)) {
        if (std::chrono::steady_clock::now() > end)
            return false;
    }
    return true;
}

inline std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// A qslog process writing its standard output and error to files, which a
// test reads as they grow.
class QslogProcess {
public:
    explicit QslogProcess(const std::vector<std::string>& args, const EnvChanges& env = {}) {
        std::vector<char*> argv{const_cast<char*>(QSLOG_PATH)};
        for (const std::string& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        m_Pid = fork();
        if (m_Pid != 0)
            return;
        dup2(open((m_Dir / "out").c_str(), O_WRONLY | O_CREAT, 0600), STDOUT_FILENO);
        dup2(open((m_Dir / "err").c_str(), O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
        for (const auto& [name, value] : env)
            value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
        execv(QSLOG_PATH, argv.data());
        _exit(127);
    }
    ~QslogProcess() {
        if (status < 0) {
            kill(m_Pid, SIGKILL);
            waitpid(m_Pid, nullptr, 0);
        }
    }

    std::string Out() const { return ReadFileText(m_Dir / "out"); }
    std::string Err() const { return ReadFileText(m_Dir / "err"); }
    bool ReadUntilContains(const std::string& part) {
        return Until([&] { return Has(Out(), part); });
    }
    void Signal(int sig) { kill(m_Pid, sig); }
    // The exit status (128 + signal when killed); -1 on time-out.
    int Wait(std::chrono::milliseconds timeout) {
        int st;
        if (!Until([&] { return waitpid(m_Pid, &st, WNOHANG) == m_Pid; }, timeout))
            return -1;
        return status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    }

    int status = -1;

private:
    TempDir m_Dir{"qslog"};
    pid_t m_Pid = -1;
};

// Runs qslog to the end (at most 20 s).
struct RunResult {
    int status;
    std::string out, err;
    std::vector<std::string> lines;
};
inline RunResult RunQslog(const std::vector<std::string>& args, const EnvChanges& env = {}) {
    QslogProcess p(args, env);
    p.Wait(20s);
    std::string out = p.Out();
    return {p.status, out, p.Err(), Lines(out)};
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

template <typename T> void Swap(std::vector<uint8_t>& b, size_t at) {
    T v;
    memcpy(&v, b.data() + at, sizeof v);
    v = qsBitUtils::ReverseEndiannessOf(v);
    memcpy(b.data() + at, &v, sizeof v);
}

// The same log as written by a machine of the other byte order: every header
// field and every field of every intact record reversed, the timestamp as
// one 64-bit value, the payload by type (wide text unit by unit).
inline std::vector<uint8_t> ByteSwapped(std::vector<uint8_t> b) {
    for (DWORD off : RecordOffsets(b)) {
        const auto* rec = reinterpret_cast<const ZLogRec*>(b.data() + off);
        size_t units = (rec->GetRecSize() - LOG_REC_HEADER_SIZE) / 4;
        qsLogRecType type = rec->GetRecInfoType();
        if (type == LOGREC_STRING_A || type == LOGREC_RESIZE)
            units = std::min<size_t>(units, 2);
        else if (type != LOGREC_STRING_W)
            units = 0;
        for (size_t i = 0; i < units; ++i)
            Swap<uint32_t>(b, off + LOG_REC_HEADER_SIZE + 4 * i);
        for (size_t field : {0, 4, 16, 20, 24, 28, 32, 36})
            Swap<uint32_t>(b, off + field);
        Swap<uint64_t>(b, off + 8);
    }
    for (size_t i = 0; i < 7; ++i)
        Swap<uint32_t>(b, i * 4);
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

} // namespace qsTest

#include "stressWriters.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

namespace qsStress {

int Scaled(int count) {
    const char* s = getenv("QS_STRESS_SCALE");
    double scale = s ? atof(s) : 1.0;
    int n = int(count * (scale > 0 ? scale : 1.0));
    return n > 0 ? n : 1;
}

std::string MessageText(int writer, int seq) {
    std::string text = "w" + std::to_string(writer) + " #" + std::to_string(seq) + " ";
    size_t filler = size_t((int64_t(seq) * 7919 + writer * 31) % 301);
    text.append(filler, char('a' + (seq + writer) % 26));
    return text;
}

bool ParseMessage(const std::string& text, int* writer, int* seq) {
    if (sscanf(text.c_str(), "w%d #%d ", writer, seq) != 2)
        return false;
    return text == MessageText(*writer, *seq);
}

namespace {

// Half the messages go through the formatting path, half as plain strings.
qsStatus Append(ZLogStream& stream, int writer, int seq) {
    std::string text = MessageText(writer, seq);
    if (seq % 2)
        return stream.PrintString(text.c_str(), writer, qsLogSevNormal, 0);
    auto print = [&](const char* format, ...) {
        va_list args;
        va_start(args, format);
        qsStatus s = stream.vPrintf(writer, qsLogSevNormal, 0, format, args);
        va_end(args);
        return s;
    };
    size_t space = text.find(' ', text.find(' ') + 1);
    return print("%hs%hs", text.substr(0, space + 1).c_str(), text.c_str() + space + 1);
}

} // namespace

pid_t ForkWriter(ZLogStream& stream, int writer, int count, WriterReport* report, bool giveUp) {
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    int failuresInRow = 0;
    for (int seq = 0; seq < count; seq++) {
        auto start = std::chrono::steady_clock::now();
        qsStatus s = Append(stream, writer, seq);
        if (qsSucceeded(s)) {
            report->landed++;
            failuresInRow = 0;
            continue;
        }
        failuresInRow++;
        int64_t us = std::chrono::duration_cast<std::chrono::microseconds>(
                         std::chrono::steady_clock::now() - start)
                         .count();
        if (us > report->slowestFailureUs)
            report->slowestFailureUs = us;
        report->lastCode = s;
        if (s == QS_W_TIMEOUT)
            report->timedOut++;
        else if (s == QS_E_WAIT_FAILED)
            report->waitFailed++;
        else
            report->otherFailed++;
        if (giveUp && (us >= 400000 || failuresInRow >= 100000)) {
            report->gaveUp = true;
            break;
        }
    }
    report->done = true;
    _exit(0);
}

WriterReport* SharedReports(int n) {
    void* p = mmap(nullptr, sizeof(WriterReport) * size_t(n), PROT_READ | PROT_WRITE,
                   MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED)
        abort();
    auto* reports = static_cast<WriterReport*>(p);
    for (int i = 0; i < n; i++)
        new (reports + i) WriterReport();
    return reports;
}

void FreeReports(WriterReport* reports, int n) {
    munmap(reports, sizeof(WriterReport) * size_t(n));
}

} // namespace qsStress

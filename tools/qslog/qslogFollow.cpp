#include "qslogFollow.h"

#include "qslogOptions.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

namespace qslog {

Follower::Follower(LogSource& source, int file, const std::vector<Entry>& seen)
    : m_Source(source), m_File(file) {
    for (auto it = seen.rbegin(); it != seen.rend(); ++it)
        if (it->file == file && !it->IsGap()) {
            Remember(it->rec);
            break;
        }
}

void Follower::Remember(const Record& r) {
    m_HaveLast = true;
    m_LastId = r.Id();
    m_LastTime = r.Time();
    m_LastPid = r.info.GetProcessId();
    m_LastTid = r.info.GetThreadId();
    m_LastType = r.Type();
}

bool Follower::SameAsLast(const Record& r) const {
    return m_HaveLast && r.Time() == m_LastTime && r.info.GetProcessId() == m_LastPid &&
           r.info.GetThreadId() == m_LastTid && r.Type() == m_LastType;
}

Follower::Poll Follower::Check(std::vector<Entry>& fresh, DWORD& lost) {
    fresh.clear();
    lost = 0;
    if (m_Source.Fd() < 0) {
        if (m_Source.Open())
            return Poll::Appeared;
        return m_Source.Missing() ? Poll::Quiet : Poll::Failed;
    }
    struct stat st;
    if (stat(m_Source.Path().c_str(), &st) != 0 || st.st_dev != m_Source.Device() ||
        st.st_ino != m_Source.Inode())
        return Poll::Replaced;

    const int fd = m_Source.Fd();
    uint8_t header[LOG_FILE_HEADER_SIZE];
    // A short header is a writer re-initialising the file: look again later.
    if (pread(fd, header, sizeof header, 0) != ssize_t(sizeof header))
        return Poll::Quiet;
    if (!m_Pending && memcmp(header, m_Header, sizeof header) == 0)
        return Poll::Quiet;

    LogImage image;
    if (image.Read(fd) != LogImage::Load::Ok)
        return Poll::Quiet;
    memcpy(m_Header, header, sizeof header);

    std::vector<Entry> got;
    CollectRecords(image, m_HaveLast && m_LastId > 0 ? m_LastId - 1 : 0, m_File, got);
    Confirm confirm = ConfirmWithFile(fd, image, got);
    // Gone round the whole file while we copied it: copy again next time.
    if (confirm == Confirm::Overrun) {
        m_Pending = true;
        return Poll::Quiet;
    }
    m_Pending = confirm != Confirm::Whole;

    auto firstRecord = [&]() -> const Entry* {
        for (const Entry& e : got)
            if (!e.IsGap())
                return &e;
        return nullptr;
    };
    const DWORD count = image.File()->RecordCount();
    size_t start = 0;
    if (m_HaveLast) {
        const Entry* first = firstRecord();
        bool restarted =
            count < m_LastId || (first && first->rec.Id() == m_LastId && !SameAsLast(first->rec));
        if (restarted) {
            got.clear();
            CollectRecords(image, 0, m_File, got);
            m_Pending = ConfirmWithFile(fd, image, got) != Confirm::Whole;
            start = 0;
            for (size_t i = got.size(); i-- > 0;)
                if (!got[i].IsGap() && SameAsLast(got[i].rec)) {
                    start = i + 1;
                    break;
                }
        } else if (first && first->rec.Id() == m_LastId) {
            start = size_t(first - got.data()) + 1;
        } else if (first && first->rec.Id() > m_LastId + 1) {
            lost = first->rec.Id() - m_LastId - 1;
        }
    }
    fresh.assign(got.begin() + ptrdiff_t(std::min(start, got.size())), got.end());

    // The newest record is printed once a newer one exists, or once its bytes
    // stayed the same from one poll to the next: until then its writer may
    // still be copying it in.
    if (!fresh.empty() && !fresh.back().IsGap() && fresh.back().rec.Id() == count) {
        const Record& r = fresh.back().rec;
        std::string bytes(reinterpret_cast<const char*>(image.Bytes() + r.offset), r.recSize);
        if (bytes != m_Held) {
            m_Held.swap(bytes);
            m_Pending = true;
            fresh.pop_back();
        } else {
            m_Held.clear();
        }
    }
    for (auto it = fresh.rbegin(); it != fresh.rend(); ++it)
        if (!it->IsGap()) {
            Remember(it->rec);
            break;
        }
    m_Image = std::move(image);
    return fresh.empty() && lost == 0 ? Poll::Quiet : Poll::Fresh;
}

int FollowLoop(std::vector<Follower>& followers, const Filter& filter, Formatter& format,
               Writer& out, volatile sig_atomic_t& stop) {
    std::vector<bool> active(followers.size(), true);
    size_t left = followers.size();
    std::vector<Entry> fresh;
    std::string text;
    int status = kExitOk;
    auto note = [&](const Follower& f, const std::string& what) {
        out.Flush();
        fprintf(stderr, "qslog: %s: %s\n", f.Source().Name().c_str(), what.c_str());
    };
    while (!stop && left > 0) {
        for (size_t i = 0; i < followers.size() && !stop; ++i) {
            if (!active[i])
                continue;
            DWORD lost = 0;
            Follower::Poll p = followers[i].Check(fresh, lost);
            if (p == Follower::Poll::Appeared) {
                note(followers[i], "has appeared; following it");
                p = followers[i].Check(fresh, lost);
            }
            if (p == Follower::Poll::Replaced || p == Follower::Poll::Failed) {
                if (p == Follower::Poll::Replaced) {
                    note(followers[i], "removed or replaced, no longer followed");
                } else {
                    note(followers[i], followers[i].Source().Error());
                    status = std::max(status, followers[i].Source().Status());
                }
                active[i] = false;
                --left;
                continue;
            }
            if (lost)
                format.PutLost(out, lost, followers[i].File());
            for (const Entry& e : fresh)
                if (e.IsGap() || filter.Matches(e.rec, text))
                    format.Put(out, e);
        }
        if (!out.Flush())
            return stop ? status : kExitDamaged;
        if (stop || left == 0)
            break;
        struct timespec pause = {0, long(kPollIntervalMs) * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
    return status;
}

} // namespace qslog

// cat, get and put: whole files between the server and local descriptors.
#include "qsNFSStatus.h"
#include "qsnfsProgress.h"
#include "qsnfsTool.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace qsnfs {

using qsNFSUtils::DirEntry;
using qsNFSUtils::NFSBrowse;

namespace {

// Large enough that the per-call costs (one COMMIT per Write) vanish in the
// transfer, small enough to keep a progress bar moving.
constexpr uint32_t kChunk = 8 << 20;

bool Failed(int32_t code) {
    return qsFailed(qsStatus(code));
}

bool WriteAll(int fd, const uint8_t* data, size_t size) {
    while (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= size_t(n);
    }
    return true;
}

// Fills `buffer` unless the input ends first; -1 on a read error.
ssize_t ReadFull(int fd, uint8_t* buffer, size_t size) {
    size_t got = 0;
    while (got < size) {
        ssize_t n = read(fd, buffer + got, size - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        got += size_t(n);
    }
    return ssize_t(got);
}

std::string Of(uint64_t done, uint64_t total, bool known) {
    return known ? std::to_string(done) + " of " + std::to_string(total) + " bytes"
                 : std::to_string(done) + " bytes";
}

} // namespace

bool Tool::Copy(const RemotePath& remote, const DirEntry& file, int fd, const std::string& target,
                uint64_t& written) {
    int32_t code;
    NFSBrowse* browse = Browse(remote.host, code);
    std::vector<uint8_t> buffer(kChunk);
    Progress progress(m_Opt.command == "get" ? file.m_Size : 0);
    written = 0;
    while (true) {
        uint32_t count = kChunk;
        code = browse->Read(file, buffer.data(), int64_t(written), count);
        if (Failed(code)) {
            progress.Finish();
            Fail(remote, code, "", "; " + Of(written, file.m_Size, true) + " written to " + target);
            return false;
        }
        if (count > 0 && !WriteAll(fd, buffer.data(), count)) {
            int error = errno;
            progress.Finish();
            FailLocal(target, "write", error,
                      "; " + Of(written, file.m_Size, true) + " written from " + remote.text);
            return false;
        }
        written += count;
        progress.Update(written);
        // Short only at the end of the file.
        if (count < kChunk)
            return true;
    }
}

int Tool::Cat() {
    int status = kExitOk;
    fflush(stdout);
    for (const RemotePath& remote : m_Opt.remotes) {
        int32_t code;
        EntryPtr file = Open(remote, code);
        if (!file) {
            status = Fail(remote, code);
            continue;
        }
        if (file->m_Type != qsNFSUtils::eTypeRegular) {
            status = FailType(remote, "not a regular file");
            continue;
        }
        uint64_t written;
        if (!Copy(remote, *file, STDOUT_FILENO, "standard output", written))
            status = kExitFailed;
    }
    return status;
}

int Tool::Get() {
    const RemotePath& remote = m_Opt.remotes[0];
    int32_t code;
    EntryPtr file = Open(remote, code);
    if (!file)
        return Fail(remote, code);
    if (file->m_Type != qsNFSUtils::eTypeRegular)
        return FailType(remote, "not a regular file");
    std::string local = m_Opt.local;
    int fd = STDOUT_FILENO;
    if (local == "-") {
        local = "standard output";
    } else {
        struct stat st {};
        if (stat(local.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
            local = JoinPath(local, LastName(remote.path));
        fd = open(local.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (fd < 0)
            return FailLocal(local, "cannot open", errno);
    }
    uint64_t written;
    bool copied = Copy(remote, *file, fd, local, written);
    if (fd != STDOUT_FILENO && close(fd) != 0 && copied)
        return FailLocal(local, "close", errno);
    return copied ? kExitOk : kExitFailed;
}

int Tool::Put() {
    RemotePath remote = m_Opt.remotes[0];
    bool input = m_Opt.local == "-";
    std::string local = input ? "standard input" : m_Opt.local;
    int fd = input ? STDIN_FILENO : open(local.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return FailLocal(local, "cannot open", errno);
    struct Closer {
        int fd;
        ~Closer() {
            if (fd != STDIN_FILENO)
                close(fd);
        }
    } closer{fd};
    struct stat st {};
    if (fstat(fd, &st) != 0)
        return FailLocal(local, "cannot read", errno);
    if (S_ISDIR(st.st_mode))
        return FailLocal(local, "", EISDIR);
    bool known = S_ISREG(st.st_mode);
    uint64_t total = known ? uint64_t(st.st_size) : 0;
    uint32_t mode = (known ? st.st_mode & 0777 : 0666) & ~m_Umask;

    int32_t code;
    NFSBrowse* browse = Browse(remote.host, code);
    if (!browse)
        return Fail(remote, code);
    // Into an existing directory, under the local file's name.
    EntryPtr existing(browse->Open(remote.path, false, false));
    if (existing && existing->m_Type == qsNFSUtils::eTypeDirectory) {
        if (input)
            return FailType(remote, "is a directory (name the file to write)");
        remote = WithPath(remote, JoinPath(remote.path, LastName(local)));
    }
    EntryPtr file = OpenOrCreate(remote, mode, code);
    if (!file)
        return Fail(remote, code);
    if (file->m_Type != qsNFSUtils::eTypeRegular)
        return FailType(remote, "not a regular file");
    if (file->m_Size != 0) {
        file->m_Size = 0;
        code = browse->SetAttributes(*file, qsNFSUtils::eAttrSize);
        if (Failed(code))
            return Fail(remote, code, "", "; the target was left as it was");
    }

    std::vector<uint8_t> buffer(kChunk);
    Progress progress(total);
    uint64_t sent = 0;
    while (true) {
        ssize_t got = ReadFull(fd, buffer.data(), kChunk);
        if (got < 0) {
            int error = errno;
            progress.Finish();
            return FailLocal(local, "read", error,
                             "; " + Of(sent, total, known) + " reached " + remote.text);
        }
        if (got == 0)
            return kExitOk;
        uint32_t count = uint32_t(got);
        code = browse->Write(*file, buffer.data(), int64_t(sent), count);
        sent += count;
        if (Failed(code)) {
            progress.Finish();
            return Fail(remote, code, "", "; " + Of(sent, total, known) + " reached the server");
        }
        progress.Update(sent);
        if (got < ssize_t(kChunk))
            return kExitOk;
    }
}

} // namespace qsnfs

#include "qsnfsTool.h"

#include "ZBuffer.h"
#include "qsNFSStatus.h"
#include "qsRPCWrappers.h"
#include "qsWinApi.h"
#include "qsnfsFormat.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

namespace qsnfs {

using qsNFSUtils::DirEntry;
using qsNFSUtils::ExportInfo;
using qsNFSUtils::NFSBrowse;

namespace {

bool Failed(int32_t code) {
    return qsFailed(qsStatus(code));
}

bool Print(const std::string& line) {
    return fputs(line.c_str(), stdout) >= 0 && fputc('\n', stdout) != EOF;
}

// The C library's own account of why a client could not be made, which the
// status code alone does not carry: "connection refused", "network is
// unreachable".
std::string CreateErrorDetail() {
    const auto& e = rpc_createerr;
    if (e.cf_stat == RPC_SUCCESS)
        return "";
    std::string text = e.cf_error.re_errno > 0 ? strerror(e.cf_error.re_errno)
                                               : clnt_sperrno(e.cf_stat);
    if (text.rfind("RPC: ", 0) == 0)
        text.erase(0, 5);
    for (char& c : text)
        c = char(tolower(static_cast<unsigned char>(c)));
    return text;
}

} // namespace

Tool::Tool(const Options& options) : m_Opt(options) {
    m_Umask = umask(0);
    umask(m_Umask);
    g_NFSUtils_UseScatterGather = options.pipelined;
}

Tool::~Tool() = default;

int Tool::Run() {
    static const std::map<std::string, int (Tool::*)()> kCommands = {
        {"exports", &Tool::Exports}, {"ls", &Tool::Ls},
        {"stat", &Tool::Stat},       {"cat", &Tool::Cat},
        {"get", &Tool::Get},         {"put", &Tool::Put},
        {"rm", &Tool::Rm},           {"mkdir", &Tool::Mkdir},
        {"rmdir", &Tool::Rmdir},     {"mv", &Tool::Mv},
        {"ln", &Tool::Ln},           {"readlink", &Tool::Readlink},
        {"truncate", &Tool::Truncate}, {"touch", &Tool::Touch},
        {"df", &Tool::Df},           {"lock", &Tool::Lock},
    };
    int status = (this->*kCommands.at(m_Opt.command))();
    if (fflush(stdout) != 0 || ferror(stdout)) {
        fprintf(stderr, "qsnfs: %s: standard output: %s\n", m_Opt.command.c_str(),
                strerror(errno));
        return kExitFailed;
    }
    return status;
}

NFSBrowse* Tool::Browse(const std::string& host, int32_t& code) {
    auto found = m_Browse.find(host);
    if (found != m_Browse.end())
        return found->second.get();
    // A server that could not be reached once is not tried again for each
    // path: a dead one would cost the RPC time-outs every time.
    auto failed = m_BrowseFailures.find(host);
    if (failed != m_BrowseFailures.end()) {
        code = failed->second.first;
        m_CreateDetail = failed->second.second;
        return nullptr;
    }
    static const qsNFSUtils::eUseProtocol kProtocols[] = {
        qsNFSUtils::eUseTCPThenUDP, qsNFSUtils::eUseTCP, qsNFSUtils::eUseUDP};
    NFSBrowse* browse = nullptr;
    code = int32_t(qsNFSUtils::CreateNFSBrowse(browse, host, int(m_Opt.uid), m_Opt.gids, nullptr,
                                               kProtocols[int(m_Opt.proto)]));
    if (Failed(code) || !browse) {
        m_CreateDetail = CreateErrorDetail();
        if (!Failed(code))
            code = int32_t(QS_E_RPC_CLIENT);
        m_BrowseFailures[host] = {code, m_CreateDetail};
        return nullptr;
    }
    m_Browse[host].reset(browse);
    return browse;
}

EntryPtr Tool::Open(const RemotePath& remote, int32_t& code) {
    NFSBrowse* browse = Browse(remote.host, code);
    if (!browse)
        return nullptr;
    EntryPtr entry(browse->Open(remote.path, false, false));
    if (!entry)
        code = browse->GetLastObjectError();
    return entry;
}

EntryPtr Tool::OpenParent(const RemotePath& remote, DirEntry* entry, int32_t& code) {
    EntryPtr parent = Open(WithPath(remote, ParentPath(remote.path)), code);
    if (!parent || !entry)
        return parent;
    code = Browse(remote.host, code)->Lookup(*parent, LastName(remote.path), *entry);
    return Failed(code) ? nullptr : std::move(parent);
}

EntryPtr Tool::OpenOrCreate(const RemotePath& remote, uint32_t mode, int32_t& code) {
    DirEntry found;
    EntryPtr parent = OpenParent(remote, nullptr, code);
    if (!parent)
        return nullptr;
    NFSBrowse* browse = Browse(remote.host, code);
    std::string name = LastName(remote.path);
    code = browse->Lookup(*parent, name, found);
    if (!Failed(code))
        return std::make_unique<DirEntry>(found);
    if (qsStatus(code) != QS_E_NFS_NOENT)
        return nullptr;
    auto entry = std::make_unique<DirEntry>();
    entry->m_Name = name;
    entry->m_Path = remote.path;
    entry->m_Type = qsNFSUtils::eTypeRegular;
    entry->m_Mode = mode;
    code = browse->CreateObject(*parent, *entry);
    // Made meanwhile by someone else: that one is the file now.
    if (qsStatus(code) == QS_E_NFS_EXIST) {
        code = browse->Lookup(*parent, name, *entry);
        return Failed(code) ? nullptr : std::move(entry);
    }
    if (Failed(code))
        return nullptr;
    // The server may have applied a mode of its own choosing.
    if ((entry->m_Mode & 07777) != mode) {
        entry->m_Mode = mode;
        code = browse->SetAttributes(*entry, qsNFSUtils::eAttrMode);
        if (Failed(code))
            return nullptr;
    }
    return entry;
}

std::string Tool::LinkText(const RemotePath& remote, const DirEntry& entry) {
    int32_t code;
    ZBuffer text;
    NFSBrowse* browse = Browse(remote.host, code);
    if (!browse || Failed(browse->ReadSymlink(entry, text)) || !text.Data())
        return "?";
    const char* bytes = reinterpret_cast<const char*>(text.Data());
    return std::string(bytes, strnlen(bytes, text.BytesUsed()));
}

int Tool::Fail(const RemotePath& remote, int32_t code, const std::string& reason,
               const std::string& tail) {
    std::string why = reason.empty() ? Reason(qsStatus(code)) : reason;
    if (reason.empty() && !m_CreateDetail.empty())
        why += ": " + m_CreateDetail;
    m_CreateDetail.clear();
    fprintf(stderr, "qsnfs: %s %s: %s (0x%08X)%s\n", m_Opt.command.c_str(), remote.text.c_str(),
            why.c_str(), unsigned(code), tail.c_str());
    return kExitFailed;
}

int Tool::FailLocal(const std::string& path, const std::string& what, int error,
                    const std::string& tail) {
    fprintf(stderr, "qsnfs: %s %s: %s%s%s%s\n", m_Opt.command.c_str(), path.c_str(),
            what.c_str(), what.empty() ? "" : ": ", strerror(error), tail.c_str());
    return kExitFailed;
}

int Tool::FailType(const RemotePath& remote, const char* what) {
    return Fail(remote, int32_t(QS_E_NFS_WRONG_TYPE), what);
}

int Tool::Exports() {
    RemotePath server{m_Opt.host, m_Opt.host, "/"};
    int32_t code;
    NFSBrowse* browse = Browse(m_Opt.host, code);
    if (!browse)
        return Fail(server, code);
    std::vector<std::string> paths;
    code = browse->ExportPaths(paths);
    if (Failed(code))
        return Fail(server, code);
    for (const std::string& path : paths)
        Print(m_Opt.json ? JsonLine({{"path", path}}) : path);
    return kExitOk;
}

void Tool::PrintEntry(const RemotePath& remote, const DirEntry& entry, size_t width) {
    bool link = entry.m_Type == qsNFSUtils::eTypeSymlink;
    if (m_Opt.json) {
        Print(JsonLine(EntryJson(remote.text, entry, link ? LinkText(remote, entry) : "")));
        return;
    }
    if (!m_Opt.longList) {
        Print(entry.m_Name);
        return;
    }
    Print(LongLine(entry, width, link ? LinkText(remote, entry) : ""));
}

int Tool::ListDirectory(const RemotePath& remote, const DirEntry& directory, bool header) {
    int32_t code;
    NFSBrowse* browse = Browse(remote.host, code);
    std::vector<DirEntry> entries;
    code = browse->Entries(directory, entries);
    if (Failed(code))
        return Fail(remote, code);
    // Byte order, not the locale's: the same listing everywhere.
    std::sort(entries.begin(), entries.end(),
              [](const DirEntry& a, const DirEntry& b) { return a.m_Name < b.m_Name; });
    size_t width = 1;
    for (DirEntry& e : entries) {
        // A READDIRPLUS reply may leave out an entry's attributes.
        if (e.m_Type == qsNFSUtils::eTypeUnknown && (m_Opt.longList || m_Opt.json || m_Opt.recursive))
            browse->GetAttributes(e);
        width = std::max(width, std::to_string(e.m_Size).size());
    }
    if (header && !m_Opt.json)
        Print(remote.text + ":");
    for (const DirEntry& e : entries)
        PrintEntry(WithPath(remote, JoinPath(remote.path, e.m_Name)), e, width);
    if (!m_Opt.recursive)
        return kExitOk;
    int status = kExitOk;
    for (const DirEntry& e : entries) {
        if (e.m_Type != qsNFSUtils::eTypeDirectory)
            continue;
        if (!m_Opt.json)
            Print("");
        status = std::max(status,
                          ListDirectory(WithPath(remote, JoinPath(remote.path, e.m_Name)), e, true));
    }
    return status;
}

int Tool::Ls() {
    const RemotePath& remote = m_Opt.remotes[0];
    int32_t code;
    EntryPtr entry = Open(remote, code);
    if (!entry)
        return Fail(remote, code);
    if (entry->m_Type == qsNFSUtils::eTypeDirectory)
        return ListDirectory(remote, *entry, m_Opt.recursive);
    if (entry->m_Name.empty())
        entry->m_Name = LastName(remote.path);
    PrintEntry(remote, *entry, 1);
    return kExitOk;
}

int Tool::Stat() {
    const RemotePath& remote = m_Opt.remotes[0];
    int32_t code;
    EntryPtr entry = Open(remote, code);
    if (!entry)
        return Fail(remote, code);
    if (m_Opt.json) {
        bool link = entry->m_Type == qsNFSUtils::eTypeSymlink;
        Print(JsonLine(EntryJson(remote.text, *entry, link ? LinkText(remote, *entry) : "")));
        return kExitOk;
    }
    fputs(StatText(remote.text, *entry).c_str(), stdout);
    return kExitOk;
}

int Tool::Rm() {
    int status = kExitOk;
    for (const RemotePath& remote : m_Opt.remotes) {
        int32_t code;
        DirEntry entry;
        EntryPtr parent = OpenParent(remote, &entry, code);
        if (!parent) {
            status = Fail(remote, code);
            continue;
        }
        if (entry.m_Type == qsNFSUtils::eTypeDirectory) {
            status = FailType(remote, "is a directory (rmdir removes directories)");
            continue;
        }
        code = Browse(remote.host, code)->DeleteObject(*parent, entry);
        if (Failed(code))
            status = Fail(remote, code);
    }
    return status;
}

int Tool::Mkdir() {
    const RemotePath& remote = m_Opt.remotes[0];
    int32_t code;
    NFSBrowse* browse = Browse(remote.host, code);
    if (!browse)
        return Fail(remote, code);
    auto make = [&](const DirEntry& parent, const std::string& name, DirEntry& entry) {
        entry = DirEntry();
        entry.m_Name = name;
        entry.m_Path = JoinPath(parent.m_Path, name);
        entry.m_Type = qsNFSUtils::eTypeDirectory;
        entry.m_Mode = 0777 & ~m_Umask;
        return browse->CreateObject(parent, entry);
    };
    DirEntry entry;
    if (!m_Opt.parents) {
        EntryPtr parent = OpenParent(remote, nullptr, code);
        if (!parent)
            return Fail(remote, code);
        code = make(*parent, LastName(remote.path), entry);
        return Failed(code) ? Fail(remote, code) : kExitOk;
    }
    // From the export's root down, making what is missing.
    ExportInfo info;
    code = browse->FindMountPoint(remote.path, info);
    if (Failed(code))
        return Fail(remote, code);
    EntryPtr directory(browse->Open(info.m_Path, false, false));
    if (!directory)
        return Fail(remote, browse->GetLastObjectError());
    std::string rest = remote.path.substr(std::min(info.m_Path.size(), remote.path.size()));
    size_t at = 0;
    while (at < rest.size()) {
        size_t slash = rest.find('/', at + 1);
        std::string name = rest.substr(at + 1, slash - at - 1);
        at = slash == std::string::npos ? rest.size() : slash;
        code = browse->Lookup(*directory, name, entry);
        if (qsStatus(code) == QS_E_NFS_NOENT)
            code = make(*directory, name, entry);
        if (qsStatus(code) == QS_E_NFS_EXIST)
            code = browse->Lookup(*directory, name, entry);
        if (Failed(code))
            return Fail(remote, code);
        if (entry.m_Type != qsNFSUtils::eTypeDirectory)
            return FailType(WithPath(remote, entry.m_Path), "exists and is not a directory");
        *directory = entry;
    }
    return kExitOk;
}

int Tool::Rmdir() {
    const RemotePath& remote = m_Opt.remotes[0];
    int32_t code;
    DirEntry entry;
    EntryPtr parent = OpenParent(remote, &entry, code);
    if (!parent)
        return Fail(remote, code);
    if (entry.m_Type != qsNFSUtils::eTypeDirectory)
        return FailType(remote, "not a directory");
    code = Browse(remote.host, code)->DeleteObject(*parent, entry);
    return Failed(code) ? Fail(remote, code) : kExitOk;
}

int Tool::Mv() {
    const RemotePath& from = m_Opt.remotes[0];
    RemotePath to = m_Opt.remotes[1];
    int32_t code;
    if (from.host != to.host)
        return Fail(from, int32_t(QS_E_NFS_FAILED),
                    "cannot move to another server (" + to.text + ")");
    NFSBrowse* browse = Browse(from.host, code);
    if (!browse)
        return Fail(from, code);
    ExportInfo fromExport, toExport;
    code = browse->FindMountPoint(from.path, fromExport);
    if (Failed(code))
        return Fail(from, code);
    code = browse->FindMountPoint(to.path, toExport);
    if (Failed(code))
        return Fail(to, code);
    if (fromExport.m_Path != toExport.m_Path)
        return Fail(from, int32_t(QS_E_NFS_FAILED),
                    "cannot move across exports (" + fromExport.m_Path + " to " +
                        toExport.m_Path + ")");
    DirEntry entry;
    EntryPtr parent = OpenParent(from, &entry, code);
    if (!parent)
        return Fail(from, code);
    // Into an existing directory, as mv does.
    EntryPtr target(browse->Open(to.path, false, false));
    if (target && target->m_Type == qsNFSUtils::eTypeDirectory)
        to = WithPath(to, JoinPath(to.path, LastName(from.path)));
    if (to.path == from.path)
        return kExitOk;
    bool sameDirectory = ParentPath(to.path) == ParentPath(from.path);
    code = browse->RenameObject(*parent, entry, sameDirectory ? LastName(to.path) : to.path);
    return Failed(code) ? Fail(from, code) : kExitOk;
}

int Tool::Ln() {
    const RemotePath& link = m_Opt.remotes[0];
    int32_t code;
    EntryPtr parent = OpenParent(link, nullptr, code);
    if (!parent)
        return Fail(link, code);
    NFSBrowse* browse = Browse(link.host, code);
    if (m_Opt.symbolic) {
        DirEntry entry;
        entry.m_Name = LastName(link.path);
        entry.m_Path = link.path;
        ZBuffer text;
        code = int32_t(text.Assign(m_Opt.linkText.c_str()));
        if (!Failed(code))
            code = browse->CreateSymlink(*parent, entry, text);
        return Failed(code) ? Fail(link, code) : kExitOk;
    }
    const RemotePath& target = m_Opt.remotes[1];
    if (target.host != link.host)
        return Fail(link, int32_t(QS_E_NFS_FAILED),
                    "cannot link to another server (" + target.text + ")");
    EntryPtr object = Open(target, code);
    if (!object)
        return Fail(target, code);
    code = browse->MakeLink(*object, *parent, LastName(link.path));
    return Failed(code) ? Fail(link, code) : kExitOk;
}

int Tool::Readlink() {
    const RemotePath& remote = m_Opt.remotes[0];
    int32_t code;
    EntryPtr entry = Open(remote, code);
    if (!entry)
        return Fail(remote, code);
    if (entry->m_Type != qsNFSUtils::eTypeSymlink)
        return FailType(remote, "not a symbolic link");
    ZBuffer text;
    code = Browse(remote.host, code)->ReadSymlink(*entry, text);
    if (Failed(code))
        return Fail(remote, code);
    const char* bytes = reinterpret_cast<const char*>(text.Data());
    Print(bytes ? std::string(bytes, strnlen(bytes, text.BytesUsed())) : "");
    return kExitOk;
}

int Tool::Truncate() {
    const RemotePath& remote = m_Opt.remotes[0];
    int32_t code;
    EntryPtr entry = OpenOrCreate(remote, 0666 & ~m_Umask, code);
    if (!entry)
        return Fail(remote, code);
    if (entry->m_Type != qsNFSUtils::eTypeRegular)
        return FailType(remote, "not a regular file");
    entry->m_Size = m_Opt.size;
    code = Browse(remote.host, code)->SetAttributes(*entry, qsNFSUtils::eAttrSize);
    return Failed(code) ? Fail(remote, code) : kExitOk;
}

int Tool::Touch() {
    const RemotePath& remote = m_Opt.remotes[0];
    int32_t code;
    EntryPtr entry = OpenOrCreate(remote, 0666 & ~m_Umask, code);
    if (!entry)
        return Fail(remote, code);
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    entry->m_LastAccessTime = now;
    entry->m_LastWriteTime = now;
    code = Browse(remote.host, code)
               ->SetAttributes(*entry, qsNFSUtils::eAttrAccessTime | qsNFSUtils::eAttrWriteTime);
    return Failed(code) ? Fail(remote, code) : kExitOk;
}

int Tool::Df() {
    const RemotePath& remote = m_Opt.remotes[0];
    int32_t code;
    NFSBrowse* browse = Browse(remote.host, code);
    if (!browse)
        return Fail(remote, code);
    ExportInfo info;
    code = browse->FindMountPoint(remote.path, info);
    if (Failed(code))
        return Fail(remote, code);
    if (!info.m_Facts.m_Known)
        return Fail(remote, browse->GetLastObjectError(),
                    "the server did not tell the file system's space");
    std::string name = remote.host + ":" + info.m_Path;
    if (m_Opt.json) {
        Print(JsonLine(DfJson(name, info)));
        return kExitOk;
    }
    Print(DfHeader());
    Print(DfLine(name, info.m_Facts));
    return kExitOk;
}

} // namespace qsnfs

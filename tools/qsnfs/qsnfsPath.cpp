#include "qsnfsPath.h"

#include "qsPath.h"

#include <vector>

namespace qsnfs {

namespace {

// IPv4 literals and DNS names; an IPv6 literal cannot be told from the
// colon that ends the host, and the client speaks IPv4 only anyway.
bool ValidHost(const std::string& host) {
    if (host.empty())
        return false;
    for (char c : host) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '.' || c == '-' || c == '_';
        if (!ok)
            return false;
    }
    return true;
}

} // namespace

bool ParseRemotePath(const std::string& text, RemotePath& out, std::string& why) {
    if (qsPath::GetFormat(text.c_str()) != qsPath::eFormatNfs) {
        why = "'" + text + "' is not a remote path HOST:/PATH";
        return false;
    }
    size_t colon = text.find(':');
    std::string host = text.substr(0, colon);
    if (!ValidHost(host)) {
        why = "'" + text + "': '" + host + "' is not a host name or IPv4 address";
        return false;
    }
    // Resolved here, as a shell would for a local path: the server walks
    // one LOOKUP per component and must never be sent "." or "..".
    std::vector<std::string> parts;
    size_t at = colon + 1;
    while (at <= text.size()) {
        size_t slash = text.find('/', at);
        if (slash == std::string::npos)
            slash = text.size();
        std::string part = text.substr(at, slash - at);
        at = slash + 1;
        if (part.empty() || part == ".")
            continue;
        if (part != "..") {
            parts.push_back(part);
            continue;
        }
        if (parts.empty()) {
            why = "'" + text + "': '..' climbs above the server's root";
            return false;
        }
        parts.pop_back();
    }
    std::string path;
    for (const std::string& part : parts)
        path += "/" + part;
    out = RemotePath{text, host, path.empty() ? std::string(1, '/') : path};
    return true;
}

bool ParseHost(const std::string& text, std::string& host, std::string& why) {
    if (text.find(':') != std::string::npos) {
        RemotePath remote;
        // "server:" alone is a host too, as people type it after scp.
        std::string path = text.back() == ':' ? text + "/" : text;
        if (!ParseRemotePath(path, remote, why))
            return false;
        host = remote.host;
        return true;
    }
    if (!ValidHost(text)) {
        why = "'" + text + "' is not a host name or IPv4 address";
        return false;
    }
    host = text;
    return true;
}

std::string ParentPath(const std::string& path) {
    size_t slash = path.rfind('/');
    if (slash == 0 || slash == std::string::npos)
        return "/";
    return path.substr(0, slash);
}

std::string LastName(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string JoinPath(const std::string& directory, const std::string& name) {
    if (directory.empty() || directory.back() == '/')
        return directory + name;
    return directory + "/" + name;
}

RemotePath WithPath(const RemotePath& remote, const std::string& path) {
    return RemotePath{remote.host + ":" + path, remote.host, path};
}

} // namespace qsnfs

// Remote paths as qsnfs takes them: HOST:/export/dir/name.
#pragma once

#include <string>

namespace qsnfs {

struct RemotePath {
    std::string text; // as the user wrote it, for messages
    std::string host;
    // The path on the server from its root, "/export/dir/name": no empty,
    // "." or ".." components and no trailing slash; "/" alone for the root.
    std::string path;
};

// False, with the reason in `why`, when `text` is not HOST:/PATH or its
// ".." components climb above the root.
bool ParseRemotePath(const std::string& text, RemotePath& out, std::string& why);

// A host as `exports` takes it: HOST, or a remote path whose host is used.
bool ParseHost(const std::string& text, std::string& host, std::string& why);

// "/a/b" gives "/a"; "/a" and "/" give "/".
std::string ParentPath(const std::string& path);
// "/a/b" gives "b"; "/" gives "".
std::string LastName(const std::string& path);
std::string JoinPath(const std::string& directory, const std::string& name);

// The same path on the same host, with another server path.
RemotePath WithPath(const RemotePath& remote, const std::string& path);

} // namespace qsnfs

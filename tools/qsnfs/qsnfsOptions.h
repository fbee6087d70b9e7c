// qsnfs's command line.
#pragma once

#include "qsnfsPath.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qsnfs {

enum : int {
    kExitOk = 0,
    kExitFailed = 1, // the operation failed; one line on standard error says why
    kExitUsage = 2,  // bad option, argument or path
};

enum class Proto { Auto, Tcp, Udp };

// AUTH_UNIX carries at most this many groups, the primary one included.
constexpr size_t kMaxGroups = 16;

struct Options {
    uint32_t uid = 0;
    std::vector<int> gids; // the first is the primary group
    Proto proto = Proto::Auto;
    bool pipelined = false;

    std::string command;
    // The remote paths in the order they were given: the one of ls, stat,
    // get, put, mkdir, rmdir, readlink, truncate, touch, df and lock; each
    // of cat and rm; FROM then TO of mv; PATH then TARGET of a hard ln.
    std::vector<RemotePath> remotes;
    std::string host;                 // exports
    std::string local;                // get, put: a local file, or "-"
    std::string linkText;             // ln -s
    std::vector<std::string> program; // lock: COMMAND [ARG...]
    bool longList = false, recursive = false, parents = false, symbolic = false;
    bool shared = false, json = false;
    uint64_t size = 0;
};

// Parses the command line.  Returns -1 when the program should go on with
// `out`; else the exit code, with the text to print in `text`: --help and
// --version (0, for standard output) or a usage error (kExitUsage, for
// standard error).
int ParseOptions(int argc, const char* const* argv, Options& out, std::string& text);

// A size for truncate -s: decimal bytes, or with K, M, G or T for powers of
// 1024 (KiB, MiB, ... spelt out are accepted too).
bool ParseSize(const std::string& text, uint64_t& out);

// The caller's own credentials: uid, then the primary group first and the
// supplementary groups after it, as many as AUTH_UNIX carries.
void CallerCredentials(uint32_t& uid, std::vector<int>& gids);

} // namespace qsnfs

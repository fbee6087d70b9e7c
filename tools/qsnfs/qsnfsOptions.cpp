#include "qsnfsOptions.h"

#include "qsVersion.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <grp.h>
#include <unistd.h>

namespace qsnfs {

namespace {

const char* const kFooter = R"(Paths on the server are HOST:/EXPORT/PATH, for example fs1:/srv/data/a.txt.

Examples:
  qsnfs exports fs1                     the server's exports
  qsnfs ls -l fs1:/srv/data             a directory, long form
  qsnfs get fs1:/srv/data/a.bin a.bin   copy a file here
  qsnfs put a.bin fs1:/srv/data/a.bin   copy it back, replacing the target
  qsnfs --uid 1000 --gid 1000 mkdir -p fs1:/srv/data/x/y
  qsnfs stat -o json fs1:/srv/data/a.bin | jq .size

Exit status: 0 done; 1 the operation failed (one line on standard error with
the reason and the status code); 2 usage error or malformed path.)";

bool ParseUnsigned(const std::string& text, uint64_t max, uint64_t& out) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    errno = 0;
    unsigned long long v = strtoull(text.c_str(), nullptr, 10);
    if (errno || v > max)
        return false;
    out = v;
    return true;
}

bool ParseGroups(const std::string& text, std::vector<int>& gids) {
    gids.clear();
    size_t at = 0;
    while (true) {
        size_t comma = text.find(',', at);
        uint64_t v;
        if (!ParseUnsigned(text.substr(at, comma - at), UINT32_MAX, v))
            return false;
        gids.push_back(int(uint32_t(v)));
        if (comma == std::string::npos)
            return true;
        at = comma + 1;
    }
}

} // namespace

bool ParseSize(const std::string& text, uint64_t& out) {
    size_t digits = text.find_first_not_of("0123456789");
    std::string number = text.substr(0, digits);
    std::string unit = digits == std::string::npos ? "" : text.substr(digits);
    static const std::pair<const char*, int> kUnits[] = {
        {"", 0},    {"K", 10},   {"KiB", 10}, {"M", 20},   {"MiB", 20},
        {"G", 30},  {"GiB", 30}, {"T", 40},   {"TiB", 40},
    };
    for (const auto& [name, shift] : kUnits) {
        if (unit != name)
            continue;
        uint64_t v;
        if (!ParseUnsigned(number, UINT64_MAX >> shift, v))
            return false;
        out = v << shift;
        return true;
    }
    return false;
}

void CallerCredentials(uint32_t& uid, std::vector<int>& gids) {
    uid = getuid();
    gids = {int(getgid())};
    int n = getgroups(0, nullptr);
    std::vector<gid_t> groups(n > 0 ? size_t(n) : 0);
    n = groups.empty() ? 0 : getgroups(int(groups.size()), groups.data());
    for (int i = 0; i < n && gids.size() < kMaxGroups; ++i) {
        if (std::find(gids.begin(), gids.end(), int(groups[i])) == gids.end())
            gids.push_back(int(groups[i]));
    }
}

int ParseOptions(int argc, const char* const* argv, Options& out, std::string& text) {
    CLI::App app{"A command-line client of NFS version 3 servers.", "qsnfs"};
    app.footer(kFooter);
    app.set_version_flag("--version", "qsnfs " QS_VERSION);
    app.get_formatter()->column_width(34);
    app.require_subcommand(1);

    std::string uid, gid, proto = "auto", output = "text", size;
    std::vector<std::string> words;
    app.add_option("--uid", uid, "User id to act as (default: your own)")->type_name("N");
    app.add_option("--gid", gid, "Group ids, primary first (default: your own groups)")
        ->type_name("N[,N...]");
    app.add_option("--proto", proto, "Transport of NFS: tcp, udp, or auto (TCP, else UDP)")
        ->check(CLI::IsMember({"tcp", "udp", "auto"}));
    app.add_flag("--pipelined", out.pipelined, "Read and write with several UDP calls in flight");

    auto command = [&](const char* name, const char* what) {
        CLI::App* sub = app.add_subcommand(name, what);
        sub->fallthrough(false);
        return sub;
    };
    auto json = [&](CLI::App* sub) {
        sub->add_option("-o,--output", output, "Output form: text or json")
            ->check(CLI::IsMember({"text", "json"}));
    };
    auto operands = [&](CLI::App* sub, const char* name, const char* what, int count) {
        sub->add_option(name, words, what)->required()->expected(count);
    };

    CLI::App* c = command("exports", "List the server's exports, one a line");
    operands(c, "HOST", "The server", 1);
    json(c);
    c = command("ls", "List a directory, names one a line");
    c->add_flag("-l", out.longList, "Long form: type and mode, owner, size, time, name");
    c->add_flag("-R", out.recursive, "List subdirectories too");
    operands(c, "PATH", "HOST:/PATH", 1);
    json(c);
    c = command("stat", "Show an object's type, size, times, ids, mode and owner");
    operands(c, "PATH", "HOST:/PATH", 1);
    json(c);
    c = command("cat", "Write files to standard output");
    operands(c, "PATH", "HOST:/PATH...", -1);
    c = command("get", "Copy a file from the server (LOCAL - for standard output)");
    operands(c, "ARGS", "HOST:/PATH LOCAL", 2);
    c = command("put", "Copy a file to the server (LOCAL - for standard input)");
    operands(c, "ARGS", "LOCAL HOST:/PATH", 2);
    c = command("rm", "Remove files");
    operands(c, "PATH", "HOST:/PATH...", -1);
    c = command("mkdir", "Make a directory");
    c->add_flag("-p", out.parents, "Make missing parents too; an existing directory is fine");
    operands(c, "PATH", "HOST:/PATH", 1);
    c = command("rmdir", "Remove an empty directory");
    operands(c, "PATH", "HOST:/PATH", 1);
    c = command("mv", "Rename or move within one export");
    operands(c, "ARGS", "HOST:/FROM HOST:/TO", 2);
    c = command("ln", "Make a hard link to TARGET, or with -s a symbolic link");
    c->add_flag("-s", out.symbolic, "Symbolic: TARGET is the link's text");
    operands(c, "ARGS", "TARGET HOST:/PATH", 2);
    c = command("readlink", "Print a symbolic link's text");
    operands(c, "PATH", "HOST:/PATH", 1);
    c = command("truncate", "Set a file's size, making it when missing");
    c->add_option("-s,--size", size, "The new size in bytes (K, M, G, T: powers of 1024)")
        ->required();
    operands(c, "PATH", "HOST:/PATH", 1);
    c = command("touch", "Set a file's times to now, making it when missing");
    operands(c, "PATH", "HOST:/PATH", 1);
    c = command("df", "Show the space of the export holding PATH");
    operands(c, "PATH", "HOST:/EXPORT", 1);
    json(c);
    c = command("lock", "Run COMMAND while holding a whole-file lock on PATH");
    c->add_flag("-s", out.shared, "A shared lock instead of an exclusive one");
    // One word, so that the command's own words are left over for it.
    std::string lockPath;
    c->add_option("PATH", lockPath, "HOST:/PATH, then COMMAND [ARG...]")->required();
    c->prefix_command();
    CLI::App* lock = c;

    auto usage = [&](const std::string& why) {
        text = "qsnfs: " + why + "\nTry 'qsnfs --help' for more information.\n";
        return kExitUsage;
    };
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) {
            text = e.get_name() == "CallForVersion" ? std::string(e.what()) + "\n" : app.help();
            return kExitOk;
        }
        std::vector<std::string> rest = app.remaining();
        if (app.get_subcommands().empty() && !rest.empty() && rest[0][0] != '-')
            return usage("unknown command '" + rest[0] + "'");
        return usage(e.what());
    }
    out.command = app.get_subcommands().front()->get_name();
    out.json = output == "json";
    out.proto = proto == "tcp" ? Proto::Tcp : proto == "udp" ? Proto::Udp : Proto::Auto;

    CallerCredentials(out.uid, out.gids);
    uint64_t v;
    if (!uid.empty()) {
        if (!ParseUnsigned(uid, UINT32_MAX, v))
            return usage("--uid takes a number, not '" + uid + "'");
        out.uid = uint32_t(v);
    }
    if (!gid.empty()) {
        if (!ParseGroups(gid, out.gids))
            return usage("--gid takes numbers separated by commas, not '" + gid + "'");
        if (out.gids.size() > kMaxGroups)
            return usage("--gid: at most " + std::to_string(kMaxGroups) + " groups");
    }
    if (out.command == "truncate" && !ParseSize(size, out.size))
        return usage("-s takes a size in bytes (K, M, G, T for powers of 1024), not '" + size +
                     "'");

    if (out.command == "lock")
        words = {lockPath};
    // Which of the operands are remote paths.
    std::vector<size_t> remote;
    if (out.command == "exports") {
        std::string why;
        if (!ParseHost(words[0], out.host, why))
            return usage(why);
    } else if (out.command == "get") {
        remote = {0};
        out.local = words[1];
    } else if (out.command == "put") {
        remote = {1};
        out.local = words[0];
    } else if (out.command == "ln") {
        remote = out.symbolic ? std::vector<size_t>{1} : std::vector<size_t>{1, 0};
        out.linkText = words[0];
    } else {
        for (size_t i = 0; i < words.size(); ++i)
            remote.push_back(i);
    }
    for (size_t i : remote) {
        RemotePath path;
        std::string why;
        if (!ParseRemotePath(words[i], path, why))
            return usage(why);
        out.remotes.push_back(path);
    }
    if (out.command == "lock") {
        out.program = lock->remaining();
        if (out.program.empty())
            return usage("lock: no COMMAND to run");
    }
    if ((out.command == "get" || out.command == "put") && out.local.empty())
        return usage(out.command + ": LOCAL is empty (use - for standard " +
                     (out.command == "get" ? "output)" : "input)"));
    return -1;
}

} // namespace qsnfs

// qsnfs: a command-line client of NFS version 3 servers.  See qsnfs --help
// and qsnfs(1).
#include "qsnfsOptions.h"
#include "qsnfsTool.h"

#include <cstdio>

int main(int argc, char** argv) {
    qsnfs::Options options;
    std::string text;
    int rc = qsnfs::ParseOptions(argc, argv, options, text);
    if (rc >= 0) {
        fputs(text.c_str(), rc == qsnfs::kExitOk ? stdout : stderr);
        return rc;
    }
    qsnfs::Tool tool(options);
    return tool.Run();
}

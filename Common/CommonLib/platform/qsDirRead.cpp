#include "qsDirRead.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>

int qsReadDirectoryNames(const std::string& dir, std::vector<std::string>& names) {
    names.clear();
    DIR* d = opendir(dir.c_str());
    if (!d)
        return errno;
    int error = 0;
    for (;;) {
        errno = 0;
        const dirent* e = readdir(d);
        if (!e) {
            error = errno;
            break;
        }
        const char* n = e->d_name;
        if (n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0')))
            continue;
        names.emplace_back(n);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return error;
}

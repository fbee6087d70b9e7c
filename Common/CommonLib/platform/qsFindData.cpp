#include "qsFindData.h"
#include "qsWinApi.h"

#include <cstring>

void qsFillFindData(const struct stat64& st, const char* name, size_t length,
                    WIN32_FIND_DATAA* data) {
    memset(data, 0, sizeof *data);
    data->dwFileAttributes = qsAttributesFromMode(st.st_mode);
    UNIXTimeToFILETIME(long(st.st_atime), data->ftLastAccessTime);
    UNIXTimeToFILETIME(long(st.st_mtime), data->ftLastWriteTime);
    data->nFileSizeHigh = DWORD(uint64_t(st.st_size) >> 32);
    data->nFileSizeLow = DWORD(uint64_t(st.st_size));
    if (length >= sizeof data->cFileName)
        length = sizeof data->cFileName - 1;
    if (length)
        memcpy(data->cFileName, name, length);
}

// The path grammar on arbitrary text: nothing is read or written outside
// the buffers given (exact-size heap copies, so the sanitizers see any
// overrun), statuses are the documented ones, and the relations between
// the functions hold.  The input up to its first NUL is the path; the byte
// after that, if any, sizes the node buffers.
#include "fuzzTarget.h"

#include "ZBuffer.h"
#include "ZCString.h"
#include "qsPath.h"

#include <cstring>
#include <memory>
#include <string>

bool g_bLoggingDoAutoInit = false;

using namespace qsPath;

static bool Known(qsStatus s) {
    return s == QS_OK || s == QS_E_INVALIDARG || s == QS_E_BUFFER_TOO_SMALL;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string path(reinterpret_cast<const char*>(data), strnlen((const char*)data, size));
    unsigned long nodeSize = path.size() + 1 < size ? data[path.size() + 1] : 16;
    const char* p = path.c_str();

    unsigned format = GetFormat(p);
    FUZZ_CHECK((format & (format - 1)) == 0 && format <= 128);
    FUZZ_CHECK(ValidateFormat(p, eFormat(0xFFFFFFFF)) == (format != 0));
    ZCString list;
    FUZZ_CHECK(HasIllegalPathChars(p, 0, &list) == (strpbrk(p, "\\/:*?\"<>|") != nullptr));

    // Nodes: a buffer of the size asked for, and the string form agreeing
    // with a buffer that is always large enough.
    for (bool first : {true, false}) {
        auto fill = [first](const char* path, char* b, unsigned long n) {
            return first ? GetFirstNode(path, b, n) : GetLastNode(path, b, n);
        };
        std::unique_ptr<char[]> node(new char[nodeSize + 1]);
        qsStatus s = fill(p, node.get(), nodeSize);
        FUZZ_CHECK(Known(s));
        FUZZ_CHECK(nodeSize == 0 || strlen(node.get()) < nodeSize);
        std::unique_ptr<char[]> whole(new char[path.size() + 1]);
        std::string viaString;
        qsStatus full = fill(p, whole.get(), path.size() + 1);
        FUZZ_CHECK(full != QS_E_BUFFER_TOO_SMALL);
        FUZZ_CHECK((first ? GetFirstNode(p, viaString) : GetLastNode(p, viaString)) == full);
        FUZZ_CHECK(viaString == whole.get());
    }

    char server[kMaxUncServer + 1], share[kMaxUncShare + 1], rest[kMaxUncRest + 1];
    char root[kMaxDfsRoot + 1];
    const char* restPointer = nullptr;
    if (SplitUnc2(p, server, share, restPointer) == QS_OK)
        FUZZ_CHECK((format == eFormatUnc || format == eFormatLongUnc) && server[0]);
    FUZZ_CHECK(Known(SplitUnc(p, server, share, rest)));
    if (SplitDfs(p, root, rest) == QS_OK)
        FUZZ_CHECK(root[0] == '\\' && root[1] == '\\' && strlen(root) <= kMaxDfsRoot);

    // Edits: a failed TightenPath changes nothing, a successful one is
    // final; the strips are final; Append needs room for what it adds only.
    std::string s = path;
    if (TightenPath(s)) {
        // Done again it changes nothing, though it may fail: tightening
        // "\\ ? \x" makes a long-path prefix of what was a UNC node.
        std::string again = s;
        TightenPath(again);
        FUZZ_CHECK(again == s);
    } else {
        FUZZ_CHECK(s == path);
    }
    s = path;
    StripTrailing(s, true, true);
    std::string again = s;
    StripTrailing(again, true, true);
    FUZZ_CHECK(again == s);
    std::unique_ptr<char[]> appended(new char[path.size() + 3]);
    memcpy(appended.get(), p, path.size() + 1);
    Append(appended.get(), "x", 0);
    s = path;
    Normalize(s);
    FUZZ_CHECK(s.size() == path.size());

    ZBuffer storage;
    const char* patterns = nullptr;
    if (SetPathSpecListString(p, patterns, storage) == QS_OK && patterns) {
        const char* end = patterns + storage.BytesUsed();
        FUZZ_CHECK(storage.BytesUsed() >= 1 && end[-1] == '\0');
        const char* q = patterns;
        while (*q)
            q += strlen(q) + 1;
        FUZZ_CHECK(q == end - 1);
    }
    return 0;
}

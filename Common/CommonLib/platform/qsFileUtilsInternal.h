// Internal: the pieces the file utilities' source files share.
#pragma once

#include "qsStatus.h"

#include <string>

namespace qsFileUtils {

// Reports the call that just failed ("<who>: error <errno> <doing> <path>."
// or "... <path> to <other>.") with errno as the code, leaves errno as it
// was, and returns 0xE0FF0108 for a missing path, else `code`.
qsStatus Fail(const char* who, const char* doing, const std::string& path, qsStatus code,
              const char* other = nullptr);
// Reports a null, empty or unknown argument: 0x80000003.
qsStatus Invalid(const char* who);

// Removes what `dir` holds, never following links; a failure inside a
// subdirectory is reported there and not again by the rmdir that then fails.
qsStatus RemoveContents(const std::string& dir, const char* who);
// Removes one entry of any kind, a directory with its contents.
qsStatus RemoveEntry(const std::string& path, const char* who);

} // namespace qsFileUtils

// Internal: reading one directory's names, shared by the tree utilities and
// the directory enumerator.
#pragma once

#include <string>
#include <vector>

// The names in `dir` except "." and "..", sorted (byte order) so that every
// walk is repeatable.  Returns 0, or the errno of the failing call: the
// caller reports it in its own terms.
int qsReadDirectoryNames(const std::string& dir, std::vector<std::string>& names);

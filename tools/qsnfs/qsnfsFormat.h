// How qsnfs shows objects, file systems and failures: the text forms and
// the JSON forms of ls, stat, df and exports.
#pragma once

#include "qsNFSBrowse.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

namespace qsnfs {

// A readable reason for a status code of the NFS client, "error" for a
// code it does not know.
std::string Reason(qsStatus code);

// "regular file", "directory", "symbolic link", ...
const char* TypeName(uint32_t type);
// The type letter and the nine permission bits as ls shows them, with the
// set-id and sticky bits: "drwxr-sr-t".
std::string ModeString(uint32_t type, uint32_t mode);

// "2026-11-21 14:03:07.1234567 +0100", local time.
std::string LocalTime(const FILETIME& ft);
// "2026-11-21 14:03", local time, as ls -l shows it.
std::string ShortTime(const FILETIME& ft);
// "2026-11-21T13:03:07.1234567Z"
std::string UtcTime(const FILETIME& ft);

// One line of ls -l without the newline; `width` is the size column's.
std::string LongLine(const qsNFSUtils::DirEntry& entry, size_t width,
                     const std::string& linkText);
// stat's text: one "name value" line per field.
std::string StatText(const std::string& path, const qsNFSUtils::DirEntry& entry);
// What ls -o json and stat -o json print for an object.
nlohmann::ordered_json EntryJson(const std::string& path, const qsNFSUtils::DirEntry& entry,
                         const std::string& linkText);

// df's header and line, in 1024-byte blocks.
std::string DfHeader();
std::string DfLine(const std::string& name, const qsNFSUtils::ExportInfo::Facts& facts);
nlohmann::ordered_json DfJson(const std::string& name, const qsNFSUtils::ExportInfo& info);

// One line of JSON; bytes that are not UTF-8 (names on the server need not
// be) become U+FFFD rather than end the program.
std::string JsonLine(const nlohmann::ordered_json& value);

} // namespace qsnfs

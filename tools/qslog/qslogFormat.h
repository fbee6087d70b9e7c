// The three output forms of a record:
//   short  2026-11-21 14:03:07.123 [1234:7F3A1B40] #42 error 0xE0FF010B: text
//          2026-11-21 14:03:07.123 [1234:7F3A1B40] #1 -- log started
//   json   one object per line, every field of the record
//   raw    offsets and header fields, for looking into a file
// and the lines for records that could not be read.
#pragma once

#include "qslogImage.h"
#include "qslogTime.h"
#include "qslogWalk.h"
#include "qslogWriter.h"

#include <string>
#include <vector>

namespace qslog {

enum class OutputFormat { Short, Json, Raw };

class Formatter {
public:
    // `files` names the files given, for the json "file" field and, when
    // `tagFiles` (several files), for a prefix on short and raw lines.
    Formatter(OutputFormat format, bool color, std::vector<std::string> files, bool tagFiles);

    // A record, or a gap of records of a damaged file that could not be read.
    void Put(Writer& out, const Entry& e);
    // Follow mode: the writers overran the reader and `count` records were
    // overwritten before they could be printed.
    void PutLost(Writer& out, DWORD count, int file);
    // Raw only: the file's header, ahead of its records.
    void PutHeader(Writer& out, const LogImage& image, int file);

private:
    void Short(Writer& out, const Record& r);
    void Json(Writer& out, const Entry& e);
    void Raw(Writer& out, const Record& r);
    void Prefix(Writer& out, int file);
    void Gap(Writer& out, const Entry& e);
    void Color(Writer& out, const char* code);
    void EndLine(Writer& out, bool colored);

    OutputFormat m_Format;
    bool m_Color;
    std::vector<std::string> m_Files;
    bool m_TagFiles;
    TimeFormatter m_Time;
    std::string m_Text;
    std::string m_Scratch;
};

} // namespace qslog

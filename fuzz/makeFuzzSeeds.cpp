// Writes the seed corpus of the fuzz targets: small real log files in the
// situations a reader meets (fresh, wrapped, a record ending at the very
// end, cleared, resized, an event record, the opposite byte order), and a
// few number texts and token lists.
// Usage: makeFuzzSeeds CORPUS_DIR   (writes CORPUS_DIR/{logimage,number,tokenize}/...)
#include "ZLogStream.h"
#include "qsBitUtils.h"
#include "qsLogState.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>
#include <vector>

bool g_bLoggingDoAutoInit = false;

namespace {

namespace fs = std::filesystem;
using qsBitUtils::ReverseEndiannessOf;

std::vector<uint8_t> ReadAll(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

std::string SeedName(char prefix, int i) {
    std::string name(1, prefix);
    name += std::to_string(i);
    return name;
}

void WriteAll(const fs::path& p, const void* data, size_t size) {
    std::ofstream(p, std::ios::binary).write(static_cast<const char*>(data), std::streamsize(size));
}

void Messages(ZLogStream& s, int count, int seed) {
    for (int i = 0; i < count; i++) {
        std::string text(size_t((i * 37 + seed) % 90), char('a' + i % 26));
        if (i % 5 == 4)
            s.PrintString(std::wstring(text.begin(), text.end()).c_str(), i, qsLogSevWarning, 0);
        else
            s.PrintString(text.c_str(), -i, qsLogSevNormal, 1);
    }
}

// Every header word, every record header word and the words the reader
// converts by type, byte-reversed: the same file as written on a machine of
// the other order.
std::vector<uint8_t> Opposite(std::vector<uint8_t> image) {
    auto* file = reinterpret_cast<const ZLogFile*>(image.data());
    std::vector<DWORD> offsets;
    for (const ZLogRec* r = file->FirstRec(); r; r = file->NextRec(r))
        offsets.push_back(file->OffsetOf(r));
    auto swap = [&](size_t at) {
        uint32_t w;
        memcpy(&w, &image[at], 4);
        w = ReverseEndiannessOf(w);
        memcpy(&image[at], &w, 4);
    };
    for (DWORD off : offsets) {
        uint32_t type, ts[2];
        memcpy(&type, &image[off + 32], 4);
        memcpy(ts, &image[off + 8], 8);
        for (size_t w = 0; w < 10; w++)
            if (w != 2 && w != 3)
                swap(off + 4 * w);
        uint32_t swapped[2] = {ReverseEndiannessOf(ts[1]), ReverseEndiannessOf(ts[0])};
        memcpy(&image[off + 8], swapped, 8);
        if (type == LOGREC_STRING_A || type == LOGREC_STRING_W || type == LOGREC_RESIZE) {
            swap(off + 40);
            swap(off + 44);
        }
    }
    for (size_t w = 0; w < 7; w++)
        swap(4 * w);
    return image;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: makeFuzzSeeds CORPUS_DIR\n");
        return 2;
    }
    fs::path out(argv[1]);
    fs::path work = fs::temp_directory_path() / ("qs-seeds-" + std::to_string(getpid()));
    fs::create_directories(work);
    fs::create_directories(out / "logimage");
    fs::create_directories(out / "number");
    fs::create_directories(out / "tokenize");
    g_LogInfoMessages = true;

    auto make = [&](const char* name, DWORD kb, auto fill) {
        {
            ZLogStream s(work.c_str(), name, kb, 16384, true);
            if (!s.IsValid()) {
                fprintf(stderr, "cannot open %s\n", name);
                exit(1);
            }
            fill(s);
        }
        fs::copy_file(work / name, out / "logimage" / name, fs::copy_options::overwrite_existing);
    };
    make("fresh.log", 1, [](ZLogStream&) {});
    make("wrapped.log", 1, [](ZLogStream& s) { Messages(s, 40, 3); });
    make("wrapped4k.log", 4, [](ZLogStream& s) { Messages(s, 150, 11); });
    make("exactend.log", 1, [](ZLogStream& s) {
        // 28 + 40 (start) + 956 = 1024: a record that ends at the very end.
        std::string text(956 - 48, 'e');
        s.PrintString(text.c_str(), 0, qsLogSevNormal, 0);
        s.PrintString("after", 0, qsLogSevNormal, 0);
    });
    make("cleared.log", 2, [](ZLogStream& s) {
        Messages(s, 30, 5);
        s.ClearRecs();
        Messages(s, 3, 1);
    });
    make("event.log", 1, [](ZLogStream& s) {
        const uint32_t words[8] = {1, 2, 3, 4, 5, 6, 7, 8};
        s.WriteRec(words, sizeof words, LOGREC_EVENT, 0);
        s.PrintString("x", 0, qsLogSevError, 0);
    });
    {
        // Reopening at another size carries the records over and adds "RESZ".
        make("resized.log", 2, [](ZLogStream& s) { Messages(s, 25, 7); });
        fs::copy_file(out / "logimage" / "resized.log", work / "resized.log",
                      fs::copy_options::overwrite_existing);
        make("resized.log", 4, [](ZLogStream& s) { Messages(s, 2, 2); });
    }
    std::vector<uint8_t> wrapped = ReadAll(out / "logimage" / "wrapped.log");
    std::vector<uint8_t> opposite = Opposite(wrapped);
    WriteAll(out / "logimage" / "opposite.log", opposite.data(), opposite.size());

    const char* numbers[] = {"\x01"
                             "ff",
                             "\x03"
                             "3f800000",
                             "\x06"
                             "400921fb54442d18",
                             "\x07"
                             "4000c90fdaa22168c235",
                             "\x00"
                             "1ff",
                             "\x05"
                             "0x10",
                             "\x02"
                             "FFFFFFFF"};
    int i = 0;
    for (const char* n : numbers)
        WriteAll(out / "number" / SeedName('n', i++), n, strlen(n + 1) + 1);
    const std::string tokens[] = {std::string("\x01,a,,b,"), std::string("\x02 \tfoo bar\tbaz"),
                                  std::string("\x01,,,,"), std::string("\x00plain", 6),
                                  std::string("\x03;:/a;b:c/d")};
    i = 0;
    for (const std::string& t : tokens)
        WriteAll(out / "tokenize" / SeedName('t', i++), t.data(), t.size());
    fs::remove_all(work);
    return 0;
}

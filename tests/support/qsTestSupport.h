// Small helpers shared by the tests: private temporary directories and
// whole-file reads and writes.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

namespace qsTest {

// A fresh directory under the test's own log directory (QS_LOG_DIR, private
// to each test case), else under TMPDIR or /tmp; removed with its contents
// when the object goes, unless QS_KEEP_TEST_FILES is set.
class TempDir {
public:
    explicit TempDir(const char* tag = "t") {
        std::string base = Base();
        std::filesystem::create_directories(base);
        std::string templ = base + "/" + tag + "-XXXXXX";
        std::vector<char> buf(templ.begin(), templ.end());
        buf.push_back('\0');
        if (!mkdtemp(buf.data()))
            throw std::runtime_error("mkdtemp failed under " + base);
        m_Path = buf.data();
    }
    ~TempDir() {
        if (!getenv("QS_KEEP_TEST_FILES")) {
            std::error_code ec;
            std::filesystem::remove_all(m_Path, ec);
        }
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_Path; }
    std::string operator/(const std::string& name) const { return m_Path + "/" + name; }

private:
    static std::string Base() {
        const char* dir = getenv("QS_LOG_DIR");
        if (dir && dir[0] == '/')
            return std::string(dir) + "/tmp";
        const char* tmp = getenv("TMPDIR");
        return tmp && tmp[0] ? tmp : "/tmp";
    }
    std::string m_Path;
};

inline std::vector<uint8_t> ReadFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

inline std::string ReadFileText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void WriteFileBytes(const std::string& path, const void* data, size_t size) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(static_cast<const char*>(data), std::streamsize(size));
}

inline void WriteFileText(const std::string& path, const std::string& text) {
    WriteFileBytes(path, text.data(), text.size());
}

} // namespace qsTest

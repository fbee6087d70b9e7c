// Runs a fuzz target once over every file named on the command line (or found
// in a directory named there), without libFuzzer: the seed corpus and the
// kept crashes thus replay in every ordinary build, sanitizers included.
#include "fuzzTarget.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; i++) {
        fs::path arg(argv[i]);
        if (!fs::is_directory(arg)) {
            inputs.push_back(arg);
            continue;
        }
        for (const auto& entry : fs::directory_iterator(arg))
            if (entry.is_regular_file())
                inputs.push_back(entry.path());
    }
    std::sort(inputs.begin(), inputs.end());
    for (const fs::path& path : inputs) {
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            fprintf(stderr, "cannot read %s\n", path.c_str());
            return 2;
        }
        std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
        fprintf(stderr, "replay %s (%zu bytes)\n", path.c_str(), bytes.size());
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    printf("replayed %zu inputs\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}

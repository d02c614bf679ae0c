// Runs a fuzz target without libFuzzer: every file named on the command line, and every file of
// a folder named there, goes through LLVMFuzzerTestOneInput once. A folder that does not exist
// is skipped, so a target without kept inputs passes. A crash ends the run as it would end the
// fuzzer; a hang is left to the test's time-out.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fs = std::filesystem;

int main(int argc, char** argv) {
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        std::error_code ec;
        if (fs::is_directory(argv[i], ec)) {
            for (const fs::directory_entry& e : fs::directory_iterator(argv[i], ec))
                if (e.is_regular_file(ec)) inputs.push_back(e.path());
        } else if (fs::is_regular_file(argv[i], ec)) {
            inputs.push_back(argv[i]);
        }
    }
    std::sort(inputs.begin(), inputs.end());
    for (const fs::path& path : inputs) {
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "cannot read %s\n", path.c_str());
            return 1;
        }
        // A heap copy of exactly the file's size, so that a read past its end is caught.
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::vector<uint8_t> data(bytes.begin(), bytes.end());
        std::printf("%s (%zu bytes)\n", path.c_str(), data.size());
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(data.data(), data.size());
    }
    std::printf("%zu inputs replayed\n", inputs.size());
    return 0;
}

// Runs a fuzz target once on every file named on the command line, or on
// every regular file of a directory named there, so that the seed corpora are
// regression tests in builds without libFuzzer (gcc, the sanitizer trees).
// A target signals a broken property by aborting; this driver fails when it
// found nothing to replay, so an empty corpus cannot pass unnoticed.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace fs = std::filesystem;

// The files an argument names: itself, or a directory's files in name order.
static std::vector<fs::path> inputs_of(const fs::path &arg) {
    std::vector<fs::path> files;
    if (fs::is_directory(arg)) {
        for (const auto &entry : fs::directory_iterator(arg))
            if (entry.is_regular_file()) files.push_back(entry.path());
        std::sort(files.begin(), files.end());
    } else if (fs::is_regular_file(arg)) {
        files.push_back(arg);
    }
    return files;
}

// Feeds one file to the target; false when it cannot be read.
static bool replay(const fs::path &file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return false;
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // A copy of exactly the input's size, so a read past its end is caught
    // by AddressSanitizer as it would be under libFuzzer.
    std::vector<std::uint8_t> data(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(data.empty() ? nullptr : data.data(), data.size());
    return true;
}

int main(int argc, char **argv) {
    int count = 0;
    for (int i = 1; i < argc; i++) {
        for (const auto &file : inputs_of(argv[i])) {
            if (!replay(file)) {
                std::fprintf(stderr, "replay: cannot read %s\n", file.c_str());
                return 1;
            }
            count++;
        }
    }
    std::fprintf(stderr, "replay: %d inputs replayed\n", count);
    return count > 0 ? 0 : 1;
}

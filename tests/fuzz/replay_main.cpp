// Feeds a fuzz target each file of the corpus directories on its command line,
// in name order, so that the seeds are regression tests in trees without
// libFuzzer. A broken property aborts; an empty corpus fails too.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

int main(int argc, char **argv) {
    std::set<std::filesystem::path> files;  // in name order
    for (int i = 1; i < argc; i++)
        for (const auto &entry : std::filesystem::directory_iterator(argv[i])) files.insert(entry.path());
    for (const auto &file : files) {
        std::ifstream in(file, std::ios::binary);
        // Exactly the file's size, so a read past its end is caught by the sanitizers.
        std::vector<std::uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        LLVMFuzzerTestOneInput(data.empty() ? nullptr : data.data(), data.size());
    }
    std::fprintf(stderr, "replay: %zu inputs replayed\n", files.size());
    return files.empty() ? 1 : 0;
}

// Runs a fuzz target over the files of the directory that is the only argument, in the place of
// libFuzzer's main function.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <vector>

#include "fuzz.h"

namespace {

// A copy of exactly the input's size, so that a sanitizer sees what reads beyond it.
std::vector<std::uint8_t> ReadInput(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<std::uint8_t> bytes(std::istreambuf_iterator<char>(file), {});
    bytes.shrink_to_fit();
    return bytes;
}

}  // namespace

int main(int argc, char** argv) {
    std::set<std::filesystem::path> inputs;
    if (argc == 2) inputs.insert(std::filesystem::directory_iterator(argv[1]), {});
    for (const std::filesystem::path& path : inputs) {
        std::cout << path.filename().string() << std::endl;  // the last one is the one that failed
        const std::vector<std::uint8_t> bytes = ReadInput(path);
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    return inputs.empty() ? 1 : 0;
}

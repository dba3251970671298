// Runs a fuzz target over the files of the directory that is the only argument, and over inputs
// made from them, always the same: 1000, or as many as TASKMAN_RANDOM_INPUTS says. In the place of
// libFuzzer's main function.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
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

// An input like the kept ones: one with another one's end, and bytes of any value here and there.
std::vector<std::uint8_t> MakeInput(const std::vector<std::vector<std::uint8_t>>& kept,
                                    unsigned seed) {
    std::minstd_rand random(seed);
    const auto below = [&random](std::size_t limit) { return (random() >> 4) % limit; };
    std::vector<std::uint8_t> input = kept[below(kept.size())];
    const std::vector<std::uint8_t>& other = kept[below(kept.size())];
    const auto from = static_cast<std::ptrdiff_t>(below(other.size() + 1));
    input.resize(below(2 * input.size() + 2));
    input.insert(input.end(), other.begin() + from, other.end());
    for (std::size_t i = below(32); i > 0 && !input.empty(); --i) {
        input[below(input.size())] = static_cast<std::uint8_t>(random() >> 8);
    }
    input.shrink_to_fit();
    return input;
}

int Run(const std::vector<std::uint8_t>& input) {
    return LLVMFuzzerTestOneInput(input.data(), input.size());
}

}  // namespace

int main(int argc, char** argv) {
    std::set<std::filesystem::path> paths;
    if (argc == 2) paths.insert(std::filesystem::directory_iterator(argv[1]), {});
    std::vector<std::vector<std::uint8_t>> kept;
    // What is printed last is what failed.
    for (const std::filesystem::path& path : paths) {
        std::cout << path.filename().string() << std::endl;
        Run(kept.emplace_back(ReadInput(path)));
    }
    const char* wanted = std::getenv("TASKMAN_RANDOM_INPUTS");
    const int count = wanted != nullptr ? std::atoi(wanted) : 1000;
    for (int seed = 1; seed <= count && !kept.empty(); ++seed) {
        std::cout << "seed " << seed << std::endl;
        Run(MakeInput(kept, static_cast<unsigned>(seed)));
    }
    return kept.empty() ? 1 : 0;
}

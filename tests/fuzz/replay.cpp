// In the place of libFuzzer's main function: runs a fuzz target over the files of a directory, and
// over inputs made from them, always the same: 1000, or as many as TASKMAN_RANDOM_INPUTS says.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

// An input like the kept ones: one with another one's end, and bytes of any value here and there.
std::string MakeInput(const std::vector<std::string>& kept, unsigned seed) {
    std::minstd_rand random(seed);
    const auto below = [&random](std::size_t limit) { return (random() >> 4) % limit; };
    std::string input = kept[below(kept.size())];
    input.resize(below(2 * input.size() + 2));
    input += kept[below(kept.size())];
    for (std::size_t i = below(32); i > 0 && !input.empty(); --i) {
        input[below(input.size())] = static_cast<char>(random() >> 8);
    }
    return input;
}

// What is printed last is what failed.
void Run(const std::string& name, const std::string& input) {
    std::cout << name << std::endl;
    // Of exactly the input's size, so that a sanitizer sees what reads beyond it.
    const std::vector<std::uint8_t> bytes(input.begin(), input.end());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
    std::set<std::filesystem::path> paths;
    if (argc == 2) paths.insert(std::filesystem::directory_iterator(argv[1]), {});
    std::vector<std::string> kept;
    for (const std::filesystem::path& path : paths) {
        std::ifstream file(path, std::ios::binary);
        kept.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
        Run(path.filename(), kept.back());
    }
    const char* wanted = std::getenv("TASKMAN_RANDOM_INPUTS");
    const int count = wanted != nullptr ? std::atoi(wanted) : 1000;
    for (int seed = 1; seed <= count && !kept.empty(); ++seed) {
        Run("seed " + std::to_string(seed), MakeInput(kept, static_cast<unsigned>(seed)));
    }
    return kept.empty() ? 1 : 0;
}

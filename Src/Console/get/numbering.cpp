#include "Console/get/numbering.h"

#include <sys/stat.h>

#include <string_view>

#include "Console/base/utf8.h"
#include "Console/get/filename.h"

namespace {

constexpr std::size_t kLongestEnding = 16;
constexpr unsigned kMost = 1'000'000'000;

}  // namespace

std::string_view EndingOf(std::string_view name) {
    constexpr std::string_view kArchive = ".tar";
    const std::size_t dot = name.rfind('.');
    if (dot == name.npos || dot == 0 || name.size() - dot > kLongestEnding) return "";
    const std::string_view ending = name.substr(dot), stem = name.substr(0, dot);
    if (ending == ".part" || ending == ".info") return "";
    const bool archive = stem.ends_with(kArchive) && stem.size() > kArchive.size();
    return archive ? name.substr(dot - kArchive.size()) : ending;
}

std::string NumberedPath(const std::string& path, unsigned number) {
    if (number == 0) return path;
    const std::size_t begin = path.rfind('/') + 1;
    std::string_view name = std::string_view(path).substr(begin);
    const std::string_view ending = EndingOf(name);
    name.remove_suffix(ending.size());
    const std::string tail = "." + std::to_string(number) + std::string(ending);
    return path.substr(0, begin) + std::string(utf8::Head(name, LONGEST_NAME - tail.size())) + tail;
}

unsigned FreeNumber(const std::string& path, unsigned least) {
    const auto taken = [&path](unsigned number) {
        struct stat status {};
        return lstat(NumberedPath(path, number).c_str(), &status) == 0;
    };
    unsigned low = least - 1, high = least;
    for (unsigned step = 1; high < kMost && taken(high); step *= 2) {
        low = high;
        high += step;
    }
    while (high - low > 1) {
        const unsigned middle = low + (high - low) / 2;
        (taken(middle) ? low : high) = middle;
    }
    return high;
}

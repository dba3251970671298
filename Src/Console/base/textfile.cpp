#include "Console/base/textfile.h"

#include <cerrno>
#include <fstream>
#include <sstream>

#include "common/sysutility.h"

namespace {

constexpr std::size_t kMost = 64 * 1024;

}  // namespace

std::string ReadLines(const std::string& path, std::vector<std::string>& lines) {
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    std::string text(kMost + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!file.eof() && file.fail()) return sysutility::SystemFault("cannot read " + path, errno);
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > kMost) return path + " is longer than 65536 bytes";
    lines.clear();
    std::istringstream rest(text);
    for (std::string line; std::getline(rest, line);) {
        if (line.ends_with('\r')) line.pop_back();
        lines.push_back(std::move(line));
    }
    return "";
}

std::string ReadFirstLine(const std::string& path, std::string& line) {
    std::vector<std::string> lines;
    if (std::string fault = ReadLines(path, lines); !fault.empty()) return fault;
    if (lines.empty()) return path + " is empty";
    line = std::move(lines.front());
    return "";
}

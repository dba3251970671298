#include "Console/get/origin.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "Console/get/digest.h"
#include "common/file.h"
#include "common/platform.h"

namespace {

constexpr const char* kAttribute = "user.taskman.origin";

// The lines that have to be the same for the others to count.
std::string Identity(const struct stat& status, const std::string& address) {
    return "address=" + TextDigest(address) + "\nsize=" + std::to_string(status.st_size) +
           "\nmodified=" + std::to_string(platform::Modified(status)) + "\n";
}

// The value of the line of that key. The attribute may have come with the file from anywhere: what
// no header may hold is no value.
std::string ValueOf(std::string_view lines, std::string_view key) {
    const std::size_t line = lines.find(key);
    if (line == lines.npos || (line > 0 && lines[line - 1] != '\n')) return "";
    lines.remove_prefix(line + key.size());
    const std::string_view value = lines.substr(0, lines.find('\n'));
    const auto unfit = [](unsigned char c) { return c < ' ' || c == 0x7F; };
    return std::any_of(value.begin(), value.end(), unfit) ? "" : std::string(value);
}

// A malformed ETag, or one that was cut on its way from the worker, would spoil the request.
bool IsTag(std::string_view etag) {
    const std::size_t begin = etag.find('"');
    return (begin == 0 || etag.starts_with("W/\"")) && etag.find('"', begin + 1) == etag.size() - 1;
}

}  // namespace

void NoteOrigin(int file, const std::string& address, const Marks& marks) {
    struct stat status {};
    if (!marks.Any() || fstat(file, &status) != 0) return;
    const std::string text = Identity(status, address) + "etag=" + marks.etag +
                             "\nlast-modified=" + marks.lastModified + "\n";
    static_cast<void>(platform::SetAttribute(file, kAttribute, text));
}

Marks OriginMarks(const std::string& path, const std::string& address) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
    const std::string noted = platform::Attribute(file.Get(), kAttribute);
    const std::string identity = Identity(status, address);
    if (!noted.starts_with(identity)) return {};
    const std::string_view rest = std::string_view(noted).substr(identity.size());
    Marks marks{ValueOf(rest, "etag="), ValueOf(rest, "last-modified=")};
    if (!IsTag(marks.etag)) marks.etag.clear();
    return marks;
}

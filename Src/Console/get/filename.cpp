#include "Console/get/filename.h"

#include <strings.h>

#include <algorithm>
#include <filesystem>

#include "Console/base/utf8.h"
#include "Console/get/numbering.h"
#include "TaskMan/partrecord.h"
#include "common/address.h"
#include "common/stringutility.h"
#include "common/sysutility.h"

namespace {

const std::string kNoName = "download";
const std::string kVideoExtension = ".flv";

std::string_view AfterLast(std::string_view text, char separator) {
    const std::size_t found = text.rfind(separator);
    return found == std::string_view::npos ? text : text.substr(found + 1);
}

// The last part of the address's path, still encoded.
std::string_view LastPart(std::string_view address) {
    std::string_view rest = address.substr(0, address.find_first_of("?#"));
    if (const std::size_t scheme = rest.find("://"); scheme != std::string_view::npos) {
        rest.remove_prefix(scheme + 3);
    }
    const std::size_t path = rest.find('/');
    return path == std::string_view::npos ? std::string_view() : AfterLast(rest, '/');
}

// The text as a name of at most `limit` bytes; empty when a name can hold nothing of it. A long one
// keeps its ending.
std::string SafeName(std::string_view text, std::size_t limit) {
    std::string name;
    while (!text.empty()) {
        const utf8::Character next = utf8::First(text);
        const std::string_view bytes = text.substr(0, next.length);
        text.remove_prefix(next.length);
        if (!next.valid || next.code == '\\') {
            name += '_';
        } else if (!utf8::IsControl(next.code) && !(next.code == '.' && name.empty())) {
            name += bytes;
        }
    }
    if (name.size() <= limit) return name;
    const std::string_view ending = EndingOf(name);
    return std::string(utf8::Head(name, limit - ending.size())).append(ending);
}

}  // namespace

std::string AddressFault(std::string_view address, std::size_t most) {
    if (address.empty()) return "the address is empty";
    if (!IsHttpAddress(address)) return "not an http or https address";
    const auto unfit = [](char c) { return static_cast<unsigned char>(c) <= ' ' || c == '\x7F'; };
    if (std::any_of(address.begin(), address.end(), unfit)) {
        return "a blank or control character in the address";
    }
    if (address.size() > most) {
        return "the address is longer than " + std::to_string(most) + " bytes";
    }
    return AuthorityFault(AuthorityOf(address));
}

std::string NameFault(std::string_view name) {
    if (name.empty() || name == "-" || name.back() == '/') return "the name of a file is needed";
    return name.find('\0') == std::string_view::npos ? "" : "a zero byte in the name";
}

std::string NameFromAddress(std::string_view address) {
    const std::string decoded = PercentDecode(LastPart(address));
    // An encoded "/" separates, too: "dir%2Ffile" gives "file".
    const std::string name = SafeName(AfterLast(decoded, '/'), LONGEST_NAME);
    return strutil::trim(name).empty() ? kNoName : name;
}

std::string PathIn(const std::string& directory, const std::string& name) {
    if (!directory.empty() && name.front() != '/') {
        return directory + (directory.back() == '/' ? "" : "/") + name;
    }
    return name.front() == '-' ? "./" + name : name;
}

std::string FindablePath(const std::string& path) {
    std::error_code error;
    std::string absolute = std::filesystem::absolute(path, error);
    const bool usable = !error && absolute.size() < sizeof(tagTaskInfo::szFilePath) &&
                        absolute.find('\\') == std::string::npos;
    return usable ? absolute : path;
}

std::string NameFromServer(std::string_view text) {
    std::string name = SafeName(AfterLast(AfterLast(text, '/'), '\\'), LONGEST_NAME - 1);
    if (strutil::trim(name).empty()) return "";
    const std::string part = TASK_PART_ENDING, record = part + PART_RECORD_ENDING;
    for (const std::string& ending : {part, record}) {
        const std::size_t length = std::min(name.size(), ending.size());
        // Some file systems take small and capital letters for the same.
        if (strcasecmp(name.c_str() + name.size() - length, ending.c_str()) == 0) return name + '_';
    }
    return name;
}

std::string NameFromTitle(const std::string& title) {
    if (strutil::trim(title).empty()) return kNoName + kVideoExtension;
    const std::string name =
        SafeName(sysutility::MakeFileName(title), LONGEST_NAME - kVideoExtension.size());
    return (strutil::trim(name).empty() ? kNoName : name) + kVideoExtension;
}

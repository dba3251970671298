#include "Tarnwick/youtubeutility.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <vector>

#include "Tarnwick/videoinfo.h"
#include "common/assertion.h"
#include "common/decimal.h"
#include "common/stringutility.h"
#include "common/sysutility.h"

namespace {

constexpr const char* kSource = "Src/Tarnwick/youtubeutility";
constexpr const char* kPreferredFormats = "35,34,5";
constexpr const char* kFileExtension = ".flv";

struct Format {
    std::string id;
    std::int32_t area;
};

// Width times height as a 32-bit number: the product wraps.
std::int32_t Area(std::uint32_t width, std::uint32_t height) {
    return static_cast<std::int32_t>(width * height);
}

// An item of the list of formats; nothing when it has no frame size.
std::optional<Format> ReadFormat(const std::string& item) {
    const std::vector<std::string> fields = strutil::split(strutil::trim(item), "/");
    if (fields.size() < 2) return std::nullopt;
    const std::vector<std::string> sizes = strutil::split(fields[1], "x");
    if (sizes.size() < 2) return std::nullopt;
    const auto width = LeadingNumber(sizes[0]);
    const auto height = LeadingNumber(sizes[1]);
    if (!width || !height) return std::nullopt;
    return Format{fields[0], Area(*width, *height)};
}

std::vector<std::string> TrimmedLines(const std::string& text) {
    std::vector<std::string> lines = strutil::split(text, "\r\n");
    for (std::string& line : lines) line = strutil::trim(line);
    return lines;
}

// The first list of formats that is not empty; empty when there is none.
std::string FormatList(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        for (const std::string& key : {YOTUBE_FMT_LIST_PREFIX, YOTUBE_FMT_MAP_PREFIX}) {
            if (line.starts_with(key) && line.size() > key.size()) {
                return strutil::getContent(line, key);
            }
        }
    }
    return {};
}

// The id of the format to take from the list; empty when it lists none.
std::string SelectFormat(const std::string& list, bool bUseLastFormat) {
    std::vector<std::string> ids;
    for (const std::string& item : strutil::split(list, ",")) {
        const std::vector<std::string> fields = strutil::split(strutil::trim(item), "/");
        if (!fields.empty()) ids.push_back(fields[0]);
    }
    if (ids.empty()) return {};
    if (!bUseLastFormat) {
        for (const std::string& preferred : strutil::split(kPreferredFormats, ",")) {
            if (std::find(ids.begin(), ids.end(), preferred) != ids.end()) return preferred;
        }
    }
    return ids.back();
}

// The address of the first entry of the map that begins with `id`; empty when there is none.
std::string FindAddress(const std::string& map, const std::string& id) {
    for (const std::string& item : strutil::split(map, ",")) {
        const std::string entry = strutil::trim(item);
        if (!entry.starts_with(id)) continue;
        const std::vector<std::string> parts = strutil::split(entry, "|");
        if (parts.size() > 1) return parts[1];
    }
    return {};
}

}  // namespace

std::string GetYoutubeVideoMapIDForSize(int width, int height, std::string strfmtmap) {
    const auto require = [](bool holds, const char* expression) {
        assertion::Require(holds, "GetYoutubeVideoMapIDForSize", kSource, expression);
    };
    require(0 < strfmtmap.length(), "0 < strfmtmap.length()");
    const std::int64_t wanted =
        Area(static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height));
    const std::vector<std::string> vecfmtmap = strutil::split(strfmtmap, ",");
    require(0 < vecfmtmap.size(), "0 < vecfmtmap.size()");

    std::string strfmtID;
    std::int64_t smallest = 0;
    for (const std::string& item : vecfmtmap) {
        const std::optional<Format> format = ReadFormat(item);
        if (!format) continue;
        const std::int64_t difference = std::abs(wanted - format->area);
        if (strfmtID.empty() || difference < smallest) {
            strfmtID = format->id;
            smallest = difference;
        }
    }
    require(0 < strfmtID.length(), "0 < strfmtID.length()");
    return strfmtID;
}

std::string ParseYoutubeVideoInfo(std::string strVideoInfo, bool bUseLastFormat,
                                  std::string& strFileName, std::string& strDownloadUrl) {
    const std::vector<std::string> lines = TrimmedLines(strVideoInfo);
    assertion::Require(!lines.empty(), "ParseYoutubeVideoInfo", kSource, "0");
    if (std::find(lines.begin(), lines.end(), "status=fail") != lines.end()) return {};

    const std::string id = SelectFormat(FormatList(lines), bUseLastFormat);
    std::string address;
    std::string name;
    for (const std::string& line : lines) {
        if (line.starts_with(YOTUBE_FMT_URL_MAP_PREFIX)) {
            const std::string map = strutil::getContent(line, YOTUBE_FMT_URL_MAP_PREFIX);
            const std::string found = FindAddress(map, id);
            if (!found.empty()) address = found;
        } else if (line.starts_with(YOTUBE_TITLE_PREFIX)) {
            const std::string title = strutil::getContent(line, YOTUBE_TITLE_PREFIX);
            if (!title.empty()) name = sysutility::MakeFileName(title) + kFileExtension;
        }
    }
    if (!name.empty()) strFileName = name;
    if (!address.empty()) strDownloadUrl = address;
    return address;
}

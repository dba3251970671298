#include "Tarnwick/youtubeutility.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "Tarnwick/videoinfo.h"
#include "common/assertion.h"
#include "common/decimal.h"
#include "common/stringutility.h"
#include "common/sysutility.h"

namespace {

constexpr const char* kSource = "Src/Tarnwick/youtubeutility";
constexpr const char* kPreferredFormats[] = {"35", "34", "5"};
constexpr const char* kFileExtension = ".flv";

void RequireForSize(bool holds, const char* expression, int line = __builtin_LINE()) {
    assertion::Require(holds, "GetYoutubeVideoMapIDForSize", kSource, expression, line);
}

// The formats of the items of a list; items without an id are left out.
std::vector<ListedFormat> ReadFormatItems(const std::vector<std::string>& items) {
    std::vector<ListedFormat> formats;
    for (const std::string& item : items) {
        const std::vector<std::string> fields = strutil::split(strutil::trim(item), "/");
        if (fields.empty()) continue;
        ListedFormat& format = formats.emplace_back();
        format.id = fields[0];
        if (fields.size() < 2) continue;
        const std::vector<std::string> sides = strutil::split(fields[1], "x");
        if (sides.size() < 2) continue;
        format.hasFrame = true;
        format.width = LeadingNumber(sides[0]);
        format.height = LeadingNumber(sides[1]);
    }
    return formats;
}

// The id of the format to use from the list; empty when it lists none.
std::string SelectFormat(const std::vector<ListedFormat>& list, bool bUseLastFormat) {
    if (list.empty()) return {};
    if (!bUseLastFormat) {
        for (const char* preferred : kPreferredFormats) {
            const auto is = [&](const ListedFormat& format) { return format.id == preferred; };
            if (std::any_of(list.begin(), list.end(), is)) return preferred;
        }
    }
    return list.back().id;
}

// The address of the first entry of the map that begins with `id`; empty when there is none.
std::string FindAddress(const std::string& map, const std::string& id) {
    for (const MapEntry& entry : ReadAddressMap(map)) {
        if (entry.text.starts_with(id)) return entry.address;
    }
    return {};
}

}  // namespace

std::vector<std::string> TrimmedLines(const std::string& text) {
    std::vector<std::string> lines = strutil::split(text, "\r\n");
    for (std::string& line : lines) line = strutil::trim(line);
    return lines;
}

std::string ValueOf(const std::string& line, const std::string& key) {
    return line.starts_with(key) ? line.substr(key.size()) : "";
}

std::vector<ListedFormat> ReadFormatList(const std::vector<std::string>& lines) {
    std::string list;
    for (const std::string& line : lines) {
        if (list.empty()) list = ValueOf(line, YOTUBE_FMT_LIST_PREFIX);
        if (list.empty()) list = ValueOf(line, YOTUBE_FMT_MAP_PREFIX);
    }
    return ReadFormatItems(strutil::split(list, ","));
}

std::vector<MapEntry> ReadAddressMap(const std::string& map) {
    std::vector<MapEntry> entries;
    for (const std::string& item : strutil::split(map, ",")) {
        const std::string entry = strutil::trim(item);
        const std::vector<std::string> parts = strutil::split(entry, "|");
        if (parts.size() > 1) entries.push_back({entry, parts[0], parts[1]});
    }
    return entries;
}

std::int64_t FrameDistance(std::uint32_t width, std::uint32_t height, int wantedWidth,
                           int wantedHeight) {
    const std::uint32_t wanted =
        static_cast<std::uint32_t>(wantedWidth) * static_cast<std::uint32_t>(wantedHeight);
    return std::abs(std::int64_t{static_cast<std::int32_t>(wanted)} -
                    static_cast<std::int32_t>(width * height));
}

std::string GetYoutubeVideoMapIDForSize(int width, int height, std::string strfmtmap) {
    RequireForSize(0 < strfmtmap.length(), "0 < strfmtmap.length()");
    const std::vector<std::string> vecfmtmap = strutil::split(strfmtmap, ",");
    RequireForSize(0 < vecfmtmap.size(), "0 < vecfmtmap.size()");

    std::string strfmtID;
    std::int64_t smallest = 0;
    for (const ListedFormat& format : ReadFormatItems(vecfmtmap)) {
        if (!format.hasFrame) continue;
        const std::int64_t distance =
            FrameDistance(format.width.value_or(0), format.height.value_or(0), width, height);
        if (strfmtID.empty() || distance < smallest) {
            strfmtID = format.id;
            smallest = distance;
        }
    }
    RequireForSize(0 < strfmtID.length(), "0 < strfmtID.length()");
    return strfmtID;
}

std::string ParseYoutubeVideoInfo(std::string strVideoInfo, bool bUseLastFormat,
                                  std::string& strFileName, std::string& strDownloadUrl) {
    const std::vector<std::string> lines = TrimmedLines(strVideoInfo);
    assertion::Require(!lines.empty(), "ParseYoutubeVideoInfo", kSource, "0");
    if (std::find(lines.begin(), lines.end(), "status=fail") != lines.end()) return {};

    const std::string id = SelectFormat(ReadFormatList(lines), bUseLastFormat);
    std::string address;
    std::string name;
    for (const std::string& line : lines) {
        const std::string found = FindAddress(ValueOf(line, YOTUBE_FMT_URL_MAP_PREFIX), id);
        if (!found.empty()) address = found;
        const std::string title = ValueOf(line, YOTUBE_TITLE_PREFIX);
        if (!title.empty()) name = sysutility::MakeFileName(title) + kFileExtension;
    }
    if (!name.empty()) strFileName = name;
    if (!address.empty()) strDownloadUrl = address;
    return address;
}

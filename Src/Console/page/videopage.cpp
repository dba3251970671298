#include "Console/page/videopage.h"

#include <algorithm>
#include <charconv>
#include <set>
#include <string_view>

#include "Tarnwick/videoinfo.h"
#include "Tarnwick/youtubeutility.h"
#include "common/decimal.h"
#include "common/stringutility.h"

namespace {

constexpr int kLargestSide = 32767;  // the area of such a frame is a 32-bit number

// The whole text as a number; nothing when it is none.
template <class Number>
std::optional<Number> WholeNumber(std::string_view text) {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

// What stands behind the key that the line begins with; empty when it begins otherwise.
std::string Value(const std::string& line, const std::string& key) {
    return line.starts_with(key) ? line.substr(key.size()) : "";
}

VideoFormat& FormatOf(VideoPage& page, const std::string& id) {
    const auto found = std::find_if(page.formats.begin(), page.formats.end(),
                                    [&id](const VideoFormat& format) { return format.id == id; });
    if (found != page.formats.end()) return *found;
    page.formats.push_back({id, {}, {}, {}});
    return page.formats.back();
}

// The list: 34/640x360,5/320x240
void ReadList(const std::string& list, VideoPage& page) {
    for (const std::string& item : strutil::split(list, ",")) {
        const std::vector<std::string> fields = strutil::split(strutil::trim(item), "/");
        const std::string id = fields.empty() ? "" : strutil::trim(fields[0]);
        if (id.empty()) continue;
        VideoFormat& format = FormatOf(page, id);
        if (format.width || fields.size() < 2) continue;
        const std::vector<std::string> sides = strutil::split(fields[1], "x");
        if (sides.size() < 2) continue;
        const auto width = LeadingNumber(sides[0]);
        const auto height = LeadingNumber(sides[1]);
        if (!width || !height) continue;
        format.width = width;
        format.height = height;
    }
}

// The map: 34|http://host/one,5|http://host/two. Of several entries with an id the first counts.
void ReadMap(const std::string& map, VideoPage& page) {
    std::set<std::string> seen;
    for (const std::string& item : strutil::split(map, ",")) {
        const std::vector<std::string> parts = strutil::split(strutil::trim(item), "|");
        const std::string id = parts.size() < 2 ? "" : strutil::trim(parts[0]);
        if (id.empty() || !seen.insert(id).second) continue;
        FormatOf(page, id).address = parts[1];
    }
}

// A page without title or picture has the id of the video, or a usual address, on a line without a
// key.
void ReadBareLine(const std::string& line, VideoPage& page) {
    if (line.starts_with("http://") || line.starts_with("https://")) {
        if (page.thumbnail.empty()) page.thumbnail = line;
    } else if (page.title.empty() && line.find('=') == std::string::npos) {
        page.title = line;
    }
}

}  // namespace

std::string ParseFrameSize(const std::string& text, FormatWish& wish) {
    const std::size_t x = text.find('x');
    const auto side = [](std::string_view digits) {
        const int number = WholeNumber<int>(digits).value_or(0);
        return number <= kLargestSide ? number : 0;
    };
    const int width = side(std::string_view(text).substr(0, x));
    const int height = x == std::string::npos ? 0 : side(std::string_view(text).substr(x + 1));
    if (width < 1 || height < 1) return "a size such as 640x360 is needed";
    wish.width = width;
    wish.height = height;
    return "";
}

VideoPage ReadVideoPage(const std::string& text) {
    VideoPage page;
    std::vector<std::string> lines = strutil::split(text, "\r\n");
    if (lines.empty()) return page;
    for (std::string& line : lines) line = strutil::trim(line);

    std::string list;
    std::string title;
    for (const std::string& line : lines) {
        for (const std::string& key : {YOTUBE_FMT_LIST_PREFIX, YOTUBE_FMT_MAP_PREFIX}) {
            if (list.empty()) list = Value(line, key);
        }
        if (std::string value = Value(line, YOTUBE_TITLE_PREFIX); !value.empty()) title = value;
    }
    ReadList(list, page);
    for (const std::string& line : lines) {
        ReadMap(Value(line, YOTUBE_FMT_URL_MAP_PREFIX), page);
        const std::string thumbnail = Value(line, YOTUBE_THUMBNAIL_PREFIX);
        if (!thumbnail.empty()) page.thumbnail = thumbnail;
        const auto length = WholeNumber<std::uint64_t>(Value(line, YOTUBE_SECONDS_PREFIX));
        if (length) page.length = length;
        ReadBareLine(line, page);
    }
    if (!title.empty()) page.title = title;
    std::string name;
    std::string address;
    page.usual = ParseYoutubeVideoInfo(text, false, name, address);
    return page;
}

const VideoFormat* Choose(const VideoPage& page, const FormatWish& wish) {
    const auto first = [&page](const auto& fits) -> const VideoFormat* {
        const auto found =
            std::find_if(page.formats.begin(), page.formats.end(),
                         [&fits](const VideoFormat& f) { return !f.address.empty() && fits(f); });
        return found == page.formats.end() ? nullptr : &*found;
    };
    if (!wish.Given()) return first([&](const VideoFormat& f) { return f.address == page.usual; });
    std::string id = wish.id;
    if (id.empty()) {
        std::string list;
        for (const VideoFormat& format : page.formats) {
            if (format.address.empty() || !format.width) continue;
            list += (list.empty() ? "" : ",") + format.id + "/" + std::to_string(*format.width) +
                    "x" + std::to_string(*format.height);
        }
        if (list.empty()) return nullptr;
        id = GetYoutubeVideoMapIDForSize(wish.width, wish.height, list);
    }
    return first([&id](const VideoFormat& format) { return format.id == id; });
}

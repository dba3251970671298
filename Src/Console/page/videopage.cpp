#include "Console/page/videopage.h"

#include <algorithm>
#include <charconv>
#include <set>
#include <string_view>

#include "Tarnwick/videoinfo.h"
#include "Tarnwick/youtubeutility.h"
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

VideoFormat& FormatOf(VideoPage& page, const std::string& id) {
    const auto found = std::find_if(page.formats.begin(), page.formats.end(),
                                    [&id](const VideoFormat& format) { return format.id == id; });
    if (found != page.formats.end()) return *found;
    page.formats.push_back({id, {}, {}, {}});
    return page.formats.back();
}

// Of several frames of a format the first counts.
void NoteFormats(const std::vector<ListedFormat>& list, VideoPage& page) {
    for (const ListedFormat& listed : list) {
        const std::string id = strutil::trim(listed.id);
        if (id.empty()) continue;
        VideoFormat& format = FormatOf(page, id);
        if (format.width || !listed.width || !listed.height) continue;
        format.width = listed.width;
        format.height = listed.height;
    }
}

// Of several entries of a map with one id the first counts.
void NoteAddresses(const std::vector<MapEntry>& map, VideoPage& page) {
    std::set<std::string> seen;
    for (const MapEntry& entry : map) {
        const std::string id = strutil::trim(entry.id);
        if (id.empty() || !seen.insert(id).second) continue;
        FormatOf(page, id).address = entry.address;
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
    const std::vector<std::string> lines = TrimmedLines(text);
    if (lines.empty()) return page;
    NoteFormats(ReadFormatList(lines), page);
    std::string title;
    for (const std::string& line : lines) {
        if (std::string value = ValueOf(line, YOTUBE_TITLE_PREFIX); !value.empty()) title = value;
        NoteAddresses(ReadAddressMap(ValueOf(line, YOTUBE_FMT_URL_MAP_PREFIX)), page);
        const std::string thumbnail = ValueOf(line, YOTUBE_THUMBNAIL_PREFIX);
        if (!thumbnail.empty()) page.thumbnail = thumbnail;
        const auto length = WholeNumber<std::uint64_t>(ValueOf(line, YOTUBE_SECONDS_PREFIX));
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
    const bool bySize = wish.id.empty() && wish.width > 0;
    const VideoFormat* chosen = nullptr;
    std::int64_t smallest = 0;
    for (const VideoFormat& format : page.formats) {
        if (format.address.empty()) continue;
        if (!bySize) {
            if (wish.id.empty() ? format.address == page.usual : format.id == wish.id) {
                return &format;
            }
            continue;
        }
        if (!format.width) continue;
        const std::int64_t distance =
            FrameDistance(*format.width, *format.height, wish.width, wish.height);
        if (chosen == nullptr || distance < smallest) {
            chosen = &format;
            smallest = distance;
        }
    }
    return chosen;
}

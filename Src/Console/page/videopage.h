// What a resolved video page offers, read from its information text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct VideoFormat {
    std::string id{};
    std::optional<std::uint32_t> width{};  // of the frame, pixels; height is there when width is
    std::optional<std::uint32_t> height{};
    std::string address{};  // of the file, as the site gives it; empty: it gives none
};

struct VideoPage {
    std::string title{};                    // as the site gives it; may be empty
    std::optional<std::uint64_t> length{};  // seconds
    std::string thumbnail{};                // address of the picture; may be empty
    std::vector<VideoFormat> formats{};     // the listed ones, then those that only have an address
    std::string usual{};                    // address used when no format is requested; empty: none
};

// Which format is wanted: the one with the id; without an id the one whose frame comes closest to
// the size; without a size the usual one.
struct FormatWish {
    std::string id{};
    int width = 0;  // 1 to 32767, 0: no size is given
    int height = 0;

    bool Given() const { return !id.empty() || width > 0; }
};

// Reads "640x360" into the wish. Returns the fault in one line; empty when the size was set.
std::string ParseFrameSize(const std::string& text, FormatWish& wish);

// Reads any text, whatever is in it.
VideoPage ReadVideoPage(const std::string& text);

// Why Choose returns null.
constexpr const char* NO_SUCH_FORMAT = "the page has no such format";

// The wanted one of the page's formats that have an address; null when it has no such format.
const VideoFormat* Choose(const VideoPage& page, const FormatWish& wish);

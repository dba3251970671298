#include "Tarnwick/videoinfo.h"

#include <cstddef>
#include <string_view>

#include "common/httputility.h"

static_assert(std::string_view(TASKMAN_THUMBNAIL_HOST).find('%') == std::string_view::npos,
              "the thumbnail host becomes part of a format");

const std::string YOTUBE_DEFAULT_THUMBNAIL = "http://" TASKMAN_THUMBNAIL_HOST "/vi/%s/default.jpg";

std::string g_DefaultTitle;
std::string g_DefaultThumbnail;

namespace {

constexpr const char* kLineEnd = "\r\n";

// Position behind the first `key` at or behind `from`; npos when there is none, or `from` is npos.
std::size_t FindBehind(std::string_view page, std::string_view key, std::size_t from = 0) {
    const std::size_t found = page.find(key, from);
    return found == std::string_view::npos ? found : found + key.size();
}

// The text from `begin` up to the next `endMark`; empty when there is no such mark, or `begin` is
// npos.
std::string ValueUpTo(std::string_view page, std::size_t begin, std::string_view endMark) {
    const std::size_t end = page.find(endMark, begin);
    if (end == std::string_view::npos) return {};
    return std::string(page.substr(begin, end - begin));
}

std::string ValueBehind(std::string_view page, std::string_view key, std::string_view endMark) {
    return ValueUpTo(page, FindBehind(page, key), endMark);
}

std::string HeadingTitle(std::string_view page) {
    const std::size_t heading = FindBehind(page, YOTUBE_KEY_TITLE1);
    return ValueUpTo(page, FindBehind(page, YOTUBE_KEY_TITLE2, heading), YOTUBE_KEY_TITLE3);
}

std::string TitleLine(const std::string& encoded) {
    return YOTUBE_TITLE_PREFIX + HttpUtility::HtmlEntityDecode(HttpUtility::HtmlDecode(encoded)) +
           kLineEnd;
}

std::string TitleLines(std::string_view page) {
    const std::string title = ValueBehind(page, YOTUBE_KEY_META_TITLE, YOTUBE_META_END_MARK);
    if (!title.empty()) return TitleLine(title);
    const std::string heading = HeadingTitle(page);
    return (heading.empty() ? g_DefaultTitle + kLineEnd : TitleLine(heading)) + g_DefaultThumbnail +
           kLineEnd;
}

std::string ThumbnailLine(std::string_view page) {
    const std::string thumbnail = ValueBehind(page, YOTUBE_KEY_THUMBNAIL, YOTUBE_META_END_MARK);
    return (thumbnail.empty() ? g_DefaultThumbnail : YOTUBE_THUMBNAIL_PREFIX + thumbnail) +
           kLineEnd;
}

std::string ParameterLines(std::string_view page) {
    struct Parameter {
        const std::string& pageKey;
        const std::string& prefix;
    };
    static const Parameter kParameters[] = {
        {YOTUBE_KEY_FMT_STREAM_MAP, YOTUBE_FMT_STREAM_MAP_PREFIX},
        {YOTUBE_KEY_FMT_MAP, YOTUBE_FMT_MAP_PREFIX},
        {YOTUBE_KEY_FMT_URL_MAP, YOTUBE_FMT_URL_MAP_PREFIX},
        {YOTUBE_KEY_FMT_LIST, YOTUBE_FMT_LIST_PREFIX},
        {YOTUBE_KEY_SECONDS, YOTUBE_SECONDS_PREFIX},
        {YOTUBE_KEY_TIMESTAMP, YOTUBE_TIMESTAMP_PREFIX},
    };
    std::string lines;
    for (const auto& [pageKey, prefix] : kParameters) {
        const std::string value = ValueBehind(page, pageKey, YOTUBE_KEY_AMP);
        if (!value.empty()) lines += prefix + value + kLineEnd;
    }
    return lines;
}

}  // namespace

std::string ParseYoutubeInfo(std::string page) {
    return "status=ok\r\n" + TitleLines(page) + ThumbnailLine(page) + ParameterLines(page);
}

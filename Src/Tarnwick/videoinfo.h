// The video information text, and how it is scraped from a video page.
//
// The text is lines of the form key=value, each ended by CR LF: the result of a parse task.
#pragma once

#include <string>

// Keys of the information text.
inline const std::string YOTUBE_TITLE_PREFIX = "title=";
inline const std::string YOTUBE_THUMBNAIL_PREFIX = "thumbnail_url=";
inline const std::string YOTUBE_FMT_STREAM_MAP_PREFIX = "url_encoded_fmt_stream_map=";
inline const std::string YOTUBE_FMT_MAP_PREFIX = "fmt_map=";
inline const std::string YOTUBE_FMT_URL_MAP_PREFIX = "fmt_url_map=";
inline const std::string YOTUBE_FMT_LIST_PREFIX = "fmt_list=";
inline const std::string YOTUBE_SECONDS_PREFIX = "length_seconds=";
inline const std::string YOTUBE_TIMESTAMP_PREFIX = "timestamp=";

// Keys of a page. Title and thumbnail stand in meta tags ...
inline const std::string YOTUBE_KEY_META_TITLE = R"(<meta property="og:title" content=")";
inline const std::string YOTUBE_KEY_THUMBNAIL = R"(<meta property="og:image" content=")";
inline const std::string YOTUBE_META_END_MARK = R"(">)";

// ... the title also in an attribute (3 ends it) of the element of the page's heading, ...
inline const std::string YOTUBE_KEY_TITLE1 = R"(id="eow-title")";
inline const std::string YOTUBE_KEY_TITLE2 = R"(title=")";
inline const std::string YOTUBE_KEY_TITLE3 = R"(">)";

// ... and the rest among the parameters of the player, each ended by the beginning of the next.
inline const std::string YOTUBE_KEY_AMP = "&amp;";
inline const std::string YOTUBE_KEY_FMT_STREAM_MAP = "&amp;url_encoded_fmt_stream_map=";
inline const std::string YOTUBE_KEY_FMT_MAP = "&amp;fmt_map=";
inline const std::string YOTUBE_KEY_FMT_URL_MAP = "&amp;fmt_url_map=";
inline const std::string YOTUBE_KEY_FMT_LIST = "&amp;fmt_list=";
inline const std::string YOTUBE_KEY_SECONDS = "&amp;length_seconds=";
inline const std::string YOTUBE_KEY_TIMESTAMP = "&amp;timestamp=";

// Address of the thumbnail of a video: a format with one %s for the id of the video.
extern const std::string YOTUBE_DEFAULT_THUMBNAIL;

// Used where a page has no title or thumbnail: the id of the video, and YOTUBE_DEFAULT_THUMBNAIL
// with that id. Set before ParseYoutubeInfo is called, on the same thread.
extern std::string g_DefaultTitle;
extern std::string g_DefaultThumbnail;

// Makes the information text of a video page, whose percent escapes are decoded already. In this
// order: the line "status=ok"; the title, decoded to plain text; if the page has no title tag,
// g_DefaultThumbnail; the thumbnail; then, each only if the page has it, the maps and lists of
// formats, the length in seconds and the timestamp, as found. A default has no key in front. There
// is no failure: any other page gives the defaults.
std::string ParseYoutubeInfo(std::string page);

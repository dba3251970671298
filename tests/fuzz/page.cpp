// Scraping the information text out of a page.
#include "Tarnwick/videoinfo.h"
#include "Tarnwick/youtubeutility.h"
#include "fuzz.h"
#include "models.h"

using fuzz::Expect;

namespace {

constexpr const char* kThumbnail = "http://t/v.jpg";
constexpr const char* kParameters[] = {"url_encoded_fmt_stream_map=",
                                       "fmt_map=",
                                       "fmt_url_map=",
                                       "fmt_list=",
                                       "length_seconds=",
                                       "timestamp="};

// What stands between the first `key` and the next `end`; empty when one of them is missing.
std::string Between(const std::string& text, const std::string& key, const std::string& end) {
    const std::size_t at = text.find(key);
    if (at == std::string::npos) return "";
    const std::string behind = text.substr(at + key.size());
    return behind.find(end) == std::string::npos ? "" : behind.substr(0, behind.find(end));
}

std::string Title(const std::string& page) {
    const std::string tag = Between(page, "<meta property=\"og:title\" content=\"", "\">");
    const std::size_t heading = page.find("id=\"eow-title\"");
    if (!tag.empty() || heading == std::string::npos) return tag;
    return Between(page.substr(heading + 14), "title=\"", "\">");
}

std::string Model(const std::string& page) {
    const bool tagged = !Between(page, "<meta property=\"og:title\" content=\"", "\">").empty();
    const std::string title = Title(page);
    const std::string image = Between(page, "<meta property=\"og:image\" content=\"", "\">");
    std::string text = "status=ok\r\n";
    text += title.empty() ? "v" : "title=" + models::DecodeReferences(models::DecodeForm(title));
    if (!tagged) text += std::string("\r\n") + kThumbnail;
    text += "\r\n" + (image.empty() ? kThumbnail : "thumbnail_url=" + image) + "\r\n";
    for (const std::string key : kParameters) {
        const std::string value = Between(page, "&amp;" + key, "&amp;");
        if (!value.empty()) text += key + value + "\r\n";
    }
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    g_DefaultTitle = "v";
    g_DefaultThumbnail = kThumbnail;
    const std::string page = fuzz::Input(data, size).Rest();
    const std::string text = ParseYoutubeInfo(page);
    Expect(text == Model(page), "the model agrees");

    // Whatever the page was, its text can be read.
    std::string name;
    std::string address;
    Expect(ParseYoutubeVideoInfo(text, false, name, address) == address, "an address is stored");
    return 0;
}

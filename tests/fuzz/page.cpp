// Scraping the information text out of a page.
#include "Tarnwick/videoinfo.h"
#include "Tarnwick/youtubeutility.h"
#include "fuzz.h"

void Fuzz(Input input) {
    g_DefaultTitle = "v";
    g_DefaultThumbnail = "http://t/v.jpg";
    const std::string page = input.Text();
    const std::string text = ParseYoutubeInfo(page);
    Expect(text.starts_with("status=ok\r\n"), "the page was read");

    std::string parameters;
    for (const std::string key : {"url_encoded_fmt_stream_map=", "fmt_map=", "fmt_url_map=",
                                  "fmt_list=", "length_seconds=", "timestamp="}) {
        const std::size_t begin = page.find("&amp;" + key);
        const std::size_t end = page.find("&amp;", std::min(begin, page.size()) + 1);
        if (begin == page.npos || end == page.npos) continue;
        const std::string line = page.substr(begin + 5, end - begin - 5);
        if (line != key) parameters += line + "\r\n";
    }
    Expect(text.ends_with("\r\n" + parameters), "the player's parameters are its last lines");

    // Whatever the page was, its text can be read.
    std::string name;
    std::string address;
    Expect(ParseYoutubeVideoInfo(text, false, name, address) == address, "an address is stored");
}

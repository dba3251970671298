// Scraping the information text out of a page, and reading it.
#include "Tarnwick/videoinfo.h"
#include "Tarnwick/youtubeutility.h"
#include "common/httputility.h"
#include "fuzz.h"

void Fuzz(Input input) {
    g_DefaultTitle = "v";
    g_DefaultThumbnail = "http://t/v.jpg";
    const std::string page = input.Text();
    for (const std::string& text : {ParseYoutubeInfo(page), "status=ok\r\n" + page}) {
        std::string name = "-";
        std::string address = "-";
        const std::string found = ParseYoutubeVideoInfo(text, page.size() % 2 != 0, name, address);
        Expect(address == (found.empty() ? "-" : found), "the address that was found is stored");
        Expect(text.find(found) != text.npos, "it stands in the text");
        Expect(name.find_first_of("/\\:*?\"<>|") == name.npos, "the name stays in its directory");
        Expect(ParseYoutubeVideoInfo(text + "\nstatus=fail", false, name, address).empty(),
               "nothing is taken from a page that failed");
    }
    const std::string decoded = HttpUtility::HtmlDecode(page);
    Expect(HttpUtility::UrlDecode("+%2B%00%aF" + page) == " +\xAF" + decoded,
           "escapes are decoded");
    Expect(HttpUtility::HtmlEntityDecode(decoded).size() <= page.size(), "no text gets longer");
}

// Reading an information text: the worker's choice among its formats and the command's, and what
// the command prints.
#include <set>
#include <sstream>

#include "Console/page/info.h"
#include "Console/screen/text.h"
#include "Tarnwick/youtubeutility.h"
#include "fuzz.h"

namespace {

void CheckWorker(const std::string& text, bool last) {
    std::string name = "-";
    std::string address = "-";
    const std::string found = ParseYoutubeVideoInfo(text, last, name, address);
    Expect(address == (found.empty() ? "-" : found), "the address that was found is stored");
    Expect(text.find(found) != text.npos, "it stands in the text");
    Expect(name.find_first_of("/\\:*?\"<>|") == name.npos, "the name stays in its directory");
    address = ParseYoutubeVideoInfo(text + "\nstatus=fail", last, name, address);
    Expect(address.empty(), "nothing is taken from a page that failed");
}

void CheckChoices(const VideoPage& page, const VideoFormat* closest) {
    bool fits = false;
    std::set<std::string> ids;
    for (const VideoFormat& format : page.formats) {
        Expect(!format.id.empty() && ids.insert(format.id).second, "each id stands there once");
        fits = fits || (format.width && format.height && !format.address.empty());
        const VideoFormat* chosen = Choose(page, {format.id});
        Expect(chosen == (format.address.empty() ? nullptr : &format), "an id chooses its format");
    }
    const VideoFormat* usual = Choose(page, {});
    Expect(usual == nullptr || usual->address == page.usual, "the usual one has its address");
    Expect((closest != nullptr) == fits, "a size chooses one if any has a frame and an address");
    Expect(closest == nullptr || !closest->address.empty(), "what is chosen can be fetched");
}

void CheckPrints(const VideoPage& page, const VideoFormat* taken) {
    std::istringstream table(PageTable(page, taken));
    for (std::string line; std::getline(table, line);) {
        Expect(text::Width(line) <= 80 && text::Printable(line) == line, "a line fits");
    }
    const std::string json = PageJson(page, taken);
    const auto ascii = [](char c) { return c >= ' ' && c <= '~'; };
    Expect(std::find_if_not(json.begin(), json.end(), ascii) == json.end() - 1, "JSON is a line");
}

}  // namespace

void Fuzz(Input input) {
    text::UseUtf8();
    const bool last = input.Take<std::uint8_t>() % 2 != 0;
    const std::string text = "status=ok\r\n" + input.Text();
    CheckWorker(text, last);
    const std::string list = "1/1x1,2/50000x40001,3/50000x40000,4/40000x50000," + text;
    Expect(GetYoutubeVideoMapIDForSize(50000, 40000, list) == "3",
           "the first of the closest frames is chosen");
    const VideoPage page = ReadVideoPage(text);
    const VideoFormat* closest = Choose(page, {"", 640, 360});
    CheckChoices(page, closest);
    CheckPrints(page, closest);
}

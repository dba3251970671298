// What the command makes of an information text: formats, a choice among them, what it prints.
#include <set>
#include <sstream>

#include "Console/info.h"
#include "Console/text.h"
#include "Console/videopage.h"
#include "fuzz.h"

using fuzz::Expect;

namespace {

void CheckChoices(const VideoPage& page, const FormatWish& wish) {
    bool fits = false;
    std::set<std::string> ids;
    for (const VideoFormat& format : page.formats) {
        Expect(!format.id.empty() && ids.insert(format.id).second, "each id stands there once");
        Expect(format.width.has_value() == format.height.has_value(), "a frame has two sides");
        fits = fits || (format.width && !format.address.empty());
        const VideoFormat* chosen = Choose(page, {format.id});
        Expect(chosen == (format.address.empty() ? nullptr : &format), "an id chooses its format");
    }
    const VideoFormat* usual = Choose(page, {});
    Expect(usual == nullptr || usual->address == page.usual, "the usual one has its address");
    const VideoFormat* closest = Choose(page, wish);
    Expect((closest != nullptr) == fits, "a size chooses one if any has a frame and an address");
    Expect(closest == nullptr || !closest->address.empty(), "what is chosen can be fetched");
}

void CheckPrints(const VideoPage& page, const VideoFormat* taken) {
    std::istringstream table(PageTable(page, taken));
    for (std::string line; std::getline(table, line);) {
        Expect(text::Width(line) <= 80 && text::Printable(line) == line, "a line fits");
    }
    const std::string json = PageJson(page, taken);
    Expect(json.ends_with("}\n"), "an object on a line");
    Expect(std::all_of(json.begin(), json.end() - 1, [](char c) { return c >= ' ' && c < 0x7F; }),
           "in ASCII");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool prepared = (text::UseUtf8(), true);
    fuzz::Input input(data, size);
    FormatWish wish;
    const std::string frame = input.Text(prepared ? input.Take<std::uint8_t>() : 0);
    if (!ParseFrameSize(frame, wish).empty()) wish = {"", 640, 360};
    Expect(wish.width >= 1 && wish.width <= 32767 && wish.height >= 1 && wish.height <= 32767,
           "sides are in their range");
    const VideoPage page = ReadVideoPage(input.Rest());
    CheckChoices(page, wish);
    CheckPrints(page, Choose(page, wish));
    return 0;
}

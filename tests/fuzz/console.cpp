// Foreign texts on the side of the command: lines on a terminal, names of files, addresses.
#include <cwchar>
#include <set>
#include <sstream>
#include <vector>

#include "Console/base/utf8.h"
#include "Console/get/filename.h"
#include "Console/get/numbering.h"
#include "Console/others/info.h"
#include "Console/screen/bardisplay.h"
#include "Console/screen/text.h"
#include "common/address.h"
#include "common/stringutility.h"
#include "fuzz.h"

namespace {

// `text` has nothing behind it, not even the terminator of a string.
void CheckFirst(const std::vector<char>& text) {
    const utf8::Character first = utf8::First({text.data(), text.size()});
    std::mbstate_t state{};
    wchar_t wide = 0;
    const std::size_t length = std::mbrtowc(&wide, text.data(), text.size(), &state);
    const bool valid = length <= text.size() && wide <= 0x10FFFF;
    Expect(first.valid == valid, "the C library sees a character as well");
    Expect(first.length == (valid ? std::max<std::size_t>(length, 1) : 1), "of this length");
    Expect(!valid || first.code == static_cast<char32_t>(wide), "the same one");
}

// Whether nothing in the text steers a terminal.
bool IsPlain(std::string_view text) {
    while (!text.empty()) {
        const utf8::Character next = utf8::First(text);
        if (!next.valid || utf8::IsControl(next.code)) return false;
        text.remove_prefix(next.length);
    }
    return true;
}

void CheckPrintable(const std::string& printable, int columns) {
    Expect(IsPlain(printable) && text::Printable(printable) == printable, "it is printable");
    const auto most = static_cast<std::size_t>(std::max(columns, 0));
    const std::string_view head = utf8::Head(printable, most);
    Expect(head.size() <= most && printable.starts_with(head) && IsPlain(head), "so is a head");
    const std::string cut = text::CutMiddle(printable, columns);
    Expect(text::Width(cut) <= std::max(columns, 0), "what is cut fits");
    const int screen = std::max(columns, 2);
    const FileView file{printable};
    Expect(text::Width(FileLine(file, screen, file.started)) <= screen, "a bar fits");
    std::string joined;
    for (const std::string& line : text::Wrap(printable, screen)) {
        Expect(text::Width(line) <= screen, "a line fits");
        joined += line;
    }
    Expect(joined == printable, "lines hold the whole text");
}

void CheckName(const std::string& name) {
    Expect(!strutil::trim(name).empty() && name[0] != '.', "the name is neither blank nor hidden");
    Expect(name.size() + std::string_view(".part").size() < 255, "it is short enough");
    Expect(name.find('/') == std::string::npos && IsPlain(name), "it is plain, in its directory");
}

// The text as what a page tells.
void CheckPage(const std::string& text) {
    const VideoPage page = ReadVideoPage("status=ok\r\n" + text);
    std::set<std::string> ids;
    for (const VideoFormat& format : page.formats) {
        Expect(!format.id.empty() && ids.insert(format.id).second, "each id stands there once");
    }
    const VideoFormat* closest = Choose(page, {"", 640, 360});
    Expect(closest == nullptr || !closest->address.empty(), "what is chosen can be fetched");
    std::istringstream table(PageTable(page, closest));
    for (std::string line; std::getline(table, line);) {
        Expect(text::Width(line) <= 80 && text::Printable(line) == line, "a line fits");
    }
    const std::string json = PageJson(page, closest);
    const auto ascii = [](char c) { return c >= ' ' && c <= '~'; };
    Expect(std::find_if_not(json.begin(), json.end(), ascii) == json.end() - 1, "JSON is a line");
}

}  // namespace

void Fuzz(Input input) {
    text::UseUtf8();
    const double number = Input(input).Take<double>();  // made of the same bytes
    Expect(text::Size(number).size() <= 10 && text::Clock(number).size() <= 8, "numbers fit");
    const int columns = input.Take<std::uint8_t>() - 8;
    const std::string text = input.Text();
    for (auto rest = text.begin(); rest != text.end(); ++rest) CheckFirst({rest, text.end()});
    CheckPrintable(text::Printable(text), columns);
    CheckName(NameFromAddress(text));
    CheckName(NameFromAddress("http://host/" + text));
    CheckName(NameFromTitle(text));
    CheckName(NumberedPath(NameFromAddress("http://host/" + text), 7));
    const std::string given = NameFromServer(text);
    if (!given.empty()) CheckName(given);
    Expect(!given.ends_with(".part") && !given.ends_with(".part.info"), "it is no partial file");
    Expect(!AddressFault(text).empty() || text.size() <= TASK_ADDRESS_MOST, "an address fits");
    for (std::string address : {text, "http://" + text}) {
        std::string user, password;
        TakeLogin(address, user, password);
        Expect(WithoutLogin(address) == address, "no login is left");
        Expect(SameOrigin(address, "http://h/") == SameOrigin("http://u@h", address), "one origin");
    }
    CheckPage(text);
}

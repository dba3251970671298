// Foreign texts on the side of the command: lines on a terminal, names of files, addresses.
#include <cwchar>
#include <vector>

#include "Console/cli/proxy.h"
#include "Console/get/filename.h"
#include "Console/page/videopage.h"
#include "Console/screen/bardisplay.h"
#include "Console/screen/text.h"
#include "Console/screen/utf8.h"
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

void CheckPrintable(const std::string& printable, std::uint8_t columns) {
    Expect(IsPlain(printable) && text::Printable(printable) == printable, "it is printable");
    const std::string_view head = utf8::Head(printable, columns);
    Expect(head.size() <= columns && printable.starts_with(head) && IsPlain(head), "so is a head");
    const std::string cut = text::CutMiddle(printable, columns);
    Expect(text::Width(cut) <= columns, "what is cut fits");
    Expect(text::Width(text::PadLeft(cut, columns)) == columns, "and fills the columns");
    const int screen = std::max<int>(columns, 2);
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

void CheckProxy(const std::string& address) {
    Proxy proxy{"host", 1, 4, "user", "password"};
    const bool read = ParseProxy(address, proxy).empty();
    Expect(read || proxy.host + proxy.user + proxy.password == "hostuserpassword",
           "faults change nothing");
    Expect(proxy.host.find('@') == std::string::npos, "all of the credentials are taken off");
    Expect(proxy.port >= 1 && proxy.port <= 65535, "the port is one");
    Expect(std::max({proxy.host.size(), proxy.user.size(), proxy.password.size()}) < 128,
           "it fits");
    Expect((proxy.user + proxy.password).find('\0') == std::string::npos, "no zero ends a text");
}

}  // namespace

void Fuzz(Input input) {
    text::UseUtf8();
    const double number = Input(input).Take<double>();  // made of the same bytes
    Expect(text::Size(number).size() <= 10 && text::Clock(number).size() <= 8, "numbers fit");
    const auto columns = input.Take<std::uint8_t>();
    const std::string text = input.Text();
    for (auto rest = text.begin(); rest != text.end(); ++rest) CheckFirst({rest, text.end()});
    CheckPrintable(text::Printable(text), columns);
    CheckName(NameFromAddress(text));
    CheckName(NameFromAddress("http://host/" + text));
    CheckName(NameFromTitle(text));
    Expect(!AddressFault(text).empty() || text.size() < 1024, "an address fits its field");
    FormatWish wish{"", 1, 1};
    ParseFrameSize(text, wish);
    Expect(std::min(wish.width, wish.height) >= 1 && std::max(wish.width, wish.height) <= 32767,
           "sides are in their range");
    CheckProxy(text.c_str());  // arguments and variables of a process hold no zeros
}

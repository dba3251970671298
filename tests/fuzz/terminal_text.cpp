// Foreign texts and numbers on their way to a terminal.
#include "Console/bardisplay.h"
#include "Console/text.h"
#include "Console/utf8.h"
#include "fuzz.h"

using fuzz::Expect;

namespace {

std::string Encode(char32_t code) {
    const auto low = [code](int shift) { return static_cast<char>(0x80 | (code >> shift & 0x3F)); };
    if (code < 0x80) return {static_cast<char>(code)};
    if (code < 0x800) return {static_cast<char>(0xC0 | code >> 6), low(0)};
    if (code < 0x10000) return {static_cast<char>(0xE0 | code >> 12), low(6), low(0)};
    return {static_cast<char>(0xF0 | code >> 18), low(12), low(6), low(0)};
}

// The character is the one whose encoding the text begins with.
void CheckFirst(std::string_view text) {
    const utf8::Character first = utf8::First(text);
    Expect(first.length >= 1 && first.length <= text.size(), "it lies in the text");
    if (first.valid) {
        Expect(text.starts_with(Encode(first.code)) && Encode(first.code).size() == first.length,
               "it is what is written there");
        Expect(first.code < 0xD800 || (first.code >= 0xE000 && first.code <= 0x10FFFF),
               "it is a character");
        return;
    }
    for (std::size_t length = 1; length <= std::min<std::size_t>(text.size(), 4); ++length) {
        char32_t code =
            static_cast<unsigned char>(text[0]) & (length == 1 ? 0x7FU : 0x7FU >> length);
        for (std::size_t i = 1; i < length; ++i) {
            code = code << 6 | (static_cast<unsigned char>(text[i]) & 0x3FU);
        }
        const bool character = code < 0xD800 || (code >= 0xE000 && code <= 0x10FFFF);
        Expect(!character || Encode(code) != text.substr(0, length), "nothing is written there");
    }
}

void CheckLayout(const std::string& printable, int columns) {
    const int width = text::Width(printable);
    const std::string cut = text::CutMiddle(printable, columns);
    Expect(text::Width(cut) <= std::max(columns, 0), "a cut text fits");
    Expect(width > columns || cut == printable, "what fits is not cut");
    Expect(text::Width(text::PadRight(printable, columns)) == std::max(width, columns),
           "it is full");
    Expect(text::Width(text::PadLeft(printable, columns)) == std::max(width, columns),
           "it is full");
    if (columns < 2) return;
    std::string joined;
    for (const std::string& line : text::Wrap(printable, columns)) {
        Expect(text::Width(line) <= columns, "a line fits");
        joined += line;
    }
    Expect(joined == printable, "lines hold the whole text");
}

void CheckNumbers(fuzz::Input& input, const std::string& name, int columns) {
    const double values[] = {input.Take<double>(), input.Take<double>(), input.Take<double>()};
    for (const double value : values) {
        Expect(text::Width(text::Size(value)) <= 10, "a size has its columns");
        Expect(text::Width(text::Clock(value)) <= 8, "a time has its columns");
    }
    const auto sane = [](double value, double most) {
        return value >= 0 ? std::min(value, most) : 0;
    };
    FileView file{name};
    file.size = sane(values[0], 1e18);
    file.percent = sane(values[1], 100);
    file.speed = sane(values[2], 1e12);
    for (const bool answered : {false, true}) {
        file.answered = answered;
        Expect(text::Width(FileLine(file, columns, file.started)) <= columns, "a line fits");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool prepared = (text::UseUtf8(), true);
    fuzz::Input input(data, size);
    const int columns = prepared ? input.Take<std::uint8_t>() : 0;
    const auto limit = input.Take<std::uint8_t>();
    fuzz::Input numbers(data, size);  // made of the same bytes
    const std::string bytes = input.Rest();

    const std::string printable = text::Printable(bytes);
    Expect(text::Printable(printable) == printable, "a printable text stays as it is");
    Expect(printable.size() <= 4 * bytes.size(), "a byte takes four at most");
    for (std::string_view rest = printable; !rest.empty();
         rest.remove_prefix(utf8::First(rest).length)) {
        const utf8::Character next = utf8::First(rest);
        Expect(next.valid && !utf8::IsControl(next.code), "nothing steers the terminal");
    }
    CheckLayout(printable, columns);
    CheckNumbers(numbers, printable, std::max(columns, 2));

    // Nothing stands behind these bytes, not even the terminator of a string.
    for (std::string_view rest(reinterpret_cast<const char*>(data), size); !rest.empty();
         rest.remove_prefix(1)) {
        CheckFirst(rest);
    }
    const std::string_view head = utf8::Head(printable, limit);
    Expect(head.size() <= limit && printable.starts_with(head), "a head is a beginning");
    Expect(text::Printable(head) == head, "no character is cut in two");
    return 0;
}

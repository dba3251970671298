#include "Console/screen/text.h"

#include <langinfo.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <cmath>
#include <cstring>
#include <cwchar>

#include "Console/base/utf8.h"
#include "common/stringutility.h"

namespace text {
namespace {

constexpr std::string_view kCutMark = "...";

template <class... Values>
std::string Format(const char* format, Values... values) {
    std::array<char, 64> buffer{};
    strutil::vsnpf(buffer.data(), buffer.size(), format, values...);
    return buffer.data();
}

// Columns of a character; -1 when it is not visible.
int ColumnsOf(const utf8::Character& character) {
    if (!character.valid || utf8::IsControl(character.code)) return -1;
    return character.code < 0x80 ? 1 : wcwidth(static_cast<wchar_t>(character.code));
}

// A character of a printable text.
struct Glyph {
    std::string_view bytes;
    int columns;
};

std::vector<Glyph> Glyphs(std::string_view printable) {
    std::vector<Glyph> glyphs;
    while (!printable.empty()) {
        const utf8::Character next = utf8::First(printable);
        glyphs.push_back({printable.substr(0, next.length), std::max(ColumnsOf(next), 0)});
        printable.remove_prefix(next.length);
    }
    return glyphs;
}

}  // namespace

void UseUtf8() {
    std::setlocale(LC_CTYPE, "");
    if (std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0) std::setlocale(LC_CTYPE, "C.UTF-8");
}

std::string Printable(std::string_view bytes) {
    std::string printable;
    while (!bytes.empty()) {
        const utf8::Character next = utf8::First(bytes);
        const std::string_view taken = bytes.substr(0, next.length);
        bytes.remove_prefix(next.length);
        if (ColumnsOf(next) >= 0) {
            printable += taken;
            continue;
        }
        for (const char byte : taken) {
            printable += Format("\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
        }
    }
    return printable;
}

int Width(std::string_view printable) {
    int columns = 0;
    for (const Glyph& glyph : Glyphs(printable)) columns += glyph.columns;
    return columns;
}

std::string CutMiddle(std::string_view printable, int columns) {
    columns = std::max(columns, 0);
    if (Width(printable) <= columns) return std::string(printable);
    const std::vector<Glyph> glyphs = Glyphs(printable);
    const std::string_view mark = columns >= 5 ? kCutMark : "";
    int room = columns - static_cast<int>(mark.size());
    int headRoom = mark.empty() ? room : (room + 1) / 2;
    std::string head;
    for (auto glyph = glyphs.begin(); glyph != glyphs.end() && glyph->columns <= headRoom;
         ++glyph) {
        head += glyph->bytes;
        headRoom -= glyph->columns;
        room -= glyph->columns;
    }
    std::string tail;
    for (auto glyph = glyphs.rbegin();
         !mark.empty() && glyph != glyphs.rend() && glyph->columns <= room; ++glyph) {
        tail.insert(0, glyph->bytes);
        room -= glyph->columns;
    }
    return head.append(mark).append(tail);
}

std::vector<std::string> Wrap(std::string_view printable, int columns) {
    std::vector<std::string> lines(1);
    int room = columns;
    for (const Glyph& glyph : Glyphs(printable)) {
        if (glyph.columns > room) {
            lines.emplace_back();
            room = columns;
        }
        lines.back() += glyph.bytes;
        room -= glyph.columns;
    }
    return lines;
}

std::string PadRight(std::string printable, int columns) {
    const int missing = columns - Width(printable);
    return missing > 0 ? printable.append(static_cast<std::size_t>(missing), ' ') : printable;
}

std::string PadLeft(std::string printable, int columns) {
    const int missing = columns - Width(printable);
    return missing > 0 ? printable.insert(0, static_cast<std::size_t>(missing), ' ') : printable;
}

std::string Size(double bytes) {
    constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB"};
    if (bytes < 1024) return Format("%.0f B", std::max(bytes, 0.0));
    std::size_t unit = 0;
    bytes /= 1024;
    // 1023.95 would be rounded up to "1024.0".
    while (bytes >= 1023.95 && unit + 1 < std::size(kUnits)) {
        bytes /= 1024;
        ++unit;
    }
    return Format("%.1f %s", std::min(bytes, 9999.9), kUnits[unit]);
}

std::string Percent(double percent) {
    return std::to_string(static_cast<int>(percent));
}

std::string Duration(double seconds) {
    return seconds < 59.95 ? Format("%.1f s", seconds) : Clock(seconds);
}

std::string Clock(double seconds) {
    if (!(seconds >= 0) || seconds >= 100 * 3600 - 1) return "--:--";
    const long whole = std::lround(seconds);
    if (whole < 3600) return Format("%ld:%02ld", whole / 60, whole % 60);
    return Format("%ld:%02ld:%02ld", whole / 3600, whole / 60 % 60, whole % 60);
}

std::string Count(std::size_t count, const char* noun) {
    return Format("%zu %s%s", count, noun, count == 1 ? "" : "s");
}

}  // namespace text

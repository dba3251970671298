#include "common/httputility.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

#include "common/decimal.h"

namespace {

// Values of the hexadecimal digits; 0 for all other characters.
constexpr auto kHexDigits = [] {
    std::array<unsigned char, 256> values{};
    for (int i = 0; i < 16; ++i) {
        values[static_cast<unsigned char>("0123456789abcdef"[i])] = static_cast<unsigned char>(i);
        values[static_cast<unsigned char>("0123456789ABCDEF"[i])] = static_cast<unsigned char>(i);
    }
    return values;
}();

constexpr unsigned HexDigit(char c) {
    return kHexDigits[static_cast<unsigned char>(c)];
}

std::uint32_t HexValue(std::string_view digits) {
    std::uint32_t value = 0;
    for (const char c : digits) value = value * 16 + HexDigit(c);
    return value;
}

struct NamedReference {
    std::string_view name;
    char replacement;
};

constexpr NamedReference kNamedReferences[] = {
    {"&amp;", '&'}, {"&apos;", '\''}, {"&quot;", '"'}, {"&lt;", '<'}, {"&gt;", '>'},
};

// What the "&" at the start of a text stands for, and how many bytes that takes.
struct Reference {
    std::size_t length;
    char replacement;
};

// `semicolonAhead` remembers that no ";" follows any more: a page of references without one would
// otherwise be searched to its end once for each.
Reference ReadReference(std::string_view text, bool& semicolonAhead) {
    for (const auto& [name, replacement] : kNamedReferences) {
        if (text.starts_with(name)) return {name.size(), replacement};
    }
    constexpr Reference kNone{1, '&'};
    if (!semicolonAhead || !text.starts_with("&#")) return kNone;
    const std::size_t end = text.find(';');
    semicolonAhead = end != std::string_view::npos;
    if (!semicolonAhead) return kNone;
    const std::uint32_t value = text.starts_with("&#x")
                                    ? HexValue(text.substr(3, end - 3))
                                    : LeadingNumber(text.substr(2, end - 2)).value_or(0);
    return {end + 1, static_cast<char>(value)};
}

}  // namespace

bool HttpUtility::isOrdinaryChar(char ch) {
    return (ch >= '0' && ch <= '9') || (ch >= 'A' && ch <= 'Z') || (ch >= 'a' && ch <= 'z');
}

int HttpUtility::getAsDec(char* buffer) {
    char ch = buffer[0];
    if (ch >= 'A' && ch <= 'Z') ch = static_cast<char>(ch - 'A' + 'a');
    if (ch >= 'a' && ch <= 'f') {
        buffer[0] = '1';
        buffer[1] = static_cast<char>('0' + (ch - 'a'));
        buffer[2] = '\0';
    }
    return static_cast<unsigned char>(ch);
}

int HttpUtility::convertToDec(const char* text) {
    return static_cast<int>(HexValue(text));
}

std::string HttpUtility::HtmlDecode(std::string text) {
    // Decoded in place: what is written never overtakes what is read.
    const std::size_t size = text.size();
    std::size_t out = 0;
    for (std::size_t in = 0; in < size; ++in) {
        char c = text[in];
        if (c == '+') {
            c = ' ';
        } else if (c == '%') {
            if (size - in < 3) break;
            c = static_cast<char>(HexDigit(text[in + 1]) * 16 + HexDigit(text[in + 2]));
            in += 2;
            if (c == '\0') continue;
        }
        text[out++] = c;
    }
    text.resize(out);
    return text;
}

std::string HttpUtility::UrlDecode(std::string text) {
    return HtmlDecode(std::move(text));
}

std::string HttpUtility::HtmlEncode(std::string text) {
    constexpr const char* kDigits = "0123456789abcdef";
    const auto ordinary =
        static_cast<std::size_t>(std::count_if(text.begin(), text.end(), isOrdinaryChar));
    std::string result;
    result.reserve(ordinary + 3 * (text.size() - ordinary));
    for (const char c : text) {
        if (isOrdinaryChar(c)) {
            result += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            result += '%';
            result += kDigits[byte >> 4];
            result += kDigits[byte & 15];
        }
    }
    return result;
}

std::string HttpUtility::UrlEncode(std::string text) {
    return HtmlEncode(std::move(text));
}

std::string HttpUtility::HtmlEntityDecode(std::string text) {
    const std::string_view all = text;  // decoded in place, as above
    bool semicolonAhead = true;
    std::size_t in = 0;
    std::size_t out = 0;
    while (in < all.size()) {
        const std::size_t next = std::min(all.find('&', in), all.size());
        std::memmove(text.data() + out, text.data() + in, next - in);
        out += next - in;
        in = next;
        if (in == all.size()) break;
        const Reference reference = ReadReference(all.substr(in), semicolonAhead);
        text[out++] = reference.replacement;
        in += reference.length;
    }
    text.resize(out);
    return text;
}

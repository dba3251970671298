#include "Console/base/utf8.h"

namespace utf8 {
namespace {

constexpr Character kNone{0, 1, false};

bool IsContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

}  // namespace

Character First(std::string_view bytes) {
    const auto lead = static_cast<unsigned char>(bytes.front());
    if (lead < 0x80) return {lead, 1, true};
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || bytes.size() < length) return kNone;
    char32_t code = lead & (0xFFU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if (!IsContinuation(bytes[i])) return kNone;
        code = code << 6 | (static_cast<unsigned char>(bytes[i]) & 0x3FU);
    }
    constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < kSmallest[length] || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) {
        return kNone;
    }
    return {code, length, true};
}

bool IsControl(char32_t code) {
    return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x061C ||
           (code >= 0x200E && code <= 0x200F) || (code >= 0x2028 && code <= 0x202E) ||
           (code >= 0x2066 && code <= 0x2069);
}

std::string_view Head(std::string_view bytes, std::size_t limit) {
    if (bytes.size() <= limit) return bytes;
    while (limit > 0 && IsContinuation(bytes[limit])) --limit;
    return bytes.substr(0, limit);
}

std::string Hex(std::string_view bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string hex;
    for (const char byte : bytes) {
        const auto code = static_cast<unsigned char>(byte);
        hex += {kDigits[code >> 4], kDigits[code & 15]};
    }
    return hex;
}

}  // namespace utf8

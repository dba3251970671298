// The text codecs once more, straight from their rules and without a thought to speed.
#pragma once

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <string>
#include <tuple>
#include <utility>

namespace models {

inline int HexDigit(char c) {
    const char text[] = {c, '\0'};
    return static_cast<int>(
        std::strtol(std::isxdigit(static_cast<unsigned char>(c)) ? text : "0", nullptr, 16));
}

inline std::string DecodeForm(const std::string& text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            result += text[i] == '+' ? ' ' : text[i];
            continue;
        }
        if (i + 2 >= text.size()) break;
        const auto byte = static_cast<char>(HexDigit(text[i + 1]) * 16 + HexDigit(text[i + 2]));
        if (byte != 0) result += byte;
        i += 2;
    }
    return result;
}

// Decimal digits behind white space and a sign, modulo 256.
inline int DecimalByte(const std::string& text) {
    std::size_t i = std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size());
    const bool negative = text[i] == '-';
    if (text[i] == '-' || text[i] == '+') ++i;
    int value = 0;
    for (; text[i] >= '0' && text[i] <= '9'; ++i) value = (value * 10 + text[i] - '0') % 256;
    return negative ? -value : value;
}

inline std::string DecodeReferences(std::string text) {
    const std::pair<const char*, const char*> names[] = {
        {"&amp;", "&"}, {"&apos;", "'"}, {"&quot;", "\""}, {"&lt;", "<"}, {"&gt;", ">"}};
    std::string result;
    while (!text.empty()) {
        std::string taken = text.substr(0, 1);
        std::string given = taken;
        for (const auto& [name, replacement] : names) {
            if (text.starts_with(name)) std::tie(taken, given) = std::pair(name, replacement);
        }
        const bool hex = text.starts_with("&#x");
        const std::size_t end = text.find(';');
        if (text.starts_with("&#") && end != std::string::npos) {
            taken = text.substr(0, end + 1);
            const std::string number = text.substr(hex ? 3 : 2, end - (hex ? 3 : 2));
            int value = hex ? 0 : DecimalByte(number);
            for (const char c : hex ? number : "") value = (value * 16 + HexDigit(c)) % 256;
            given = std::string(1, static_cast<char>(value));
        }
        result += given;
        text.erase(0, taken.size());
    }
    return result;
}

}  // namespace models

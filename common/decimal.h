// Reading decimal numbers out of texts from outside.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string_view>

// The number a text begins with, read as atoi does: white space, a sign, digits. It is taken modulo
// 2^32, so that any number of digits has a value. Nothing when no digit is there.
inline std::optional<std::uint32_t> LeadingNumber(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);

    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    if (text.empty() || !isDigit(text.front())) return std::nullopt;
    std::uint32_t value = 0;
    for (; !text.empty() && isDigit(text.front()); text.remove_prefix(1)) {
        value = value * 10 + static_cast<std::uint32_t>(text.front() - '0');
    }
    return negative ? 0 - value : value;
}

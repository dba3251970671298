// Characters of byte strings that claim to be UTF-8.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace utf8 {

struct Character {
    char32_t code;       // 0 when the bytes are no character
    std::size_t length;  // bytes it takes; 1 when they are none
    bool valid;
};

// The first character of `bytes`, which must not be empty. Overlong forms, surrogates and codes
// beyond U+10FFFF are no characters.
Character First(std::string_view bytes);

// Whether the character controls a terminal or the direction of writing instead of being visible.
bool IsControl(char32_t code);

// The first `limit` bytes, or fewer, so that no character is cut in two.
std::string_view Head(std::string_view bytes, std::size_t limit);

// Two hexadecimal digits in lower case for each byte.
std::string Hex(std::string_view bytes);

}  // namespace utf8

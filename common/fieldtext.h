// Texts in the fixed-width byte arrays of shared records.
//
// Another process writes these arrays, so a reader never counts on a terminator: a text ends at its
// first zero byte or at the end of its field.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

// The text itself, valid as long as the field is unchanged.
template <std::size_t Width>
std::string_view FieldView(const char (&field)[Width]) {
    return std::string_view(field, strnlen(field, Width));
}

// A copy of the text.
template <std::size_t Width>
std::string FieldText(const char (&field)[Width]) {
    return std::string(FieldView(field));
}

// Whether the field holds no text.
template <std::size_t Width>
bool FieldEmpty(const char (&field)[Width]) {
    return field[0] == '\0';
}

// Zero-fills the field, then stores as much of `text` as leaves room for a terminator. The two do
// not overlap.
template <std::size_t Width>
void SetField(char (&field)[Width], std::string_view text) {
    std::memset(field, 0, Width);
    std::memcpy(field, text.data(), text.size() < Width ? text.size() : Width - 1);
}

// Whether the first bytes of the field equal `id`: the test by which a slot is recognised as a
// task's. An id that is longer than the field never matches.
template <std::size_t Width>
bool FieldBeginsWith(const char (&field)[Width], std::string_view id) {
    return id.size() <= Width && std::memcmp(field, id.data(), id.size()) == 0;
}

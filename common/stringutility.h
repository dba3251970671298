// Operations on byte strings. A byte is a character; no encoding is known here.
//
// All are reentrant, and the cost of each grows linearly with the length of the text.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace strutil {

// Formats like vsnprintf into `buffer`, which has `size` bytes, at least 1. All `size` bytes are
// zeroed first, and at most size - 2 characters are stored: the last byte is always zero. Returns
// the length the whole text would have had, or a negative number when it cannot be formatted.
int vsnpf(char* buffer, unsigned int size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// White space, for the three trims: blank, tab, line feed and carriage return, nothing else.
std::string trimLeft(const std::string& str);
std::string trimRight(const std::string& str);
std::string trim(const std::string& str);

// The text after the first occurrence of `key`; empty when it does not occur.
std::string getContent(const std::string& str, std::string key);

// Whether `str` ends with `suffix`; every text ends with the empty one.
bool endsWith(const std::string& str, const std::string& suffix);

// The maximal runs of characters that are not in the set `delimiters`, in order; none is empty.
std::vector<std::string> split(const std::string& str, const std::string& delimiters);

// Cuts `input`, shorter than 2^31 bytes, at every occurrence of the text `delimiter`, and stores
// the pieces in `results` in place of what was there; empty pieces only with `includeEmpties`.
// Returns their number. When one of the texts is empty, or the delimiter does not occur, there are
// no pieces at all: returns 0, and `results` is as it was.
int SplitString(const std::string& input, const std::string& delimiter,
                std::vector<std::string>& results, bool includeEmpties);

// Replaces every occurrence of `from` in `str` by `to`; what was inserted is not searched again. An
// empty `from` occurs nowhere. Returns a copy of the changed `str`.
std::string string_replace(std::string& str, const std::string& from, const std::string& to);

// Whether `str` consists of decimal digits; with `allowDecimalPoint`, one "." may stand between
// them. Throws std::invalid_argument when `str` is empty.
bool IsNum(const std::string& str, bool allowDecimalPoint);

// The text with its ASCII letters in lower case.
std::string toLower(std::string_view text);

// Whether an ASCII control character is in the text: a line of a protocol holds none.
bool holdsControl(std::string_view text);

// "true" or "false".
std::string toString(const bool& value);

// Cuts a text into the runs of characters between delimiters, one at a time. Delimiters are single
// characters, and several in a row count as one. One thread at a time.
class Tokenizer {
  public:
    // Blank, tab, line feed, carriage return.
    inline static const std::string DEFAULT_DELIMITERS = " \t\n\r";

    // `str`, shorter than 2^32 bytes, is copied.
    explicit Tokenizer(const std::string& str);
    Tokenizer(const std::string& str, const std::string& delimiters);

    // Advances to the next token. False when there is none; the last one then stays in m_token.
    bool nextToken();

    // The same with the set `delimiters`, for this call only.
    bool nextToken(const std::string& delimiters);

    // The token found last; empty when none was.
    std::string getToken() const;

    // Starts over from the beginning of the text.
    void reset();

    std::uint32_t m_offset;    // where the search for the next token begins
    std::string m_string;      // the whole text
    std::string m_token;       // the token found last
    std::string m_delimiters;  // each character of it is a delimiter
};

}  // namespace strutil

#include "common/stringutility.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string_view>

namespace strutil {
namespace {

constexpr const char* kWhiteSpace = " \n\r\t";

// A set of characters as a table, so that the search for one costs the same however large the set.
class CharacterSet {
  public:
    explicit CharacterSet(std::string_view characters) {
        for (const char c : characters) table_[static_cast<unsigned char>(c)] = true;
    }

    // The first run of characters that are not in the set, at or behind `offset`; empty when there
    // is none.
    std::string_view RunOutside(std::string_view text, std::size_t offset) const {
        const auto inSet = [this](char c) { return table_[static_cast<unsigned char>(c)]; };
        const auto from = text.begin() + static_cast<std::ptrdiff_t>(std::min(offset, text.size()));
        const auto begin = std::find_if_not(from, text.end(), inSet);
        return {begin, std::find_if(begin, text.end(), inSet)};
    }

  private:
    std::array<bool, 256> table_{};
};

}  // namespace

int vsnpf(char* buffer, unsigned int size, const char* format, ...) {
    std::memset(buffer, 0, size);
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(buffer, size - 1, format, arguments);
    va_end(arguments);
    return length;
}

std::string trimLeft(const std::string& str) {
    const std::size_t begin = str.find_first_not_of(kWhiteSpace);
    return begin == std::string::npos ? std::string() : str.substr(begin);
}

std::string trimRight(const std::string& str) {
    // npos + 1 is 0: a text of nothing but white space becomes empty.
    return str.substr(0, str.find_last_not_of(kWhiteSpace) + 1);
}

std::string trim(const std::string& str) {
    return trimLeft(trimRight(str));
}

std::string getContent(const std::string& str, std::string key) {
    const std::size_t position = str.find(key);
    return position == std::string::npos ? std::string() : str.substr(position + key.size());
}

bool endsWith(const std::string& str, const std::string& suffix) {
    return str.ends_with(suffix);
}

std::vector<std::string> split(const std::string& str, const std::string& delimiters) {
    const CharacterSet set(delimiters);
    const std::string_view text = str;
    std::vector<std::string> tokens;
    std::size_t offset = 0;
    for (;;) {
        const std::string_view run = set.RunOutside(text, offset);
        if (run.empty()) return tokens;
        tokens.emplace_back(run);
        offset = static_cast<std::size_t>(run.data() + run.size() - text.data());
    }
}

int SplitString(const std::string& input, const std::string& delimiter,
                std::vector<std::string>& results, bool includeEmpties) {
    if (input.empty() || delimiter.empty()) return 0;
    std::size_t found = input.find(delimiter);
    if (found == std::string::npos) return 0;

    // Collected apart: `input` may be one of the old results.
    std::vector<std::string> pieces;
    const auto append = [&](std::size_t begin, std::size_t end) {
        if (includeEmpties || begin < end) pieces.emplace_back(input, begin, end - begin);
    };
    std::size_t begin = 0;
    while (found != std::string::npos) {
        append(begin, found);
        begin = found + delimiter.size();
        found = input.find(delimiter, begin);
    }
    append(begin, input.size());
    results.swap(pieces);
    return static_cast<int>(results.size());
}

std::string string_replace(std::string& str, const std::string& from, const std::string& to) {
    const std::string_view text = str;
    std::size_t found = from.empty() ? std::string::npos : text.find(from);
    if (found == std::string::npos) return str;

    // Built anew: replacing in place would move the rest of the text once per occurrence.
    std::string replaced;
    replaced.reserve(text.size());
    std::size_t begin = 0;
    while (found != std::string::npos) {
        replaced.append(text, begin, found - begin);
        // A search costs more than the look at what follows at once.
        for (begin = found; text.substr(begin).starts_with(from); begin += from.size()) {
            replaced.append(to);
        }
        found = text.find(from, begin);
    }
    replaced.append(text, begin);
    str.swap(replaced);
    return str;
}

bool IsNum(const std::string& str, bool allowDecimalPoint) {
    if (str.empty()) throw std::invalid_argument("Argument str is error for IsNum function!");
    bool pointSeen = false;
    for (std::size_t i = 0; i < str.size(); ++i) {
        if (str[i] >= '0' && str[i] <= '9') continue;
        const bool inside = i != 0 && i != str.size() - 1;
        if (!allowDecimalPoint || !inside || str[i] != '.' || pointSeen) return false;
        pointSeen = true;
    }
    return true;
}

std::string toLower(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return lower;
}

bool holdsControl(std::string_view text) {
    return std::any_of(text.begin(), text.end(),
                       [](unsigned char c) { return c < ' ' || c == 0x7F; });
}

std::string toString(const bool& value) {
    return value ? "true" : "false";
}

Tokenizer::Tokenizer(const std::string& str) : Tokenizer(str, DEFAULT_DELIMITERS) {}

Tokenizer::Tokenizer(const std::string& str, const std::string& delimiters)
    : m_offset(0), m_string(str), m_delimiters(delimiters) {}

bool Tokenizer::nextToken() {
    return nextToken(m_delimiters);
}

bool Tokenizer::nextToken(const std::string& delimiters) {
    const std::string_view text = m_string;
    const std::string_view run = CharacterSet(delimiters).RunOutside(text, m_offset);
    if (run.empty()) {
        m_offset = static_cast<std::uint32_t>(text.size());
        return false;
    }
    m_token = run;
    m_offset = static_cast<std::uint32_t>(run.data() + run.size() - text.data());
    return true;
}

std::string Tokenizer::getToken() const {
    return m_token;
}

void Tokenizer::reset() {
    m_offset = 0;
}

}  // namespace strutil

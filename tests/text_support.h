// What the tests of the text operations share.
#pragma once

#include <cstddef>
#include <random>
#include <string>
#include <string_view>
#include <utility>

namespace test_support {

// Pattern of the line that a broken precondition prints.
inline std::string AssertionLine(std::string_view expression, std::string_view function,
                                 std::string_view source) {
    std::string pattern = "^Assertion failed: \\(";
    for (const char c : expression) {
        if (std::string_view("().*+?[]{}|^$\\").find(c) != std::string_view::npos) pattern += '\\';
        pattern += c;
    }
    return pattern + "\\), function " + std::string(function) + ", file " + std::string(source) +
           ", line [0-9]+\\.\n$";
}

// Texts that are the same in every run: up to `limit` characters out of `alphabet`.
class RandomTexts {
  public:
    explicit RandomTexts(std::string alphabet) : alphabet_(std::move(alphabet)) {}

    std::string Next(std::size_t limit) {
        std::string text(random_() % (limit + 1), '\0');
        for (char& c : text) c = alphabet_[random_() % alphabet_.size()];
        return text;
    }

  private:
    const std::string alphabet_;
    std::mt19937 random_{20110420};
};

// Every byte there is.
inline std::string AllBytes() {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
    return bytes;
}

}  // namespace test_support

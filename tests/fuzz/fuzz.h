// What the fuzz targets share.
//
// A target is a function, Fuzz, that hands the bytes it is given to operations of the system and
// checks what came out. libFuzzer calls it with inputs of its own; replay.cpp with those kept in
// corpus/. To be included by one source of each target.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

// Ends the program unless `holds`.
inline void Expect(bool holds, const char* what, int line = __builtin_LINE()) {
    if (holds) return;
    std::fprintf(stderr, "line %d: it is not so that %s\n", line, what);
    std::abort();
}

// Takes an input apart, from its front. What is used up gives zeros and empty texts.
class Input {
  public:
    explicit Input(std::string_view bytes) : rest_(bytes) {}

    bool Empty() const { return rest_.empty(); }

    std::string Text(std::size_t limit = std::string::npos) {
        const std::string text(rest_.substr(0, limit));
        rest_.remove_prefix(text.size());
        return text;
    }

    // Little-endian.
    template <class Number>
    Number Take() {
        Number number{};
        Text(sizeof number).copy(reinterpret_cast<char*>(&number), sizeof number);
        return number;
    }

    // Overwrites a part of the record, from a byte on and for a length, with a repeated pattern.
    template <class Record>
    void Scribble(Record& record) {
        const std::size_t from = Take<std::uint16_t>() % sizeof record;
        const std::size_t length = Take<std::uint16_t>() % (sizeof record - from + 1);
        const std::string pattern = Text(Take<std::uint8_t>());
        char* bytes = reinterpret_cast<char*>(&record) + from;
        for (std::size_t i = 0; i < length && !pattern.empty(); ++i) {
            bytes[i] = pattern[i % pattern.size()];
        }
    }

  private:
    std::string_view rest_;
};

void Fuzz(Input input);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Fuzz(Input(std::string_view(reinterpret_cast<const char*>(data), size)));
    return 0;
}

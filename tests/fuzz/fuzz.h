// What the fuzz targets share.
//
// A target is one function, LLVMFuzzerTestOneInput, that hands the bytes it is given to operations
// of the system and checks what came out. libFuzzer calls it with inputs of its own; replay.cpp
// with those kept in corpus/.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

// Ends the program unless `holds`.
inline void Expect(bool holds, const char* what, int line = __builtin_LINE()) {
    if (holds) return;
    std::fprintf(stderr, "line %d: it is not so that %s\n", line, what);
    std::abort();
}

// Takes an input apart, from its front. What is used up gives zeros and empty texts.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size)
        : rest_(reinterpret_cast<const char*>(data), size) {}

    bool Empty() const { return rest_.empty(); }

    std::string Text(std::size_t limit) {
        const std::string text(rest_.substr(0, limit));
        rest_.remove_prefix(text.size());
        return text;
    }
    std::string Rest() { return Text(rest_.size()); }

    // Little-endian.
    template <class Number>
    Number Take() {
        Number number{};
        const std::string bytes = Text(sizeof number);
        std::copy(bytes.begin(), bytes.end(), reinterpret_cast<char*>(&number));
        return number;
    }

    // Stores a text in the field, which may be left without a terminator: its length, 16 bits, and
    // a pattern, with its length before it in 8 bits, that is repeated up to there.
    template <std::size_t Width>
    void Fill(char (&field)[Width]) {
        const std::size_t length = Take<std::uint16_t>() % (Width + 1);
        const std::string pattern = Text(Take<std::uint8_t>());
        for (std::size_t i = 0; i < length && !pattern.empty(); ++i) {
            field[i] = pattern[i % pattern.size()];
        }
        if (length < Width) field[length] = '\0';
    }

    // Fills the request of a task, in its record or its slot.
    template <class Record>
    void FillRequest(Record& record) {
        record.nCmd = Take<std::int32_t>();
        record.nTaskKind = Take<std::int32_t>();
        Fill(record.szTaskID);
        Fill(record.szDownloadUrl);
        Fill(record.szOrgUrl);
        Fill(record.szFilePath);
        record.nBlockCount = Take<std::int32_t>();
        record.nTryCount = Take<std::int32_t>();
        record.nTryInterval = Take<std::int32_t>();
        record.bUseProxy = Take<std::int32_t>();
        record.nProxyPort = Take<std::int32_t>();
        record.nProxyType = Take<std::int32_t>();
        Fill(record.szProxyHost);
        Fill(record.szProxyUser);
        Fill(record.szProxyPassword);
    }

  private:
    std::string_view rest_;
};

}  // namespace fuzz

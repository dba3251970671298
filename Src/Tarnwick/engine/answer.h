// What the headers of an answer say, as far as a download needs it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Tarnwick/engine/blocks.h"

namespace engine {

// The value of a Content-Range header. Of "bytes */N" only the size is known, of "bytes A-B/*" all
// but that.
struct ContentRange {
    std::optional<Range> range{};
    std::uint64_t size = kUnknown;
};

// Reads "bytes A-B/N", "bytes A-B/*" and "bytes */N" (RFC 9110, 14.4); nothing for anything else,
// and for a range that is empty or lies beyond the size, or a size beyond 2^63 - 1.
std::optional<ContentRange> ParseContentRange(std::string_view value);

// The file name of a Content-Disposition header: filename* (RFC 6266, RFC 8187; UTF-8 and
// ISO-8859-1, the latter turned into UTF-8) before filename. Empty when there is none that can be
// read. What it holds is not made safe.
std::string DispositionName(std::string_view value);

// The headers of one answer, as they were sent and without blanks at both ends; empty where there
// was none. Of headers that come twice the first counts.
struct Answer {
    int status = 0;                   // 0: no answer has come
    bool complete = false;            // the line that ends the headers has come
    std::uint64_t length = kUnknown;  // of the body, as libcurl takes it
    std::string etag{};
    std::string lastModified{};
    std::string date{};
    std::string contentLength{};
    std::string transferEncoding{};
    std::string contentRange{};
    std::string acceptRanges{};
    std::string contentType{};
    std::string contentEncoding{};
    std::string contentDisposition{};
    std::string retryAfter{};
    std::string location{};

    // Takes a header line, with or without its end. A status line begins a new answer.
    void AddLine(std::string_view line);
};

// By what a file is known to be the same again: the value for If-Range. Empty when there is nothing
// that proves it: a weak or malformed ETag, or a file that was modified so shortly before the
// answer that another one may carry the same mark (RFC 9110, 8.8.2.2 and 13.1.5).
std::string ValidatorOf(const Answer& answer);

// Whether the answer can be for the file of that validator: it has the same, or none of the kind.
bool FitsValidator(const Answer& answer, const std::string& validator);

// Whether the body has other bytes than the file, for the way only.
bool IsEncoded(const Answer& answer);

// Whether the server serves parts of the file, as the answer shows or says; nothing when it tells
// neither that nor the opposite.
std::optional<bool> ServesParts(const Answer& answer);

// Seconds the server asks to wait; 0 when it does not say. At most 2^31 - 1.
int RetryAfter(const Answer& answer);

}  // namespace engine

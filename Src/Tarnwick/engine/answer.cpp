#include "Tarnwick/engine/answer.h"

#include <curl/curl.h>

#include <algorithm>
#include <charconv>
#include <ctime>

namespace engine {
namespace {

// A validator is a proof only for a file that had it for a while: servers make ETags of the time in
// seconds, and dates of files have no fractions at all.
constexpr std::int64_t kTagAge = 2;
constexpr std::int64_t kDateAge = 60;

bool SameWord(std::string_view one, std::string_view other) {
    return one.size() == other.size() && curl_strnequal(one.data(), other.data(), one.size()) != 0;
}

std::string_view Trim(std::string_view text) {
    constexpr const char* kBlank = " \t\r\n";
    const std::size_t begin = std::min(text.find_first_not_of(kBlank), text.size());
    text.remove_prefix(begin);
    return text.substr(0, text.find_last_not_of(kBlank) + 1);
}

// Takes a decimal number off the text.
bool TakeNumber(std::string_view& text, std::uint64_t& number) {
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    text.remove_prefix(static_cast<std::size_t>(rest - text.data()));
    return error == std::errc();
}

bool TakeChar(std::string_view& text, char c) {
    if (!text.starts_with(c)) return false;
    text.remove_prefix(1);
    return true;
}

bool IsStrongTag(std::string_view tag) {
    return tag.size() > 2 && tag.front() == '"' && tag.back() == '"' &&
           tag.find('"', 1) == tag.size() - 1;
}

// Seconds between the modification and the answer; nothing when one of the two is not told.
std::optional<std::int64_t> Age(const Answer& answer) {
    const std::time_t modified = curl_getdate(answer.lastModified.c_str(), nullptr);
    const std::time_t now = curl_getdate(answer.date.c_str(), nullptr);
    if (modified == -1 || now == -1) return std::nullopt;
    return std::int64_t{now} - modified;
}

// The text behind charset and language of an extended value; empty when it is malformed.
std::string DecodeExtended(std::string_view value) {
    const std::size_t first = value.find('\'');
    const std::size_t second = value.find('\'', first == value.npos ? first : first + 1);
    if (second == value.npos) return {};
    const bool latin = SameWord(value.substr(0, first), "ISO-8859-1");
    if (!latin && !SameWord(value.substr(0, first), "UTF-8")) return {};
    std::string text;
    for (std::size_t i = second + 1; i < value.size(); ++i) {
        unsigned int byte = static_cast<unsigned char>(value[i]);
        if (byte == '%') {
            if (i + 2 >= value.size()) return {};
            const char* digits = &value[i + 1];
            if (std::from_chars(digits, digits + 2, byte, 16).ptr != digits + 2) return {};
            i += 2;
        }
        if (latin && byte >= 0x80) {
            text += static_cast<char>(0xC0 | byte >> 6);
            byte = 0x80 | (byte & 0x3F);
        }
        text += static_cast<char>(byte);
    }
    return text;
}

// Takes a parameter's value, a token or a quoted text, off the list.
std::string TakeValue(std::string_view& list) {
    std::string value;
    if (!TakeChar(list, '"')) {
        const std::size_t end = std::min(list.find(';'), list.size());
        value = Trim(list.substr(0, end));
        list.remove_prefix(end);
        return value;
    }
    while (!list.empty() && list.front() != '"') {
        // Before other characters it is that of a path, from servers that do not mask it.
        const bool masks = list.starts_with("\\\"") || list.starts_with("\\\\");
        if (masks) list.remove_prefix(1);
        value += list.front();
        list.remove_prefix(1);
    }
    list.remove_prefix(std::min(list.find(';'), list.size()));
    return value;
}

}  // namespace

std::optional<ContentRange> ParseContentRange(std::string_view value) {
    constexpr std::uint64_t kLargest = std::numeric_limits<std::int64_t>::max();
    constexpr std::string_view kUnit = "bytes";
    if (value.size() <= kUnit.size() || !SameWord(value.substr(0, kUnit.size()), kUnit)) return {};
    value.remove_prefix(kUnit.size());
    if (!TakeChar(value, ' ')) return {};
    value = Trim(value);
    ContentRange found;
    Range range;
    const bool unsatisfied = TakeChar(value, '*');
    if (!unsatisfied) {
        if (!TakeNumber(value, range.begin) || !TakeChar(value, '-') ||
            !TakeNumber(value, range.end) || range.end < range.begin || range.end >= kLargest) {
            return {};
        }
        ++range.end;
        found.range = range;
    }
    if (!TakeChar(value, '/')) return {};
    if (!TakeChar(value, '*') && !TakeNumber(value, found.size)) return {};
    if (found.size != kUnknown && found.size > kLargest) return {};
    if (!value.empty() || range.end > found.size) return {};
    if (unsatisfied && found.size == kUnknown) return {};
    return found;
}

std::string DispositionName(std::string_view value) {
    std::string name;
    for (std::size_t sign; (sign = value.find('=')) != value.npos;) {
        // Before the key may stand the type, which some servers leave out, and what has no value.
        std::string_view key = value.substr(0, sign);
        key = Trim(key.substr(key.rfind(';') + 1));
        value.remove_prefix(sign + 1);
        value.remove_prefix(std::min(value.find_first_not_of(" \t"), value.size()));
        const std::string text = TakeValue(value);
        if (SameWord(key, "filename*")) {
            if (std::string extended = DecodeExtended(text); !extended.empty()) return extended;
        } else if (SameWord(key, "filename") && name.empty()) {
            name = text;
        }
    }
    return name;
}

void Answer::AddLine(std::string_view line) {
    if (line.starts_with("HTTP/")) {
        *this = {};
        const std::size_t blank = std::min(line.find(' '), line.size());
        std::string_view code = Trim(line.substr(blank));
        std::uint64_t number = 0;
        if (TakeNumber(code, number) && number < 1000) status = static_cast<int>(number);
        return;
    }
    const std::size_t colon = line.find(':');
    if (colon == line.npos) return;
    const std::string_view name = line.substr(0, colon);
    const struct {
        std::string_view name;
        std::string& field;
    } headers[] = {{"etag", etag},
                   {"last-modified", lastModified},
                   {"date", date},
                   {"content-length", contentLength},
                   {"transfer-encoding", transferEncoding},
                   {"content-range", contentRange},
                   {"accept-ranges", acceptRanges},
                   {"content-type", contentType},
                   {"content-encoding", contentEncoding},
                   {"content-disposition", contentDisposition},
                   {"retry-after", retryAfter},
                   {"location", location}};
    for (const auto& header : headers) {
        if (SameWord(name, header.name) && header.field.empty()) {
            header.field = Trim(line.substr(colon + 1));
        }
    }
}

std::string ValidatorOf(const Answer& answer) {
    const std::optional<std::int64_t> age = Age(answer);
    if (!answer.etag.empty()) {
        return IsStrongTag(answer.etag) && age.value_or(kTagAge) >= kTagAge ? answer.etag : "";
    }
    return age.value_or(0) >= kDateAge ? answer.lastModified : "";
}

bool FitsValidator(const Answer& answer, const std::string& validator) {
    const std::string& own = validator.starts_with('"') ? answer.etag : answer.lastModified;
    return own.empty() || validator.empty() || own == validator;
}

bool IsEncoded(const Answer& answer) {
    return !answer.contentEncoding.empty() && !SameWord(answer.contentEncoding, "identity");
}

std::optional<bool> ServesParts(const Answer& answer) {
    if (answer.status == 206 || SameWord(answer.acceptRanges, "bytes")) return true;
    if (SameWord(answer.acceptRanges, "none")) return false;
    return std::nullopt;
}

int RetryAfter(const Answer& answer) {
    std::string_view text = answer.retryAfter;
    std::uint64_t seconds = kUnknown;  // stays, should the number be beyond 64 bits
    if (!text.empty() && text.find_first_not_of("0123456789") == text.npos) {
        TakeNumber(text, seconds);
    } else {
        const std::time_t until = curl_getdate(answer.retryAfter.c_str(), nullptr);
        const std::time_t now = std::time(nullptr);
        seconds = until > now ? static_cast<std::uint64_t>(until - now) : 0;
    }
    return static_cast<int>(std::min<std::uint64_t>(seconds, std::numeric_limits<int>::max()));
}

}  // namespace engine

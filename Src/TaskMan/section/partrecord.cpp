#include "TaskMan/partrecord.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <span>

#include "common/platform.h"

namespace {

constexpr std::string_view kTitle = "taskman partial file 1\n";
constexpr std::string_view kCheck = "check=";
constexpr std::size_t kMost = 2 * PART_RECORD_COPY;

// FNV-1a: it finds what was torn or cut, and is no protection from who means harm.
std::uint64_t Checksum(std::string_view text) {
    std::uint64_t sum = 14695981039346656037ULL;
    for (const char c : text) sum = (sum ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
    return sum;
}

void AddLine(std::string& text, std::string_view key, std::string_view value) {
    // No value has a line end; one that had would be cut rather than become a line.
    text.append(key).append("=").append(value.substr(0, value.find('\n'))).append("\n");
}

void AddRanges(std::string& text, const char* key, const std::vector<ByteRange>& ranges) {
    const std::size_t count = std::min(ranges.size(), PART_RECORD_RANGES);
    for (const ByteRange& range : std::span(ranges).first(count)) {
        AddLine(text, key, std::to_string(range.begin) + "-" + std::to_string(range.end));
    }
}

template <class Number>
bool ReadNumber(std::string_view text, Number& number) {
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && rest == end;
}

bool ReadTime(std::string_view text, std::int64_t& time) {
    return ReadNumber(text, time) && time >= 0;
}

// Adds a range that lies behind those that are there.
bool ReadRange(std::string_view text, std::vector<ByteRange>& ranges) {
    const std::size_t dash = text.find('-');
    ByteRange range;
    if (dash == text.npos || !ReadNumber(text.substr(0, dash), range.begin) ||
        !ReadNumber(text.substr(dash + 1), range.end) || range.begin >= range.end ||
        ranges.size() == PART_RECORD_RANGES ||
        (!ranges.empty() && range.begin <= ranges.back().end)) {
        return false;
    }
    ranges.push_back(range);
    return true;
}

bool ReadField(std::string_view key, std::string_view value, PartRecord& record) {
    if (key == "size") return ReadNumber(value, record.size);
    if (key == "pid") return ReadNumber(value, record.writer.pid);
    if (key == "started") return ReadTime(value, record.writer.started);
    if (key == "time") return ReadTime(value, record.time);
    if (key == "synced") return ReadRange(value, record.synced);
    if (key == "have") return ReadRange(value, record.have);
    const struct {
        std::string_view key;
        std::string& field;
    } texts[] = {{"validator", record.validator},
                 {"sha256", record.sha256},
                 {"address", record.address},
                 {"host", record.writer.host},
                 {"boot", record.writer.boot}};
    for (const auto& text : texts) {
        if (key == text.key) text.field = value;
    }
    return true;
}

// Reads lines from `from` on up to a checksum of all before it. Returns where the part ends; npos
// when it is damaged.
std::size_t ReadPart(std::string_view text, std::size_t from, PartRecord& record) {
    while (from < text.size()) {
        const std::size_t end = text.find('\n', from);
        if (end == text.npos) break;
        const std::string_view line = text.substr(from, end - from);
        if (line.starts_with(kCheck)) {
            std::uint64_t sum = 0;
            const bool read = ReadNumber(line.substr(kCheck.size()), sum);
            return read && sum == Checksum(text.substr(0, from)) ? end + 1 : text.npos;
        }
        const std::size_t sign = line.find('=');
        if (sign == line.npos || !ReadField(line.substr(0, sign), line.substr(sign + 1), record)) {
            break;
        }
        from = end + 1;
    }
    return text.npos;
}

bool Within(const std::vector<ByteRange>& ranges, std::uint64_t size) {
    return ranges.empty() || ranges.back().end <= size;
}

}  // namespace

std::string EncodePartRecord(const PartRecord& record) {
    std::string text(kTitle);
    AddLine(text, "size", std::to_string(record.size));
    AddLine(text, "validator", record.validator);
    AddLine(text, "sha256", record.sha256);
    AddLine(text, "address", record.address);
    AddLine(text, "host", record.writer.host);
    AddLine(text, "boot", record.writer.boot);
    AddLine(text, "pid", std::to_string(record.writer.pid));
    AddLine(text, "started", std::to_string(record.writer.started));
    AddRanges(text, "synced", record.synced);
    const std::uint64_t sum = Checksum(text);
    return text.append(kCheck).append(std::to_string(sum)).append("\n");
}

std::string EncodePartHave(const PartRecord& record, std::string_view first) {
    std::string text(first);
    AddLine(text, "time", std::to_string(record.time));
    AddRanges(text, "have", record.have);
    const std::uint64_t sum = Checksum(text);
    text.append(kCheck).append(std::to_string(sum)).append("\n");
    return text.substr(first.size());
}

bool DecodePartRecord(std::string_view text, PartRecord& record) {
    if (!text.starts_with(kTitle)) return false;
    PartRecord first;
    const std::size_t end = ReadPart(text, kTitle.size(), first);
    if (end == text.npos || first.size == 0 || first.time != 0 || !first.have.empty() ||
        first.size > std::uint64_t{std::numeric_limits<std::int64_t>::max()} ||
        !Within(first.synced, first.size)) {
        return false;
    }
    record = first;
    PartRecord both = first;
    const bool sound = ReadPart(text, end, both) != text.npos;
    if (!sound || !Within(both.have, first.size)) return true;
    record.have = both.have;
    record.time = both.time;
    return true;
}

bool ReadPartRecord(const std::string& path, PartRecord& record) {
    record = {};
    // Without waiting, should somebody have put a pipe there.
    const int file = open((path + PART_RECORD_ENDING).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file == -1) return true;
    std::string text(kMost, '\0');
    const ssize_t size = pread(file, text.data(), text.size(), 0);
    close(file);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    if (text.empty()) return true;
    const std::string_view whole = text;
    if (!DecodePartRecord(whole.substr(0, PART_RECORD_COPY), record) &&
        !DecodePartRecord(whole.substr(std::min(whole.size(), PART_RECORD_COPY)), record)) {
        return false;
    }
    const std::string& boot = record.writer.boot;
    if (record.time == 0 || boot.empty() || boot != platform::BootId()) record.have = record.synced;
    return true;
}

bool FitsPartFile(const PartRecord& record, std::uint64_t size) {
    return Within(record.have, size) && size <= record.size;
}

double ContinuablePercent(const std::string& path, std::uint64_t size) {
    PartRecord record;
    if (!ReadPartRecord(path, record) || record.size == 0 || record.have.empty() ||
        !FitsPartFile(record, size)) {
        return -1;
    }
    return 100.0 * static_cast<double>(BytesIn(record.have)) / static_cast<double>(record.size);
}

bool HasPartRecord(const std::string& path) {
    struct stat status {};
    return stat((path + PART_RECORD_ENDING).c_str(), &status) == 0 && status.st_size > 0;
}

void RemovePartRecord(const std::string& path) {
    unlink((path + PART_RECORD_ENDING).c_str());
}

std::uint64_t BytesIn(const std::vector<ByteRange>& ranges) {
    std::uint64_t bytes = 0;
    for (const ByteRange& range : ranges) bytes += range.Size();
    return bytes;
}

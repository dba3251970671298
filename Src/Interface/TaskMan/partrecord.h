// The text that stands beside a partial file, NAME.part.info, and tells which bytes of it are
// there.
//
// Lines "key=value", each ended by LF, in two parts. The first tells what the file is and which
// bytes had reached the disk when it was written. The second follows it and is written over in
// between: which bytes the file has when only processes die. It holds no longer once the machine
// was started anew. Each part ends with a checksum of all that stands before. At offset 32768
// stands a copy of both, which counts when the first part is damaged: it reaches the disk before a
// new first part is written. An empty file is no record yet.
//
// The worker of an extended task writes it while it downloads, when its request says so. Any thread
// may call; what is read may be any bytes.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

constexpr const char* PART_RECORD_ENDING = ".info";  // behind the partial file's path
constexpr std::size_t PART_RECORD_RANGES = 64;       // recorded; of more, the first
constexpr std::size_t PART_RECORD_COPY = 32 * 1024;  // offset of the copy

// Bytes `begin` up to, but not including, `end`.
struct ByteRange {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    std::uint64_t Size() const { return end - begin; }
    bool operator==(const ByteRange&) const = default;
};

// The process that writes a partial file.
struct PartWriter {
    std::string host{};
    std::string boot{};  // id of the machine's start; empty: not known
    pid_t pid = -1;
    std::int64_t started = 0;  // seconds since 1970
};

struct PartRecord {
    std::uint64_t size = 0;   // bytes of the complete file, 1 to 2^63 - 1; 0: there is no record
    std::string validator{};  // what proves the file to be the same, for If-Range; empty: nothing
    std::string sha256{};     // of the complete file as its task knew it; empty: it did not
    std::string address{};    // behind all redirects
    PartWriter writer{};
    // Not empty, in ascending order, apart from each other, not beyond the size.
    std::vector<ByteRange> synced{};  // on the disk
    std::vector<ByteRange> have{};    // in the file
    std::int64_t time = 0;            // of the second part, seconds since 1970; 0: there is none
};

// The first part; and the second for the first part's text.
std::string EncodePartRecord(const PartRecord& record);
std::string EncodePartHave(const PartRecord& record, std::string_view first);

// Reads both parts. False when the first one is damaged; a damaged second one leaves `have` empty
// and `time` 0.
bool DecodePartRecord(std::string_view text, PartRecord& record);

// Reads the record of the partial file `path`; `have` then holds what can be relied on today.
// Returns false when there is a record and it is damaged, and so is its copy.
bool ReadPartRecord(const std::string& path, PartRecord& record);

// Whether a file of `size` bytes can be the partial file that the record tells of: all that is in
// `have` lies in it, and nothing behind the complete file.
bool FitsPartFile(const PartRecord& record, std::uint64_t size);

// How much of the complete file a later run need not fetch again, in percent, when the partial file
// `path` has `size` bytes. Below 0 when it cannot be continued: its record is missing or damaged,
// holds nothing or does not fit.
double ContinuablePercent(const std::string& path, std::uint64_t size);

// Whether the partial file `path` has a record, sound or not.
bool HasPartRecord(const std::string& path);

// Removes the record of the partial file `path`, if there is one; also an empty one.
void RemovePartRecord(const std::string& path);

// Number of bytes in the ranges.
std::uint64_t BytesIn(const std::vector<ByteRange>& ranges);

// Where a stored file came from, and by what its server knows it: kept beside the bytes of the
// file, in an extended attribute, so that a later run can ask for nothing but a newer file.
//
// The attribute is "user.taskman.origin", lines "key=value" ended by LF: `address`, the SHA-256
// digest of the address, which itself may hold a password; `size` and `modified`, bytes and
// nanoseconds since 1970, of the file as it was stored; `etag` and `last-modified` as the server
// sent them. It counts as long as the first three fit. Any thread may call.
#pragma once

#include <string>

// What the server calls this state of the file; empty where it says nothing of the kind.
struct Marks {
    std::string etag{};
    std::string lastModified{};

    bool Any() const { return !etag.empty() || !lastModified.empty(); }
};

// Notes the origin of a complete file that is open for writing. Without marks, and where the file
// system keeps no such attributes, nothing is noted.
void NoteOrigin(int file, const std::string& address, const Marks& marks);

// The marks of the file at `path`; none unless it came from the address and is as it was stored.
Marks OriginMarks(const std::string& path, const std::string& address);

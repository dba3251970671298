// SHA-256 digests of files.
#pragma once

#include <string>
#include <string_view>

// Whether the text is a digest: 64 hexadecimal digits of either case.
bool IsDigest(std::string_view text);

// The digest of a whole open file, in lower case; the position of the descriptor is neither used
// nor moved. Empty, with errno set, when it cannot be read.
std::string FileDigest(int file);

// The digest of a text, in lower case.
std::string TextDigest(std::string_view text);

// Whether the two digests are the same, whatever their case.
bool SameDigest(std::string_view one, std::string_view other);

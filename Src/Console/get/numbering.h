// Names with a number, for files whose own name is taken.
#pragma once

#include <string>
#include <string_view>

// The ending of a name, with its dot, a part of `name`: ".iso", ".tar.gz". Empty when it has none,
// as
// ".a", or none that is worth keeping: of more than 16 bytes, ".part" or ".info".
std::string_view EndingOf(std::string_view name);

// The path with a number before the ending of its name: "a.iso" gives "a.1.iso", "a.tar.gz"
// "a.1.tar.gz", "a" and ".a" give "a.1" and ".a.1". ".part" and ".info" are no endings here: the
// result is never the name of a partial file. A long name is cut so that it stays, together with
// ".part", below 255 bytes. The number 0 gives the path itself.
std::string NumberedPath(const std::string& path, unsigned number);

// A number, `least` or more, with which there is no such file, while there is one with the number
// before. Looks at few names, however many are taken: a gap may be passed over.
unsigned FreeNumber(const std::string& path, unsigned least);

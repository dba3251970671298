// A file that goes to standard output, once all of it is there and was checked.
#pragma once

#include <string>

#include "Console/base/outcome.h"

// What stands for standard output where the name of a file is expected.
constexpr const char* OUTPUT_NAME = "-";

// A path that no other file has, for what is to be written: in the directory, or, when that is
// empty, in the one that TMPDIR names, or in /tmp.
std::string PrivatePath(const std::string& directory);

// Writes all of the open file to standard output; may take as long as the reader likes. Once the
// command is to end, it stops within moments.
Outcome WriteToOutput(int file);

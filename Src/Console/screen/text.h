// Texts for people: what may go to a terminal, how wide it is there, and numbers in words.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace text {

// Lets the C library know the widths of all characters, whatever the locale of the environment is.
// To be called once, at the start of the program.
void UseUtf8();

// `bytes` with everything that is not a visible character written as \xNN: control characters,
// invalid UTF-8, and marks that turn the direction of writing.
std::string Printable(std::string_view bytes);

// Columns that a printable text takes on a terminal.
int Width(std::string_view printable);

// The text in at most `columns` columns; below 0 counts as 0. A longer one is cut in the middle,
// with "..." there from 5 columns on.
std::string CutMiddle(std::string_view printable, int columns);

// The text in lines of at most `columns` columns, 2 or more. At least one line.
std::vector<std::string> Wrap(std::string_view printable, int columns);

// Filled up with blanks to `columns` columns, on the right or on the left.
std::string PadRight(std::string printable, int columns);
std::string PadLeft(std::string printable, int columns);

// "812 B", "64.0 MiB"; at most 10 columns.
std::string Size(double bytes);

// A time that was taken: "4.1 s", "2:05", "1:02:03".
std::string Duration(double seconds);

// A time as a clock shows it: "0:04", "1:02:03"; "--:--" when it is none below 100 hours. At most 8
// columns.
std::string Clock(double seconds);

// "1 file", "3 files"
std::string Count(std::size_t count, const char* noun);

}  // namespace text

// Texts for people: which bytes may be written to a terminal, how wide they are there, and numbers.
// A text is printable when Printable() leaves it as it is.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace text {

// Sets a UTF-8 locale for the widths of characters, whatever the environment says. To be called
// once, at the start of the program; the functions below need it.
void UseUtf8();

// `bytes` with everything that is not a visible character written as \xNN: control characters,
// invalid UTF-8, and marks that turn the direction of writing.
std::string Printable(std::string_view bytes);

// Columns that a printable text takes on a terminal; combining characters take none.
int Width(std::string_view printable);

// The text in at most `columns` columns; below 0 counts as 0. A longer one is cut in the middle,
// with "..." there from 5 columns on.
std::string CutMiddle(std::string_view printable, int columns);

// The text in lines of at most `columns` columns, 2 or more. At least one line.
std::vector<std::string> Wrap(std::string_view printable, int columns);

// Fills the text up to `columns` columns with blanks, on the right or on the left; a wider one
// stays.
std::string PadRight(std::string printable, int columns);
std::string PadLeft(std::string printable, int columns);

// "812 B", "64.0 MiB"; at most 10 columns.
std::string Size(double bytes);

// "61": whole percent, rounded down.
std::string Percent(double percent);

// A span of time: "4.1 s", "2:05", "1:02:03".
std::string Duration(double seconds);

// A span of time as a clock shows it: "0:04", "1:02:03"; "--:--" below 0, from 100 hours on, and
// for NaN. At most 8 columns.
std::string Clock(double seconds);

// "1 file", "3 files"
std::string Count(std::size_t count, const char* noun);

}  // namespace text

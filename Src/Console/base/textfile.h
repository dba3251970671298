// Small text files that options name, which keep what is in them out of the list of processes.
#pragma once

#include <string>
#include <vector>

// Reads the lines of a file of at most 64 KiB, each without its end, LF or CR LF. Returns the fault
// in one line, without anything of the file; empty when `lines` was set.
std::string ReadLines(const std::string& path, std::vector<std::string>& lines);

// The same with the first line only.
std::string ReadFirstLine(const std::string& path, std::string& line);

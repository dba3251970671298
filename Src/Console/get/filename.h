// Addresses that can be downloaded, and the names of their files.
#pragma once

#include <string>
#include <string_view>

#include "TaskMan/othermanagers.h"
#include "TaskMan/taskcontext.h"
#include "TaskMan/tasktext.h"

// Longest address of a page, which has a field in the task's slot.
constexpr std::size_t PAGE_ADDRESS_MOST = sizeof(tagTaskInfo::szOrgUrl) - 1;

// Longest name of a file that is made up, in bytes: one for ".part" behind it remains.
constexpr std::size_t LONGEST_NAME = 254 - std::string_view(TASK_PART_ENDING).size();

// Why the address cannot be downloaded, in one line; empty when it can be tried. It must be http or
// https, hold no blank or control byte, have at most `most` bytes and no AuthorityFault.
std::string AddressFault(std::string_view address, std::size_t most = TASK_ADDRESS_MOST);

// Why the name that a user gives a file cannot be used, in one line; empty when it can be tried. It
// may be a path.
std::string NameFault(std::string_view name);

// The file name for an address: the last part of its path, percent-decoded. Whatever the address
// says, the name has no "/", no control characters and no leading dot, is valid UTF-8, is never
// empty ("download" then), and together with ".part" stays below 255 bytes.
std::string NameFromAddress(std::string_view address);

// Path of the name in the directory, which may be empty; an absolute name stays. It is never taken
// for an option.
std::string PathIn(const std::string& directory, const std::string& name);

// The path for a task's slot: absolute, so that a sweep finds the part from any directory, unless
// the task would be refused for that.
std::string FindablePath(const std::string& path);

// The file name that a server gives (strFileName of a task's answer), safe in the same way: what
// stands behind the last "/" or "\\" of it, and with "_" behind when it would pass for a partial
// file or the record of one. Empty when nothing is left.
std::string NameFromServer(std::string_view text);

// The file name for a video of that title, safe in the same way: what a name cannot hold is left
// out, and ".flv" is added ("download.flv" when nothing is left).
std::string NameFromTitle(const std::string& title);

// The section that the manager of this process owns: g_VideoInfoSection.
#pragma once

#include <atomic>
#include <string>

// Whether OpenSection is at work: the section of this process may be there then, unmapped and
// unlocked.
extern std::atomic<bool> g_section_opens;

// Creates the section of process g_mainpid anew, private to this user, attaches it and writes the
// directory of the download info files, at most 1024 bytes, into its common area. Returns 0; or -1
// with the reason, nothing is left behind then: also when a living manager has that section.
int OpenSection(const std::string& directory, std::string& strReason);

// Detaches and removes the section and closes its descriptor.
void RemoveSection();

// Removes the name of the section alone: who has it attached goes on using it.
void RemoveSectionName();

// What went wrong and the system's text for `error`, in one line.
std::string SystemReason(const std::string& what, int error);

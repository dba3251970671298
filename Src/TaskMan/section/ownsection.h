// The section that the manager of this process owns: g_VideoInfoSection.
#pragma once

#include <atomic>
#include <string>

// True while OpenSection runs: the section of this process may exist then without being mapped or
// locked.
extern std::atomic<bool> g_section_opens;

// Creates the section of process g_mainpid anew, private to this user, attaches it and writes the
// directory of the download info files, at most 1024 bytes, into its common area. Returns 0; or -1
// with the reason, for example that a living manager has that section. Nothing is left behind then.
int OpenSection(const std::string& directory, std::string& strReason);

// Detaches and removes the section and closes its descriptor.
void RemoveSection();

// Removes the name of the section only: this process and its workers keep using it.
void RemoveSectionName();

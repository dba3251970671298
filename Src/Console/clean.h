// `taskman clean`: what dead managers left behind is removed.
#pragma once

#include <string>

struct CleanOptions {
    bool lookOnly = false;  // tell what is there, change nothing
};

// Returns the exit status.
int RunClean(const CleanOptions& options);

// The same without a word. To be called before a manager is started, which would sweep sections and
// locks alone and forget whose parts these were.
void CleanUp();

// `path` as it is to stand in a task, so that its part is found again from every directory:
// absolute, unless the task would be refused for that.
std::string FindablePath(const std::string& path);

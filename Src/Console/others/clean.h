// `taskman clean`: what dead managers left behind is removed.
#pragma once

struct CleanOptions {
    bool lookOnly = false;  // tell what is there, change nothing
};

// Returns the exit status: EXIT_STATUS_LOCAL when a part cannot be removed.
int RunClean(const CleanOptions& options);

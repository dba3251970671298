// `taskman clean`: removes what dead managers left behind.
#pragma once

struct CleanOptions {
    bool lookOnly = false;  // list what would be removed, change nothing
    bool parts = false;     // remove partial files that could be continued, too
};

// Returns the exit status: EXIT_STATUS_LOCAL when a part cannot be removed.
int RunClean(const CleanOptions& options);

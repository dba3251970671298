// The sweep of dead managers at the start of the manager of this process.
#pragma once

#include <chrono>

// Sweeps; to be called before the section of this process is made.
void BeginSweep(std::chrono::steady_clock::time_point now);

// Sweeps once more three seconds later: a worker may have been between fork and exec at the first
// time, unknown as such. For the disk watch, which may wait for a file system.
void EndOrphans(std::chrono::steady_clock::time_point now);

// The sweeps of the manager of this process: what dead managers have left is removed when it
// starts, and once more a little later.
#pragma once

#include <chrono>

// The first sweep, to be called before the section of this process is made. May wait for the file
// systems of the dead managers' parts.
void BeginSweep(std::chrono::steady_clock::time_point now);

// The second sweep, once three seconds have passed since the first; until then, and afterwards,
// does nothing. At the first one a worker may have been between fork and exec, not to be recognised
// as one. For a thread that may wait for file systems.
void SweepAgain(std::chrono::steady_clock::time_point now);

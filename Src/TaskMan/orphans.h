// Workers whose managers died, and the end that this process's manager makes to them.
#pragma once

#include <chrono>

// Sweeps what dead managers have left; to be called when the manager of this process starts.
void BeginSweep(std::chrono::steady_clock::time_point now);

// Kills the orphans that are still there three seconds after BeginSweep, and sweeps a second time
// then, for what was still under way at the first. Never waits; for the supervisor's ticks.
void EndOrphans(std::chrono::steady_clock::time_point now);

// Kills the orphans that are still there, whatever the time, and waits until they are gone, at most
// a second. For the manager's end; the supervisor has ended.
void EndOrphansNow();

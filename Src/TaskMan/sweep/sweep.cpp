#include "TaskMan/sweep/sweep.h"

#include "TaskMan/deadmanagers.h"
#include "common/AutoLock.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kSecondSweep{3};  // after the first

Threading::Mutex g_sweep_mutex;
Clock::time_point g_next_sweep TS_GUARDED_BY(g_sweep_mutex) = Clock::time_point::max();

}  // namespace

void BeginSweep(Clock::time_point now) {
    SweepDeadManagers(false);
    Threading::AutoLock hold(&g_sweep_mutex);
    g_next_sweep = now + kSecondSweep;
}

void SweepAgain(Clock::time_point now) {
    {
        Threading::AutoLock hold(&g_sweep_mutex);
        if (now < g_next_sweep) return;
        g_next_sweep = Clock::time_point::max();
    }
    SweepDeadManagers(false);
}

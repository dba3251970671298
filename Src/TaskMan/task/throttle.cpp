#include "TaskMan/task/throttle.h"

#include <array>

#include "TaskMan/timing.h"

Clock::time_point g_refuse_until;

namespace {

constexpr std::size_t kFailedStarts = 3;
std::array<Clock::time_point, kFailedStarts> g_failed_starts TS_GUARDED_BY(g_watch_mutex);
std::size_t g_failed_start_count TS_GUARDED_BY(g_watch_mutex) = 0;

}  // namespace

void NoteFailedStart(Clock::time_point now) {
    g_failed_starts[g_failed_start_count++ % kFailedStarts] = now;
    if (g_failed_start_count < kFailedStarts) return;
    const Clock::time_point oldest = g_failed_starts[g_failed_start_count % kFailedStarts];
    if (now - oldest > timing::kThrottle) return;
    g_refuse_until = now + timing::kThrottle;
    g_failed_start_count = 0;
}

void ForgetFailedStarts() {
    g_failed_start_count = 0;
    g_refuse_until = {};
}

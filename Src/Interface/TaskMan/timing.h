// How long the parts of the system wait for one another, in one table, so that what is promised of
// several waits together can be checked: README.md, docs/reliability.md and manager.h name the
// sums.
#pragma once

#include <algorithm>
#include <chrono>
#include <iterator>

namespace timing {

using Milliseconds = std::chrono::milliseconds;

// ---- The scanner.
constexpr Milliseconds kPassPause{1000};  // at most, between two passes
// At least: workers that end one by one cause no more passes than that.
constexpr std::chrono::microseconds kPassFloor{500};
constexpr int kShutdownPasses = 3;  // with g_Exit set, each with its full pause

// ---- The supervisor.
// No worker wakes the manager when it claims, answers, or hangs with the lock: slots are looked at.
constexpr Milliseconds kLook{500};
constexpr Milliseconds kRetry{20};  // until a lock that was busy is tried again
// For how long a dead worker's lock must be busy until the worker counts as its holder. A living
// holder has it for the copy of one slot.
constexpr Milliseconds kAbandonedLock{1250};
constexpr Milliseconds kStuckLock{5000};      // busy for so long: a living worker hangs with it
constexpr Milliseconds kStopPatience{10000};  // a size probe does not see the stop word
constexpr Milliseconds kExitPatience{10000};  // from a worker's final code to its exit
constexpr Milliseconds kHandOver{5000};       // for a worker that waits to claim its next task
// The kernel may hold a killed worker for as long as a disk does not answer. It runs no code of its
// own any more.
constexpr Milliseconds kKillPatience{2000};
// Beyond all tries of an extended download, for whose limits its worker sees to: another process
// that writes the file, a file that has changed.
constexpr Milliseconds kOwnLimits{60000};
constexpr Milliseconds kPause{1000};  // a wait that ends so late: this process was stopped

// ---- Between two tries.
// Seconds after `failures` tries in a row that brought nothing; the caller has a limit.
constexpr double PauseAfter(int failures) {
    constexpr double kPauses[] = {0.3, 1, 3, 10, 30, 100, 300};
    return kPauses[std::clamp(failures - 1, 0, static_cast<int>(std::size(kPauses)) - 1)];
}

// ---- Starts. Three that fail within this time close the manager for as long.
constexpr Milliseconds kThrottle{10000};

// ---- The disk watch.
constexpr Milliseconds kDiskLook{250};
constexpr Milliseconds kDiskWatchEnd{2000};  // beyond, a file system holds it

// ---- The end of the manager, one after the other.
constexpr Milliseconds kTasksEnd{12000};   // all tasks end, kills included
constexpr Milliseconds kQuietEnd{3000};    // the workers exit, and the scanner without tasks ends
constexpr Milliseconds kScannerEnd{5000};  // one with tasks, told by g_Exit
constexpr Milliseconds kWorkersEnd{2000};  // killed workers are gone
constexpr Milliseconds kExitOfProcess{30000};  // for an end that another thread is at

// ---- The command.
constexpr Milliseconds kTurn{250};           // the longest wait of its main loop
constexpr Milliseconds kCommandStop{11000};  // from the first signal to an end without waiting
constexpr Milliseconds kCommandKills{500};   // killed workers are gone

// A task that is to stop ends with its manager, also when its worker is killed with the lock.
static_assert(kStopPatience + kLook + kAbandonedLock + 2 * kRetry < kTasksEnd);
// "dead with the lock: at most 3 seconds", a pass that is on and its pause included.
static_assert(kAbandonedLock + 2 * kRetry + kPassPause < Milliseconds(3000));
// "without a lock: half a second", which is the time for an inspection that meets a busy lock.
static_assert(10 * kRetry + kPassFloor < Milliseconds(500));
// "then for its threads and workers, at most 13 seconds".
static_assert(kQuietEnd + kDiskWatchEnd + kScannerEnd + kWorkersEnd < Milliseconds(13000));
// A scanner that is told to end works its passes before it is given up.
static_assert((kShutdownPasses + 1) * kPassPause < kScannerEnd);
static_assert(kTasksEnd + Milliseconds(13000) < kExitOfProcess);
// "the first signal stops everything within 12 seconds".
static_assert(kCommandStop + kTurn + kCommandKills < Milliseconds(12000));
static_assert(kStopPatience < kCommandStop);

}  // namespace timing

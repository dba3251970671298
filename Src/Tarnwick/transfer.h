// What every transfer of the worker shares: libcurl itself, the proxy, the bound on tries, and what
// happens after a try that failed. The first three are for the main thread, ClampTries of a number
// for any, the rest for the job thread.
#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <cstdint>

#include "TaskMan/taskcontext.h"

// Prepares libcurl for the process. Returns 0, or -1 after a message on standard error.
int LoadCurlLib();

// Releases libcurl. Returns 0.
int UnLoadCurlLib();

// Removes from the environment what would configure a transfer past the slot: every variable that
// names a proxy or exempts from one (those that end in "_proxy", in either case), OPENSSL_CONF, and
// SSLKEYLOGFILE, the file that libcurl writes the keys of all connections to. Must run before
// LoadCurlLib, and before other threads exist.
void IgnoreEnvironment();

// Sets the task's proxy on the handle when it uses one.
void SetProxy(CURL* curl, const tagTaskContext& task);

// Sets the timeouts of every transfer: 5 seconds to connect (CURLOPT_CONNECTTIMEOUT), and a
// low-speed limit of 0 bytes per second over 20 seconds, which no transfer falls below: stalls are
// the progress callback's.
void SetTimeouts(CURL* curl);

// Follows redirects, at most 30. The first address and all others are http or https only: libcurl
// refuses any other before it connects.
void FollowRedirects(CURL* curl);

// Number of tries, or of seconds between them, for the number a slot holds: 0 to 3 stay, anything
// else is 3.
std::int32_t ClampTries(std::int32_t number);

// Clamps nTryCount and nTryInterval of the task.
void ClampTries(tagTaskContext& task);

// The length that libcurl reports as a double, without a fraction; 0 for a negative one or none,
// the largest number for one beyond it.
std::uint64_t ToLength(double length);

// Whether the manager has asked the task to stop. False before the slot is claimed.
bool StopRequested();

// The code of a task that failed: 6 for command 0, else 7.
tagDownloadStateCode FailureCode(const tagTaskContext& task);

// What follows a try.
enum class TryStep {
    kDone,     // the try succeeded
    kEnded,    // the process is ending: report nothing
    kStopped,  // a stop was asked: code 8
    kUsedUp,   // no tries are left: the failure code
    kAgain,    // try again
};

// After a failed try: whether the process ends or a stop was asked; else kAgain.
TryStep EndedOrStopped();

// Counts a failed try in g_TryCount; kUsedUp when that was the last one of `task`, else kAgain
// after the pause between tries.
TryStep CountFailedTry(const tagTaskContext& task);

// Both, one after the other.
TryStep AfterFailedTry(const tagTaskContext& task);

// Reports code 8 or the failure code for an outcome that ends the job, and sets g_Exit.
void ReportEnd(TryStep outcome, const tagTaskContext& task);

// Write callbacks of this process return this to break a transfer off.
constexpr std::size_t kBreakOff = static_cast<std::size_t>(-1);

// Calls `step` from a function that libcurl calls: an exception, which must not pass through
// libcurl, becomes `failed`.
template <class Result, class Step>
Result KeepExceptions(Result failed, Step step) noexcept {
    try {
        return step();
    } catch (...) {
        return failed;
    }
}

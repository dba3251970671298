// What all transfers of the worker share: libcurl itself, options, the limits on tries, and what
// follows a failed try. The first three operations are for the main thread, ClampTries of a number
// for any, the rest for the job thread.
#pragma once

#include <curl/curl.h>

#include <cstdint>

#include "Tarnwick/engine/curl.h"
#include "TaskMan/taskcontext.h"

// Initialises libcurl for the process (curl_global_init). Returns 0, or -1 after a message on
// standard error; curl_easy_init fails then, too.
int LoadCurlLib();

// Releases libcurl (curl_global_cleanup). Always 0.
int UnLoadCurlLib();

// Removes from the environment what would configure a transfer past the slot: every variable that
// names a proxy or exempts from one (those that end in "_proxy", in either case), OPENSSL_CONF, and
// SSLKEYLOGFILE, the file that libcurl writes the keys of all connections to. Must run before
// LoadCurlLib, and before other threads exist.
void IgnoreEnvironment();

// Sets the task's proxy on the handle when it uses one. nProxyType is libcurl's own value
// (CURLOPT_PROXYTYPE); "HOST:PORT" and "USER:PASSWORD" are cut to 254 bytes.
void SetProxy(CURL* curl, const tagTaskContext& task);

// Sets the timeouts of every transfer: 5 seconds to connect (CURLOPT_CONNECTTIMEOUT), and a
// low-speed limit of 0 bytes per second over 20 seconds, which no transfer falls below: stalls are
// the progress callback's.
void SetTimeouts(CURL* curl);

// Number of tries, or of seconds between them, for the number a slot holds: 0 to 3 stay, anything
// else is 3.
std::int32_t ClampTries(std::int32_t number);

// Clamps nTryCount and nTryInterval of the task.
void ClampTries(tagTaskContext& task);

// A length in bytes as libcurl reports it, truncated to a whole number; 0 for a negative number or
// NaN, the largest integer for a number beyond it.
std::uint64_t ToLength(double length);

// Whether the manager has requested a stop (nControl of the live slot, read without the lock).
// False before the slot is claimed.
bool StopRequested();

// The code of a task that failed: 6 for command 0, else 7.
tagDownloadStateCode FailureCode(const tagTaskContext& task);

// What follows a try.
enum class TryStep {
    kDone,     // the try succeeded
    kEnded,    // g_Exit is set: report nothing
    kStopped,  // a stop was requested: report code 8
    kUsedUp,   // no tries are left: report the failure code
    kAgain,    // try again
};

// After a failed try: kEnded or kStopped; else kAgain.
TryStep EndedOrStopped();

// Counts a failed try in g_TryCount; kUsedUp when that was the last one of `task`, else kAgain
// after the pause between tries.
TryStep CountFailedTry(const tagTaskContext& task);

// EndedOrStopped(), and if that says kAgain, CountFailedTry().
TryStep AfterFailedTry(const tagTaskContext& task);

// Reports code 8 or the failure code for an outcome that ends the job, and sets g_Exit.
void ReportEnd(TryStep outcome, const tagTaskContext& task);

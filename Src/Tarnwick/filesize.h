// The size probe: learns how large the file of a task is before it is downloaded.
#pragma once

#include <cstddef>
#include <cstdint>

#include "TaskMan/taskcontext.h"

// Asks for the file and breaks the transfer off at the first bytes of its body, once the response
// code is 200 and a length above 0 is announced. On success returns the size in bytes, stores it in
// g_FileSize and, with code 10, in the slot. Otherwise returns 0: after code 8 (a stop was asked)
// or the failure code (tries used up), both with g_Exit set; or with no code when g_Exit was set or
// no try was allowed. Clamps nTryCount and nTryInterval of `taskCon`.
//
// `curl` is a handle of the caller, which keeps the options set here; or null: the probe then uses
// one of its own. The address must not be empty, and a slot that is no longer the task's ends the
// process: standard assertions. Job thread only.
std::uint64_t GetFileSize(void* curl, tagTaskContext* taskCon);

// Write callback of the probe; `userdata` is the transfer's handle. Returns size * nmemb to let the
// transfer go on (what it delivers is dropped), or -1, with g_FileSize set, to break it off.
std::size_t GetFileSize_Callback(void* ptr, std::size_t size, std::size_t nmemb, void* userdata);

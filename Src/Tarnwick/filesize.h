// The size probe: learns how large the file of a task is before it is downloaded.
#pragma once

#include <cstddef>
#include <cstdint>

#include "TaskMan/taskcontext.h"

// Requests the file and aborts the transfer at the first bytes of its body, if the response code is
// 200 and a length above 0 is announced. On success returns the size in bytes, and stores it in
// g_FileSize and, with code 10, in the slot. Otherwise returns 0: after code 8 (a stop was
// requested) or the failure code (tries used up), both with g_Exit set; or without a code when
// g_Exit was set already or no try was allowed. Clamps nTryCount and nTryInterval of `taskCon`.
//
// `curl` is a handle of the caller, which keeps the options set here; or null: the probe then uses
// one of its own. No handle, an empty address, and a slot that is no longer the task's fail the
// standard assertion. Job thread only.
std::uint64_t GetFileSize(void* curl, tagTaskContext* taskCon);

// Write callback of the probe; `userdata` is the transfer's handle, null fails the standard
// assertion. Returns size * nmemb to continue, dropping the data; or -1, with g_FileSize set in
// bytes, to abort the transfer. Job thread only.
std::size_t GetFileSize_Callback(void* ptr, std::size_t size, std::size_t nmemb, void* userdata);

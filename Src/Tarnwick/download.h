// The download of a task's file.
#pragma once

#include <cstddef>

#include "TaskMan/taskcontext.h"

// Downloads `taskCon`'s address into its output path, from the first byte with every try, and
// reports the outcome in the slot: code 3 (the transfer ended with response code 200), 8 (a stop
// was requested) or the failure code, also for a path that cannot be opened. Nothing is reported
// when g_Exit was set before the first try. No outcome deletes the file; it is truncated when it is
// opened, not between tries. Returns 0; or -1 when it was neither stopped nor out of tries and has
// no response code 200. Clamps nTryCount and nTryInterval of `taskCon`.
//
// `curl` is the handle of the caller, who releases it and does not use it for another transfer: it
// refers to the closed file. A null argument or an empty address fails the standard assertion. Job
// thread only.
int DownloadVideo(void* curl, tagTaskContext* taskCon);

// Writes `nmemb` items of `size` bytes to `userdata`, the FILE of the output. Returns the number of
// items written; or -1, which aborts the transfer, when a stop was requested or g_Exit is set: the
// items are written first, and the stream is flushed. Job thread only.
std::size_t process_data(void* ptr, std::size_t size, std::size_t nmemb, void* userdata);

// The download of a task's file.
#pragma once

#include <cstddef>

#include "TaskMan/taskcontext.h"

// Downloads `taskCon`'s address into its output path, from the first byte with every try, and
// reports the outcome in the slot: code 3 (the transfer ended with response code 200), 8 (a stop
// was asked) or a failure code. Nothing is reported when g_Exit was set before the first try. No
// outcome deletes the file, and a try never truncates it. Returns 0, or -1 when it was neither
// stopped nor out of tries and yet has no response code 200. Clamps nTryCount and nTryInterval of
// `taskCon`.
//
// `curl` is the handle of the caller, who releases it. Neither argument is null, nor the address
// empty: that fails the standard assertion. Job thread only.
int DownloadVideo(void* curl, tagTaskContext* taskCon);

// Write callback of the download; `userdata` is the output's FILE. Returns the number of items
// written, or -1 after a stop was asked or g_Exit set; the block is written and the stream flushed
// then.
std::size_t process_data(void* ptr, std::size_t size, std::size_t nmemb, void* userdata);

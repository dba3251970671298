// The resolution of a video page into the video information text.
#pragma once

#include <string>
#include <vector>

#include "TaskMan/taskcontext.h"

// Resolves the page of `task` and publishes the information text in the slot with code 1, or
// reports why not: code 8 (a stop was requested), 16 (the text is longer than 20000 bytes) or the
// failure code. Nothing is reported once g_Exit is set, or when the slot is no longer the task's.
// Returns the text that was published, else an empty string. Clamps nTryCount and nTryInterval of
// `task`, and sets g_DefaultTitle and g_DefaultThumbnail.
//
// `curl` is a fresh handle of the caller, who only releases it afterwards. Job thread only.
std::string ParseDownloadUrl(void* curl, tagTaskContext* task);

// The same with more header lines for each request. The User-Agent stays the fixed one.
std::string ResolvePage(void* curl, tagTaskContext* task, const std::vector<std::string>& headers);

// Write callback of the page fetch: appends the size * nmemb bytes at `data` to `buffer`, which
// holds at most 64 MiB. Returns their number; or -1, which makes libcurl abort the transfer, when a
// stop was requested or g_Exit is set (the bytes are appended all the same), or when they did not
// all fit: the buffer is then full, and counts as the whole answer. Job thread only.
int writer_func(void* data, int size, int nmemb, std::string& buffer);

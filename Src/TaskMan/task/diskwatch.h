// The disk watch: looks at how far the output file of each download has come, from outside its
// worker. A try that has received bytes gives a worker all its tries back, so that a full disk, or
// a server that breaks off every time, would keep it trying for ever.
//
// It has a thread of its own, because a file system may not answer for a long time. For the same
// reason that thread makes the second sweep of what dead managers have left.
#pragma once

#include <cstdint>
#include <string>

#include "common/platform.h"

// What is known of the output file of one download.
struct FileAdvance {
    platform::OpenFile last{};     // at the last look
    std::int64_t nBest = 0;        // bytes that have been in the file at one time
    std::int32_t nStartsOver = 0;  // since the file last grew
    bool bSpaceChecked = false;    // for the size that was announced
};

// Records the output file as it is at this look. Returns whether its transfer has started over
// since the last look: the position is lower, or it is the same although something has been
// written.
bool NoteFile(FileAdvance& advance, const platform::OpenFile& now);

// Starts and ends the thread, which looks four times a second and asks tasks to stop that lack
// space or start over too often. StartDiskWatch returns 0 or an error number. EndDiskWatch waits at
// most two seconds: it returns false when the thread is still blocked in a file system, and the
// thread ends when that answers.
int StartDiskWatch();
bool EndDiskWatch();

// The disk watch: looks at how far the output file of each download has come, from outside its
// worker. A worker whose try has received bytes has all its tries again, so that a disk that is
// full, or a server that breaks off each time, would keep it at work for ever.
//
// It has a thread of its own: a file system may take its time, and then only this thread waits. So
// the second sweep of what dead managers have left is its work as well.
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

// Takes note of the output file as it is now. Whether its transfer has started over since the last
// look: that shows in a position that fell, and in something that was written between the two looks
// without the position having grown.
bool NoteFile(FileAdvance& advance, const platform::OpenFile& now);

// Starts and ends the thread. It looks four times a second and asks tasks to stop that lack space
// or start over too often. EndDiskWatch waits for its end, at most two seconds: false when a file
// system still holds it; it ends once that answers.
int StartDiskWatch();
bool EndDiskWatch();

// The parts that this process has open, for whoever tidies up after it when it is killed.
//
// A task names its part in its slot, but no longer than it runs: a part that is being brought to
// its final name after that, or that no task writes, is nobody's once the process is gone. So the
// process keeps a list of them in shared memory, locked (flock) as long as it lives. The list is
// there while a part is in it. SweepDeadManagers of any process of the user takes what a dead one
// has left.
//
// Any thread may call. A list that cannot be made or written is no fault: the parts are not told
// then.
#pragma once

#include <string>

// Puts the part into the list: to be called before it is made. `path` is absolute or meant from the
// working directory. Returns the number of the note; or -1 when nothing was noted: no list, a path
// longer than 1023 bytes, or 1024 parts in the list.
int NotePart(const std::string& path);

// Takes the part out of the list, once it is removed, renamed, or to be kept. With -1 this does
// nothing.
void ForgetPart(int nNote);

// Removes the list, for an end of the process that leaves no time for each part. Nothing is noted
// afterwards.
void ForgetParts();

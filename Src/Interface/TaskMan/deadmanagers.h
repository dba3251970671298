// What managers of this user that were killed have left: their sections, the locks of their tasks,
// partial files, and workers that still run.
//
// Every manager removes it when it starts. Any thread of any process may call. Paths and process
// ids in a section come from another process and are not trusted: a file is removed only if it is a
// part that nobody has locked, and a process is killed only if it was started as a worker for a
// task of a dead manager.
#pragma once

#include <string>
#include <vector>

#include "TaskMan/othermanagers.h"

// What dead managers have left. Nothing is listed twice.
struct Remains {
    std::vector<std::string> sections{};  // names
    std::vector<std::string> locks{};     // names of semaphores
    std::vector<WorkerProcess> workers{};
    std::vector<std::string> parts{};        // absolute paths, from the slots of the dead
    std::vector<std::string> continuable{};  // paths of parts that stay: the next run goes on
    std::vector<std::string> stuck{};        // paths of parts that could not be removed
};

// Looks for what dead managers have left and removes it; with `bLookOnly` nothing is changed. Parts
// are removed if they are regular files of this user that nobody has locked. Workers are asked to
// stop, and killed at once: one that still asks its server for the size of the file would open its
// output path later, when another download may already write there. Waits for their end, at most a
// second. What a living manager uses stays, also under the same id.
//
// A part with a sound record (TaskMan/partrecord.h), which an extended task leaves, can be
// continued: it stays, and so does its record, unless `bContinuable` is set. Nobody finds it by a
// section any more then; whoever asks for the same file does, by its name.
//
// While it runs, it holds the locks of the dead sections, so that two sweeps never meet; a manager
// that starts with the process id of a dead one waits for that. If the caller dies, the next sweep
// finds what is left.
Remains SweepDeadManagers(bool bLookOnly, bool bContinuable = false);

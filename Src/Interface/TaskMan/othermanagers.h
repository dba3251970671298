// The managers of this user's other processes, and what managers that died have left behind.
//
// A manager shows that it lives by the lock (flock) it holds on its section, and by having it
// mapped. One that was killed leaves its section, the locks of its tasks, half a file for each
// download, the list of those it had noted (TaskMan/openparts.h), and workers that go on for
// nobody.
//
// Any thread of any process may call. Nothing here creates a name or waits long for a lock. What
// stands in a section is another process's word: ids and paths are checked, process ids never acted
// on.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

// A task in the section of a living manager, copied at one moment without its lock. Texts and
// values are as they were found; only `id` is known to be one.
struct OtherTask {
    int nManagerPid = -1;
    int nTaskIndex = -1;  // slot, 0 to 7
    std::string id{};
    std::string address{};  // of the file for a download, else of the page
    std::string path{};     // output path
    std::int32_t nCmd = -1;
    std::int32_t nPid = -1;  // -1: no worker has claimed the task
    std::int32_t nControl = -1;
    std::uint32_t nStateBits = 0;  // those the manager has not taken yet
    double dFileSize = 0;
    double dProgress = -1;
    double dSpeed = -1;
};

// Process ids of all living managers of this user, in ascending order.
std::vector<int> ListManagers();

// Their tasks, in the order of managers and slots.
std::vector<OtherTask> ListTasks();

// Asks the task to stop, by the word in its slot, under its lock if that can be had within two
// seconds. False when the slot does not carry its id any more; the task has ended then.
bool StopOtherTask(const OtherTask& task);

// A process of this user that was started like a worker: with a task id, a slot and a process id.
struct WorkerProcess {
    pid_t pid = -1;
    std::string id{};  // of the task
    int nTaskIndex = -1;
    int nManagerPid = -1;
};

std::vector<WorkerProcess> ListWorkers();

// Whether the process was started for this task.
bool Serves(const WorkerProcess& worker, const OtherTask& task);

// An output path that ends so is a part: half a file, which whoever works on it has locked (flock).
constexpr const char* TASK_PART_ENDING = ".part";

// What dead managers have left; nothing is told twice.
struct Remains {
    std::vector<std::string> sections{};  // names
    std::vector<std::string> locks{};     // names of semaphores
    std::vector<WorkerProcess> workers{};
    std::vector<std::string> parts{};  // paths
    std::vector<std::string> stuck{};  // paths of parts that could not be removed
    std::vector<std::string> lists{};  // names of the lists of open parts
};

// Looks for what managers of this user that are dead have left, and removes it: sections, locks,
// lists of open parts, and parts of this user that nobody has locked. Their workers are asked to
// stop and killed at once: one that still asks its server for the size of the file would open its
// output path afterwards, whoever writes there by then. Waits for their end, at most a second. With
// `bLookOnly` nothing is changed. What a living manager uses is left alone, also under the same id.
Remains SweepDeadManagers(bool bLookOnly);

// The living managers of this user's processes, this one's among them, and their tasks.
//
// A manager shows that it lives by the lock (flock) it holds on its section, or by having it
// mapped. What dead ones have left is the subject of TaskMan/deadmanagers.h.
//
// Any thread of any process may call, also one without a manager. Nothing here creates a name or
// takes a lock for longer than a moment. What stands in a section comes from another process and
// is not trusted: ids are checked, process ids are never acted on.
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
    double dFileSize = 0;          // bytes
    double dProgress = -1;         // percent; -1: none reported
    double dSpeed = -1;            // bytes a second; -1: none reported
};

// An output path that ends so is a part: a partial file, which its owner keeps locked (flock). When
// its manager is dead it is removed, unless a sound record beside it (TaskMan/partrecord.h) says
// that it can be continued.
constexpr const char* TASK_PART_ENDING = ".part";

// Process ids of all living managers of this user, in ascending order. Empty where the system
// cannot list shared memory.
std::vector<int> ListManagers();

// Their tasks, in the order of managers and slots.
std::vector<OtherTask> ListTasks();

// Asks the task to stop, by the word in its slot, and waits 10 milliseconds to store the word again
// if the task is still there: a worker that claims its task at this moment writes the whole slot
// back, with the word as it was. True when the slot carried the id; how the task ends is its
// manager's business. False when it did not: the task has ended.
//
// No lock is taken, so a caller that is stopped or killed at any moment holds up nobody. If it dies
// before the second store, the request may be lost, nothing else. A caller that is held up between
// its look at the id and the store, until the slot has its next task, asks that one to stop.
bool StopOtherTask(const OtherTask& task);

// A process of this user that was started like a worker: with a task id, a slot and a process id.
struct WorkerProcess {
    pid_t pid = -1;    // -1: no such process
    std::string id{};  // of the task
    int nTaskIndex = -1;
    int nManagerPid = -1;
};

// All of them in this process's process id namespace, whether or not their managers live.
std::vector<WorkerProcess> ListWorkers();

// The worker with this process id; one with the pid -1 when that process is none.
WorkerProcess WorkerOf(pid_t pid);

// Whether the process was started for this task, or for an earlier one in the same slot and has
// claimed this one.
bool Serves(const WorkerProcess& worker, const OtherTask& task);

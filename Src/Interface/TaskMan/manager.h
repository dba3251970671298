// The task manager, for applications.
//
// An application starts the manager once, adds tasks, may ask tasks to stop, and ends the manager.
// Each task is carried out by a worker process, which has no other one at the same time; what the
// worker reports arrives in the task's callbacks. Whatever happens to a worker, each task that was
// added gets exactly one final callback (codes 1, 3, 6, 7, 8 and 16).
//
// The manager reaps its workers itself. An application may install proc_child as its handler for
// SIGCHLD all the same, with SA_RESTART and SA_NOCLDSTOP; that handler reaps every child of the
// process, so that one that waits for children of its own (system, popen) does better without.
//
// All functions may be called from any thread. A callback may call all of them but EndTaskManager,
// and must not call exit(), which ends the manager. No text is null.
#pragma once

#include <cstdint>
#include <string>

#include "TaskMan/taskcontext.h"
#include "TaskMan/tasktext.h"

// Handler for SIGCHLD: reaps every child that has ended. Keeps errno.
void proc_child(int signal);

// Starts the manager of this process: creates the section, writes `szInfoDirectory` (the directory
// of the download info files, at most 1024 bytes) into its common area, and begins to supervise.
// `szWorkerPath` is the program that AddTask starts. Returns 0; or -1 with the reason in one line,
// nothing is left behind then.
int StartTaskManager(const char* szWorkerPath, const char* szInfoDirectory, std::string& strReason);

// Whether a task that AddTask has refused may be added again as it is. kLater: what stood in its
// way passes by itself: all slots are taken, its id or its file is another task's, workers end at
// once, or the system is short of memory, descriptors or room. kNever: everything else.
enum class TaskRefusal { kNone, kNever, kLater };

// Puts the task into a free slot and starts its worker, or gives it to one that waits. The record
// is copied; its callbacks are called from the manager's scanner thread, with no lock held and
// signals blocked, and must return soon and not throw; the final one of a task that has not ended
// when EndTaskManager gives it up comes from the thread that has called that. The first may come
// before AddTask returns. AddTask may wait some seconds while the worker of another task hangs with
// that task's lock, and for as long as the file system of the path does not answer.
//
// Returns 0; or -1 with the reason in one line, no callback comes then. `refusal`, which may be
// null, then tells whether to try again later; it is kNone with 0. Refused are: an id that is
// empty, longer than 63 bytes, not of letters, digits, "_" and "-", in use, a prefix of one in use
// or the reverse; a command and kind that make neither a parse nor a download job; an address that
// is not http or https; a path or a number of blocks that CheckTaskParam refuses; a path that a
// live task writes; a text that fills its field; a ninth task; every task for ten seconds when
// three workers have ended within ten seconds without having claimed theirs; and every task when
// the section has lost its name, by which workers find it: systemd removes the shared memory of a
// user at logout unless RemoveIPC is off.
//
// The id names a semaphore, and is the application's to keep apart from those of other managers on
// the machine: one that is in use there is taken over unseen. A path that ends in TASK_PART_ENDING
// (othermanagers.h) is removed after a crash, unless somebody has the file locked or it can be
// continued.
int AddTask(const tagTaskInfo& taskinfo, std::string& strReason, TaskRefusal* refusal = nullptr);

// Adds an extended task: a download with requests, retries and a partial file of its own kind, or a
// page, of which it is told why it failed (docs/protocol.md, "The extended task"). Everything is
// like above but for this:
//
// - The address of a download is the request's, up to 16384 bytes; without one, the record's. A
//   page's is the record's, and the request has none.
// - The record's number of blocks, 1 to 10, is the largest number of connections of a download; its
//   numbers of tries and seconds are of no account there, nor is tagTaskLimits::nAnswerSeconds once
//   the worker has claimed the task: it keeps the request's limits itself, and the manager ends
//   what lasts longer than all of them together. nReserved1 is set by AddTask; a value of 1 is
//   taken out of a record without a request.
// - A stop ends it within a fraction of a second. Its worker ends by itself when the manager is
// gone.
// - Without a known size there is no code 4, and no code 10 but one with -1, should a size that was
//   told count no more. Percentages have a fraction.
//
// Refused is, too, what RefusalOf(request) refuses, and a request that the system does not take.
int AddTask(const tagTaskInfo& taskinfo, const tagTaskRequest& request, std::string& strReason,
            TaskRefusal* refusal = nullptr);

// What the worker of an extended task has told with its code 10 and with its final code; TaskRemark
// tells what the manager did. With code 1 there is an information text instead. To be called no
// later than from the final callback. Returns false, and leaves `answer` as it is, when there is no
// such task, it is not extended, or nothing was told yet: its worker may have died before.
bool TaskAnswer(const char* szTaskID, tagTaskAnswer& answer);

// Asks a task to stop. It ends with code 8, or with the code it had reached before. A worker that
// does not end within ten seconds is killed. Returns 0, or -1 when there is no such task.
int StopTask(const char* szTaskID);

// Limits the rate of an extended download, from now on, to so many KiB per second of what comes on
// all its connections together; 0: no limit. tagTaskRequest::nRate is the limit with which it
// begins. Its worker obeys within a tenth of a second, or as soon as it runs; what it has to hold
// back counts as no silence of the server. Returns 0; or -1, and nothing is changed, when there is
// no such task, it has ended, it is no extended download, or the number is below 0.
int SetTaskRate(const char* szTaskID, std::int32_t nRate);

// How long a worker may wait for a server before it is killed and its task has failed: neither a
// size probe nor a page fetch ends by itself when a server accepts and stays silent. And how often
// the transfer of a file may start over without the file having grown before the task is stopped: a
// try that has received bytes gives the worker all its tries back.
struct tagTaskLimits {
    std::int32_t nAnswerSeconds = 30;  // a download, to its code 10 or 2; 0: for ever
    std::int32_t nPageSeconds = 90;    // a page, to its final code; 0: for ever
    std::int32_t nStartsOver = 10;     // 0: for ever
    // Of extended downloads, for those that are added from now on. A worker whose task has ended
    // with code 3 or 8 may wait for the next one, unless it has grown beyond 8 MiB of private
    // memory. The next task then needs no start and finds the connections of the one before; it
    // has to have the same login, headers, proxy, authorities and certificate, no netrc file, and
    // no partial file to go on with.
    //
    // For how many seconds, at most 3600; 0: each task has a worker of its own.
    std::int32_t nIdleSeconds = 0;
    std::int32_t nTasksPerWorker = 100;  // after so many it exits
};

// Sets the limits for all tasks, from now on.
void SetTaskLimits(const tagTaskLimits& limits);

// What the manager knows about the way a task ended beyond its code, in one line: "the worker
// died", for example. Empty when the worker itself reported the end, unless the manager had stopped
// the task; the code is 8 then, or a failure's, and the remark one of the first two below. To be
// called from the task's final callback; afterwards the task is forgotten.
constexpr const char* TASK_REMARK_NO_SPACE = "no space left for the file";
constexpr const char* TASK_REMARK_STARTS_OVER =
    "the transfer starts over and over without getting further";
constexpr const char* TASK_REMARK_NO_ANSWER = "the server did not answer in time";
std::string TaskRemark(const char* szTaskID);

// Size in bytes of the file of a task, as its worker has announced it with code 10; 0 while it is
// unknown, -1 when an extended task's file has begun anew and the server does not tell the size. To
// be called no later than from the final callback: a task that ends before the scanner
// has looked at it again reports its final code only, and the size is told here alone.
double TaskFileSize(const char* szTaskID);

// Number of further tasks that AddTask has room for now, 0 to 8; 0 while no manager runs, and while
// all tasks are refused because workers end at once. A slot is free again when its task's final
// callback has returned and its worker process is gone, or waits for another task.
int FreeSlotCount();

// Called when a slot may have become free for AddTask: a task's final callback has returned and its
// worker is gone or waits for another one, or tasks are accepted again after workers that ended at
// once. It comes from a thread of the manager, with no lock held and signals blocked, must return
// soon, and is best used to wake the thread that adds tasks: FreeSlotCount tells how many slots
// there are. It must not call AddTask, EndTaskManager or SetSlotFreedCallback: what those wait for
// may be this thread.
using SlotFreedCallback = void (*)(void* param);

// Sets the function to be called, with `param`; null for none. May be called while no manager runs
// and keeps its value from one manager to the next. When it returns, the earlier function is not
// running and is not called any more.
void SetSlotFreedCallback(SlotFreedCallback callback, void* param);

// Ends the manager: refuses new tasks, stops all, waits for their ends (at most 12 seconds, then
// for its threads and workers, at most 13), removes every name it made and closes the section.
// Returns 0; or -1 when no manager runs, or when a callback does not return: the names are removed
// then too, and no manager can be started any more. A manager that still runs when the process
// exits is ended then; and the exit waits for an end that another thread is at.
int EndTaskManager();

// Kills all workers at once; each task's final callback follows, as after any death. A worker that
// AddTask is just starting is not among them. For an application that has to end without delay,
// also while EndTaskManager waits on another thread.
void KillWorkers();

// A new id for a task: 30 characters, made of the process id, the time and 64 random bits. No two
// calls on a machine give the same.
std::string MakeTaskID();

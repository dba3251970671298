// The operations beneath the manager: the scanner and what it works on, the checks on tasks and the
// start of worker processes. An application needs none of them while it uses TaskMan/manager.h,
// which this header includes.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "TaskMan/manager.h"
#include "TaskMan/taskcontext.h"
#include "common/threadsafety.h"

// ---- The scanner and what it works on.

// The tasks in hand. The map owns its nodes; while a scanner runs, only the scanner erases and
// frees them. Lock order: g_access_taskmap_mutex, then a task's mutexLock or
// g_access_taskcount_mutex.
extern Threading::Mutex g_access_taskmap_mutex;
extern std::map<std::string, tagTaskNode*> g_TaskInfo_map TS_GUARDED_BY(g_access_taskmap_mutex);

extern Threading::Mutex g_access_taskcount_mutex;
extern std::int32_t g_ParseCount TS_GUARDED_BY(g_access_taskcount_mutex);     // parse jobs
extern std::int32_t g_DownloadCount TS_GUARDED_BY(g_access_taskcount_mutex);  // download jobs
extern std::int32_t g_TaskCount TS_GUARDED_BY(g_access_taskcount_mutex);      // all, 0 to 8

// Whether no scanner runs, with its lock; a scanner that ends sets it and broadcasts.
extern pthread_mutex_t g_ScanThradIsExit_Lock;
extern pthread_cond_t g_ScanThradIsExit_Cond;
extern bool g_ScanThradIsExit;

// Kept for applications that address the module by them; the manager sets the first three.
extern std::int32_t g_mainpid;     // process id in the section's name; -1 while no manager runs
extern std::string g_AppDataPath;  // directory of the download info files
extern pthread_t g_ScanDataPid;    // the scanner thread started last, which is detached
extern Threading::Mutex g_start_tarnwick_mutex;
extern Threading::Mutex g_ScanThradIsExit_Mutex;

// Per slot, what the scanner has taken of the task: its size with code 10, bytes; and whether a
// final code, from which on the slot is the scanner's alone. AddTask sets both back.
extern std::atomic<double> g_TaskFileSize[TASK_SLOT_COUNT];
extern std::atomic<bool> g_TaskEndTaken[TASK_SLOT_COUNT];

// The scanner: a thread function, started while tasks are in the map and none runs. Once a second,
// and as soon as a worker of this manager has ended, it takes the state bits of every task and
// calls the tasks back; a final code empties the slot and deletes the node first. It ends, with
// pthread_exit, when the map is empty, or with the fourth pass that finds g_Exit set. `arg` is not
// used.
void* StartScanData(void* arg);

// Whether the task counts as a parse job (command 0, or kind 1) or as a download job (command 1 or
// 3, and kind 0). A task that is neither must not enter the map.
constexpr bool IsParseJob(std::int32_t nCmd, std::int32_t nTaskKind) {
    return nCmd == TASK_CMD_PARSE || nTaskKind == 1;
}
constexpr bool IsDownloadJob(std::int32_t nCmd, std::int32_t nTaskKind) {
    return IsDownloadCommand(nCmd) && nTaskKind == 0;
}

// ---- Admission and the start of programs.

// Whether the task may be admitted: its id is not empty; and for a download command the path is
// acceptable and, with kind 0, nBlockCount is 0 to 10. Any other is refused and set to 10 in the
// record, so that a second check passes. `strFuncName` is the caller, for diagnostics.
bool CheckTaskParam(tagTaskInfo* taskinfo, std::string strFuncName);

// Whether the path holds no backslash; the empty path holds none. A refusal is reported on
// standard error.
bool CheckPath(std::string strFilePath, std::string strFuncName);

// Sets the three counters from the map; may be called beside the scanner. Takes both locks, one
// after the other; neither AddTask nor the scanner changes the map between. Always true.
bool CheckAndCalcTaskCount();

// Writes a listing of the map to standard error. `NewTaskinfo` must not be null.
void PrintTaskMapInfo(tagTaskInfo* NewTaskinfo) TS_REQUIRES(g_access_taskmap_mutex);

// What a worker is started with: its program, three arguments, and an extended task's channel.
struct tagStartParam {
    char szProgramPath[1024];  // full path; becomes argv[0] as well
    char szTaskID[64];
    char szTaskIndex[32];  // slot 0 to 7, decimal
    char szMainPid[32];    // the manager's process id, decimal
    // Descriptor that the worker gets as its standard input; it stays the caller's. One of the
    // standard streams, -1 included, stands for none.
    int nChannel = -1;
};

// Thread function: starts one worker. `param` is a tagStartParam made with new, which it frees. The
// thread ends with pthread_exit; its result is null, or -1 when no process could be started. A
// program that cannot be executed is a process that exits with status 0. The thread may wait for
// the file system of the program.
//
// The worker inherits no descriptor but standard error and its channel; its standard output, and
// without a channel its standard input, are /dev/null. No signal is blocked but SIGINT: the
// terminal's Ctrl-C is for the manager, which stops its workers in order. What the manager ignores
// stays ignored, but for SIGTERM.
void* StartProgram(void* param);

// Per slot, what its last StartProgram has started: the worker's process id, -1 when no process
// could be started; 0 before the first, and again from the moment in which the supervisor has
// noticed the worker's end. StartProgram touches none when szTaskIndex is no number from 0 to 7.
// Only these process ids, when above 0, may be signalled: the one in a slot is another process's
// word.
extern std::atomic<pid_t> g_WorkerPid[TASK_SLOT_COUNT];

// Thread function that ends its thread at once.
void* CallUIFunction(void* param);

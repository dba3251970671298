// The state of the worker process: what it was started with, its task, and its transfers.
//
// A worker carries out one job at a time. The main thread fills the first two groups before it
// starts the job thread, on which libcurl's callbacks run as well. From then on only the job thread
// touches the task and the transfers, until its last step, which sets g_exit_download. Any thread
// may read or set that flag at any time.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Tarnwick/engine/transfer.h"
#include "TaskMan/taskcontext.h"
#include "common/file.h"

// The source that the worker's assertions name, all but main's.
constexpr const char* kWorkerSource = "Src/Tarnwick/tarnwick";

// ---- The command line and what follows from it.

extern std::string g_TaskID;      // argv[1], the task id
extern std::int32_t g_TaskIndex;  // argv[2], the slot of the task, 0 to 7
extern std::string g_szmainpid;   // argv[3], the manager's process id as text
extern std::int32_t g_ParentPid;  // argv[3] as a number
extern std::string g_ShareName;   // name of the manager's section
extern std::string g_WorkPath;    // directory of the running executable, with a trailing "/"
extern std::string g_LogConfigFile;
extern const std::string LOG_FILE;

// ---- The task, set by the intake.

extern std::string g_DownloadConfigPath;      // directory of the download info files
extern tagTaskNode g_TaskInfo;                // the task; owns its named lock
extern tagTaskContext g_TaskConData;          // private copy of the slot; the job's argument
extern tagTaskContext* g_CurTaskContext_prt;  // the live slot; null before the claim
extern pthread_t g_pid;                       // the job thread, detached
extern std::atomic<bool> g_exit_download;     // the job has ended: the process may exit

// ---- What stays for the next task, and what comes with it.

extern std::int32_t g_StaySeconds;            // how long this one wants it to be waited for; 0: not
extern std::unique_ptr<engine::Pool> g_Pool;  // null before the first transfer of an extended task
// Lock, partial file and record, which a worker that has given up its rights cannot open. Empty for
// the first task, and where none came.
extern std::vector<Descriptor> g_HandedOver;
extern std::string g_RequestText;  // of its request, what has come already

// ---- The transfers.

extern std::uint64_t g_FileSize;          // bytes of the file; 0: unknown
extern std::int32_t g_TryCount;           // failed tries since bytes arrived last
extern double g_Progress;                 // last percentage reported in this try; 0: none
extern std::uint32_t g_LastBPS;           // last speed, bytes per second
extern std::uint64_t g_LastCalcTime;      // its time, milliseconds; 0: no baseline
extern std::uint64_t g_LastDownloadSize;  // bytes received at that time

// The least an application does with the manager: what the programs here share.
#pragma once

#include <atomic>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>

#include "TaskMan/taskman.h"
#include "common/fieldtext.h"

inline std::atomic<int> g_ended{0};     // tasks that got their final code
inline std::atomic<int> g_finished{0};  // of these, with code 3

inline void OnState(void* /*param*/, const char* /*id*/, std::int32_t code, double /*value*/,
                    std::int32_t /*kind*/) {
    if ((FINAL_STATE_BITS >> code & 1U) == 0) return;
    if (code == DOWNLOAD_STATE_DOWNLOAD_FINISH) ++g_finished;
    ++g_ended;
}

// Starts the manager. False, with the reason, when it does not start.
inline bool Start(const char* worker, std::string& reason) {
    struct sigaction reap {};
    reap.sa_handler = proc_child;
    reap.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    sigaction(SIGCHLD, &reap, nullptr);
    return StartTaskManager(worker, "", reason) == 0;
}

// Adds a download. False, with the reason, when it is refused.
inline bool Add(const std::string& url, const char* path, std::string& reason) {
    tagTaskInfo task(MakeTaskID().c_str());
    task.nCmd = TASK_CMD_DOWNLOAD;
    task.nTaskKind = 0;
    SetField(task.szDownloadUrl, url);
    SetField(task.szFilePath, path);
    task.pfnStateCallback = OnState;
    return AddTask(task, reason) == 0;
}

template <class Condition>
void WaitUntil(Condition condition,
               std::chrono::microseconds pause = std::chrono::milliseconds(20)) {
    while (!condition()) std::this_thread::sleep_for(pause);
}

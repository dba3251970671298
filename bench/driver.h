// A small application around the manager, with nothing of the command around it.
#pragma once

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "TaskMan/manager.h"
#include "common/fieldtext.h"

namespace driver {

using Clock = std::chrono::steady_clock;

inline std::atomic<int> g_ended{0};     // tasks with a final callback
inline std::atomic<int> g_finished{0};  // of them with code 3

inline void Require(bool holds, const std::string& reason) {
    if (holds) return;
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, reason.c_str());
    std::exit(1);
}

// Starts the manager of the process.
inline void Start(const char* worker) {
    struct sigaction reap {};
    reap.sa_handler = proc_child;
    reap.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    sigaction(SIGCHLD, &reap, nullptr);
    std::string reason;
    Require(StartTaskManager(worker, "", reason) == 0, reason);
}

inline void OnState(void* /*param*/, const char* /*id*/, std::int32_t code, double, std::int32_t) {
    if (!IsFinalCode(code)) return;
    if (code == DOWNLOAD_STATE_DOWNLOAD_FINISH) ++g_finished;
    ++g_ended;
}

// Adds the download of `url` to `path`.
inline void Add(const std::string& url, const std::string& path) {
    tagTaskInfo task(MakeTaskID().c_str());
    task.nCmd = TASK_CMD_DOWNLOAD;
    task.nTaskKind = 0;
    SetField(task.szDownloadUrl, url);
    SetField(task.szFilePath, path);
    task.pfnStateCallback = OnState;
    std::string reason;
    Require(AddTask(task, reason) == 0, reason);
}

template <class Condition>
void WaitUntil(Condition condition, std::chrono::microseconds pause) {
    while (!condition()) std::this_thread::sleep_for(pause);
}

}  // namespace driver

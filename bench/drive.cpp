// Downloads a list of files as an application of the manager does, eight at a time and with
// nothing of the command around it. Usage: bench_drive WORKER URL FILE [URL FILE]... Exits with
// status 0 when every task ended with code 3.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>

#include "TaskMan/taskman.h"
#include "common/fieldtext.h"

namespace {

std::atomic<int> g_ended{0};
std::atomic<int> g_finished{0};

void OnState(void* /*param*/, const char* /*id*/, std::int32_t code, double, std::int32_t) {
    if ((FINAL_STATE_BITS >> code & 1U) == 0) return;
    if (code == DOWNLOAD_STATE_DOWNLOAD_FINISH) ++g_finished;
    ++g_ended;
}

bool Add(const char* url, const char* path, std::string& reason) {
    tagTaskInfo task(MakeTaskID().c_str());
    task.nCmd = TASK_CMD_DOWNLOAD;
    task.nTaskKind = 0;
    SetField(task.szDownloadUrl, url);
    SetField(task.szFilePath, path);
    task.pfnStateCallback = OnState;
    return AddTask(task, reason) == 0;
}

template <class Condition>
void WaitUntil(Condition condition) {
    while (!condition()) std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) return 2;
    struct sigaction reap {};
    reap.sa_handler = proc_child;
    reap.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    sigaction(SIGCHLD, &reap, nullptr);
    std::string reason;
    int added = 0;
    bool sound = StartTaskManager(argv[1], "", reason) == 0;
    for (int i = 2; sound && i + 1 < argc; i += 2) {
        WaitUntil([] { return FreeSlotCount() > 0; });
        sound = Add(argv[i], argv[i + 1], reason);
        if (sound) ++added;
    }
    WaitUntil([&] { return g_ended == added; });
    EndTaskManager();
    if (!sound) std::fprintf(stderr, "drive: %s\n", reason.c_str());
    return sound && g_finished == added ? 0 : 1;
}

// Downloads one file and prints how that ended: fetch URL FILE
#include <csignal>
#include <cstdio>
#include <future>
#include <string>

#include "TaskMan/manager.h"
#include "common/fieldtext.h"

namespace {

std::promise<int> g_end;  // every task gets exactly one final code

void OnState(void*, const char*, std::int32_t nCode, double dValue, std::int32_t) {
    if (nCode == DOWNLOAD_STATE_PROGRESS) std::printf("%.0f %%\n", dValue);
    if (IsFinalCode(nCode)) g_end.set_value(nCode);
}

int Fail(const std::string& reason) {
    std::fprintf(stderr, "fetch: %s\n", reason.c_str());
    EndTaskManager();
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return Fail("usage: fetch URL FILE");
    struct sigaction reap {};
    reap.sa_handler = proc_child;
    reap.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    sigaction(SIGCHLD, &reap, nullptr);
    std::string reason;
    if (StartTaskManager(WORKER, "/tmp", reason) != 0) return Fail(reason);

    tagTaskInfo task(MakeTaskID().c_str());
    task.nCmd = TASK_CMD_DOWNLOAD;
    task.nTaskKind = 0;
    SetField(task.szDownloadUrl, argv[1]);
    SetField(task.szFilePath, argv[2]);
    task.pfnStateCallback = OnState;
    if (AddTask(task, reason) != 0) return Fail(reason);
    const int end = g_end.get_future().get();
    EndTaskManager();
    std::printf("ended with code %d\n", end);
    return end == DOWNLOAD_STATE_DOWNLOAD_FINISH ? 0 : 1;
}

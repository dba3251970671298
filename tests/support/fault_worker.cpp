// A worker that dies as its task's address says: "http://fault/claim,lock,kill" takes the task,
// then its lock, and is killed with it. With any other address it is the real worker.
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <sstream>

#include "TaskMan/taskcontext.h"
#include "TaskMan/tasktext.h"
#include "common/fieldtext.h"

// Takes and releases the lock as the steps say, not as a scope does.
int main(int /*argc*/, char** argv) TS_NO_ANALYSIS {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    if (InitShareMem(&g_VideoInfoSection, SectionName(std::atoi(argv[3])).c_str()) != 0) return 1;
    tagTaskContext& slot = *SlotAt(g_VideoInfoSection, std::atoi(argv[2]));
    const std::string address = FieldText(slot.szDownloadUrl);
    const std::string fault = "http://fault/";
    if (!address.starts_with(fault)) return execv(TARNWICK_PATH, argv);
    std::optional<Threading::Mutex> lock(argv[1]);
    std::istringstream steps(address.substr(fault.size()));
    for (std::string step; std::getline(steps, step, ',');) {
        if (step == "claim" || step == "lock") lock->Lock();
        if (step == "claim") slot.nPid = getpid();
        if (step == "claim" || step == "unlock") lock->UnLock();
        if (step == "report") SetStateBit(slot, DOWNLOAD_STATE_PROGRESS);
        if (step == "finish") SetStateBit(slot, DOWNLOAD_STATE_DOWNLOAD_FINISH);
        if (step == "fail") SetStateBit(slot, DOWNLOAD_STATE_DOWNLOAD_FAIL);
        if (step == "answer") SetField(slot.szVideoInfo, "requests=7\r\n");
        if (step == "tear") SetField(slot.szVideoInfo, "requests=8\r\nreas");
        if (step == "size") SetStateBit(slot, DOWNLOAD_STATE_FILE_SIZE);
        while (step == "taken" && *static_cast<volatile std::int32_t*>(&slot.bStateChanged) != 0)
            usleep(1000);
        // Sends into its channel what there is room for.
        while (step == "flood" && send(STDIN_FILENO, "flood", 5, MSG_DONTWAIT) == 5) continue;
        // Waits for its next task when it has read the request of this one.
        char text[4096] = "";
        if (step == "idle" && recv(STDIN_FILENO, text, sizeof text, 0) > 0)
            send(STDIN_FILENO, TASK_CHANNEL_IDLE, 6, 0);
        if (step == "next" && recv(STDIN_FILENO, text, sizeof text - 1, 0) > 0)
            lock.emplace(std::string(text, 5, std::strcspn(text, "\r") - 5).c_str());
        if (step == "deaf") close(STDIN_FILENO), pause();
        if (step == "kill") raise(SIGKILL);
        if (step == "stop") raise(SIGSTOP);
        if (step == "abort") abort();
        // What becomes of a start when there is no program.
        if (step == "missing") execl("/nonexistent/worker", "worker", nullptr);
    }
    _exit(0);
}

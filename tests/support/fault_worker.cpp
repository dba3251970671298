// A worker that dies as its task's address says: "http://fault/claim,lock,kill" takes the task,
// then its lock, and is killed with it. With any other address it is the real worker.
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <sstream>
#include <string>

#include "TaskMan/taskcontext.h"
#include "common/fieldtext.h"

namespace {

void Report(tagTaskContext& slot) {
    slot.dProgress = 50;
    SetStateBit(slot, DOWNLOAD_STATE_PROGRESS);
}

void Finish(tagTaskContext& slot) {
    SetField(slot.szVideoInfo, "information");
    SetStateBit(slot, slot.nCmd == TASK_CMD_PARSE ? DOWNLOAD_STATE_PARSE_FINISH
                                                  : DOWNLOAD_STATE_DOWNLOAD_FINISH);
}

void Take(const std::string& step, tagTaskContext& slot, Threading::Mutex& lock) {
    if (step == "claim") {
        lock.Lock();
        slot.nPid = getpid();
        lock.UnLock();
    }
    if (step == "lock") lock.Lock();
    if (step == "unlock") lock.UnLock();
    if (step == "report") Report(slot);
    if (step == "finish") Finish(slot);
    if (step == "kill") raise(SIGKILL);
    if (step == "stop") raise(SIGSTOP);
    if (step == "abort") abort();
    // What a start ends with when there is no program.
    if (step == "missing") execl("/nonexistent/worker", "worker", nullptr);
}

}  // namespace

int main(int /*argc*/, char** argv) {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    if (InitShareMem(&g_VideoInfoSection, SectionName(std::atoi(argv[3])).c_str()) != 0) return 1;
    tagTaskContext& slot = *SlotAt(g_VideoInfoSection, std::atoi(argv[2]));
    const std::string address =
        FieldText(slot.nCmd == TASK_CMD_PARSE ? slot.szOrgUrl : slot.szDownloadUrl);
    const std::string fault = "http://fault/";
    if (address.compare(0, fault.size(), fault) != 0) {
        argv[0] = const_cast<char*>(TARNWICK_PATH);
        execv(argv[0], argv);
        return 1;
    }
    Threading::Mutex lock(argv[1]);
    std::istringstream steps(address.substr(fault.size()));
    for (std::string step; std::getline(steps, step, ',');) Take(step, slot, lock);
    _exit(0);
}

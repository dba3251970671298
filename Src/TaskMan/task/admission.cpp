// The checks on tasks, the recount of the jobs, and the start of worker processes.
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "TaskMan/task/tally.h"
#include "TaskMan/taskman.h"
#include "common/AutoLock.h"
#include "common/assertion.h"
#include "common/fieldtext.h"
#include "common/platform.h"
#include "common/stringutility.h"

std::atomic<pid_t> g_WorkerPid[TASK_SLOT_COUNT];

namespace {

constexpr const char* kSource = "Src/TaskMan/taskcontext";
constexpr std::int32_t kMostBlocks = 10;

const char* CommandName(std::int32_t nCmd) {
    switch (nCmd) {
        case TASK_CMD_PARSE:
            return "Parse";
        case TASK_CMD_DOWNLOAD:
            return "Download";
        default:
            return "Other";
    }
}

// Takes the application's handlers out of the child, so that none runs there once signals are let
// through. What is ignored stays so, as after nohup, but SIGTERM: a worker must end by it.
void ResetSignals() {
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction action {};
        if (sigaction(number, nullptr, &action) != 0) continue;
        if (action.sa_handler != SIG_IGN || number == SIGTERM) signal(number, SIG_DFL);
    }
}

// The child of StartProgram. Between fork and exec of a process with threads only what is safe in a
// signal handler may be called: nothing here allocates or takes a lock.
[[noreturn]] void ExecWorker(const tagStartParam& start) {
    platform::CloseDescriptorsOnExec();
    ResetSignals();
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGINT);
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    execl(start.szProgramPath, start.szProgramPath, start.szTaskID, start.szTaskIndex,
          start.szMainPid, static_cast<char*>(nullptr));
    // Nothing of the parent's state may be flushed or destroyed a second time.
    _exit(0);
}

// Forks and executes. While it forks, no signal reaches this thread: a handler of the application
// must not run in the child.
pid_t ForkWorker(const tagStartParam& start) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const pid_t pid = fork();
    if (pid == 0) ExecWorker(start);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return pid;
}

}  // namespace

bool CheckTaskParam(tagTaskInfo* taskinfo, std::string strFuncName) {
    assertion::Require(taskinfo != nullptr, "CheckTaskParam", kSource, "taskinfo");
    bool admitted = !FieldEmpty(taskinfo->szTaskID);
    if (!IsDownloadCommand(taskinfo->nCmd)) return admitted;
    if (!CheckPath(FieldText(taskinfo->szFilePath), std::move(strFuncName))) admitted = false;
    if (taskinfo->nTaskKind == 0 &&
        static_cast<std::uint32_t>(taskinfo->nBlockCount) > kMostBlocks) {
        admitted = false;
        taskinfo->nBlockCount = kMostBlocks;
    }
    return admitted;
}

bool CheckPath(std::string strFilePath, std::string strFuncName) {
    if (strFilePath.find('\\') == std::string::npos) return true;
    std::array<char, 256> text{};
    strutil::vsnpf(text.data(), text.size(),
                   "ERROR: Tarnwicker szFilePath has problem,FilePath: %s", strFilePath.c_str());
    std::fprintf(stderr, "%s\n", text.data());
    // In the GBK code page: the file name or the path name has a problem.
    strutil::vsnpf(text.data(), text.size(),
                   "Error!! \xCE\xC4\xBC\xFE\xC3\xFB\xBB\xF2\xC2\xB7\xBE\xB6\xC3\xFB\xD3\xD0\xCE"
                   "\xCA\xCC\xE2!! Function: %s",
                   strFuncName.c_str());
    std::fprintf(stderr, "%s\n", text.data());
    return false;
}

bool CheckAndCalcTaskCount() {
    std::int32_t parse = 0;
    std::int32_t download = 0;
    std::int32_t all = 0;
    Threading::AutoLock tally(&g_tally_mutex);
    {
        Threading::AutoLock hold(&g_access_taskmap_mutex);
        for (const auto& [id, node] : g_TaskInfo_map) {
            assertion::Require(node != nullptr, "CheckAndCalcTaskCount", kSource, "NULL != Node");
            const bool isParse = IsParseJob(node->nCmd, node->nTaskKind);
            assertion::Require(isParse || IsDownloadJob(node->nCmd, node->nTaskKind),
                               "CheckAndCalcTaskCount", kSource, "false");
            ++(isParse ? parse : download);
        }
        all = static_cast<std::int32_t>(g_TaskInfo_map.size());
    }
    Threading::AutoLock hold(&g_access_taskcount_mutex);
    g_ParseCount = parse;
    g_DownloadCount = download;
    g_TaskCount = all;
    return true;
}

void PrintTaskMapInfo(tagTaskInfo* NewTaskinfo) {
    assertion::Require(NewTaskinfo != nullptr, "PrintTaskMapInfo", kSource, "NewTaskinfo");
    std::string listing;
    for (const auto& [key, node] : g_TaskInfo_map) {
        assertion::Require(node != nullptr, "PrintTaskMapInfo", kSource, "NULL != Node");
        const std::string id = FieldText(node->szTaskID);
        if (strutil::trim(id).empty()) continue;
        std::string command = CommandName(node->nCmd);
        if (id.size() > 32) command += "  Pic";
        std::array<char, 512> entry{};
        strutil::vsnpf(entry.data(), entry.size(),
                       "DEBUG PrintTaskMapInfo Taskid: %s(%d), CMD: %d, %s, OrgUrl: %s \r\n\r\n",
                       id.c_str(), static_cast<int>(id.size()), node->nCmd, command.c_str(),
                       FieldText(node->szOrgUrl).c_str());
        listing += entry.data();
    }
    std::fwrite(listing.data(), 1, listing.size(), stderr);
}

void* StartProgram(void* param) {
    pid_t pid = -1;
    {
        auto* start = static_cast<tagStartParam*>(param);
        const long index = std::strtol(FieldText(start->szTaskIndex).c_str(), nullptr, 10);
        pid = ForkWorker(*start);
        if (index >= 0 && index < TASK_SLOT_COUNT) g_WorkerPid[index] = pid;
        delete start;
    }
    pthread_exit(reinterpret_cast<void*>(static_cast<std::intptr_t>(pid == -1 ? -1 : 0)));
}

void proc_child(int /*signal*/) {
    const int kept = errno;
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    errno = kept;
}

void* CallUIFunction(void* /*param*/) {
    pthread_exit(nullptr);
}

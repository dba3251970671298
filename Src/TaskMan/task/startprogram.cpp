// The start of worker processes.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <memory>

#include "TaskMan/taskman.h"
#include "common/fieldtext.h"
#include "common/platform.h"

std::atomic<pid_t> g_WorkerPid[TASK_SLOT_COUNT];

namespace {

// Takes the application's handlers out of the child, so that none runs there once signals are let
// through. What is ignored stays so, as after nohup, but SIGTERM: a worker must end by it.
void ResetSignals() {
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction action {};
        if (sigaction(number, nullptr, &action) != 0) continue;
        if (action.sa_handler != SIG_IGN || number == SIGTERM) signal(number, SIG_DFL);
    }
}

// Gives the worker its channel, if it has one, for its standard input, and /dev/null for what it
// does not use: whoever reads the manager's output would wait for the end of the last worker, too.
// Without /dev/null, they stay.
void LeaveStandardStreams(int channel) {
    const int null = open("/dev/null", O_RDWR);
    if (null != -1) {
        dup2(null, STDIN_FILENO);
        dup2(null, STDOUT_FILENO);
    }
    if (channel > STDERR_FILENO) dup2(channel, STDIN_FILENO);
}

// What the child of StartProgram does. It may share the memory of its parent, which has other
// threads: nothing here allocates, takes a lock, or writes anything but its own stack.
void ExecWorker(const void* param) {
    const auto& start = *static_cast<const tagStartParam*>(param);
    LeaveStandardStreams(start.nChannel);
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

pid_t StartWorkerProcess(const tagStartParam& start) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const pid_t pid = platform::StartChild(ExecWorker, &start);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return pid;
}

// Where the process id of the slot's worker is kept; null when the text is no number of a slot.
std::atomic<pid_t>* WorkerPidOf(std::string_view index) {
    int slot = -1;
    const char* const end = index.data() + index.size();
    const auto read = std::from_chars(index.data(), end, slot);
    if (read.ec != std::errc() || read.ptr != end || slot < 0 || slot >= TASK_SLOT_COUNT) {
        return nullptr;
    }
    return &g_WorkerPid[slot];
}

}  // namespace

void* StartProgram(void* param) {
    pid_t pid = -1;
    {
        const std::unique_ptr<tagStartParam> start(static_cast<tagStartParam*>(param));
        pid = StartWorkerProcess(*start);
        if (std::atomic<pid_t>* kept = WorkerPidOf(FieldView(start->szTaskIndex))) *kept = pid;
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

#include "Console/base/signals.h"

#include <unistd.h>

#include <atomic>
#include <csignal>

#include "TaskMan/manager.h"

namespace signals {
namespace {

std::atomic<const WakePipe*> wakePipe{nullptr};
std::atomic<int> stopSignal{0};
std::atomic<int> stopCount{0};
std::atomic<bool> resized{false};
std::atomic<bool> resumed{false};
std::atomic<bool> suspended{false};

void OnStop(int signal) {
    int none = 0;
    stopSignal.compare_exchange_strong(none, signal);
    ++stopCount;
    wakePipe.load()->Wake();
}

void OnScreen(int signal) {
    (signal == SIGCONT ? resumed : resized) = true;
    wakePipe.load()->Wake();
}

void OnSuspend(int /*signal*/) {
    suspended = true;
}

// A handler instead of SIG_IGN: workers would inherit the latter.
void OnBrokenPipe(int /*signal*/) {}

bool Ignored(int signal) {
    struct sigaction now {};
    return sigaction(signal, nullptr, &now) == 0 && now.sa_handler == SIG_IGN;
}

// Also unblocks the signal: the parent of the command may have left it blocked.
void Handle(int signal, void (*handler)(int), int flags) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigfillset(&action.sa_mask);
    sigaction(signal, &action, nullptr);
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, signal);
    pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
}

}  // namespace

const WakePipe& Install() {
    static const WakePipe wake;
    wakePipe = &wake;
    Handle(SIGCHLD, proc_child, SA_RESTART | SA_NOCLDSTOP);
    Handle(SIGPIPE, OnBrokenPipe, SA_RESTART);
    // A write beyond the limit of file sizes fails instead, also in the workers, which inherit
    // this.
    Handle(SIGXFSZ, SIG_IGN, 0);
    Handle(SIGWINCH, OnScreen, SA_RESTART);
    Handle(SIGCONT, OnScreen, SA_RESTART);
    // Without SA_RESTART: a stop has to interrupt a write to a pipe that nobody reads.
    Handle(SIGTERM, OnStop, 0);
    for (const int signal : {SIGINT, SIGHUP}) {
        if (!Ignored(signal)) Handle(signal, OnStop, 0);
    }
    return wake;
}

int StopSignal() {
    return stopSignal;
}

int StopCount() {
    return stopCount;
}

bool TakeResize() {
    return resized.exchange(false);
}

bool TakeResume() {
    return resumed.exchange(false);
}

void CatchSuspend() {
    if (!Ignored(SIGTSTP)) Handle(SIGTSTP, OnSuspend, SA_RESTART);
}

bool TakeSuspend() {
    return suspended.exchange(false);
}

void EndBy(int signal) {
    Handle(signal, SIG_DFL, 0);
    raise(signal);
    _exit(128 + signal);
}

}  // namespace signals

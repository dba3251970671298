#include "Console/get/session.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

#include "Console/base/signals.h"
#include "Console/screen/text.h"
#include "TaskMan/manager.h"
#include "TaskMan/timing.h"
#include "common/file.h"
#include "common/sysutility.h"

namespace {

bool IsProgram(const std::string& path) {
    std::error_code error;
    return std::filesystem::is_regular_file(path, error) && access(path.c_str(), X_OK) == 0;
}

// The worker stands beside the command where both are built, in libexec where they are installed.
std::string FindWorker(const std::string& given) {
    if (!given.empty()) return given;
    const std::string directory = sysutility::GetProgramDirectory();
    std::string beside = directory + "/tarnwick";
    if (IsProgram(beside)) return beside;
    return directory + "/../libexec/taskman/tarnwick";
}

}  // namespace

Session::Session(Downloads& downloads, const char* noun, const WakePipe& wake, EventQueue& events,
                 Display& display)
    : downloads_(downloads), noun_(noun), wake_(wake), events_(events), display_(display) {}

// Starts the manager. Returns the fault in one line; empty when it runs.
std::string Session::StartManager(const std::string& worker) {
    const std::string program = FindWorker(worker);
    if (!IsProgram(program)) return "no worker program at " + program;
    const auto wake = [](void* pipe) { static_cast<const WakePipe*>(pipe)->Wake(); };
    SetSlotFreedCallback(wake, const_cast<WakePipe*>(&wake_));
    std::string reason;
    return StartTaskManager(program.c_str(), "", reason) == 0 ? "" : reason;
}

int Session::Run(const std::string& worker) {
    if (const std::string fault = StartManager(worker); !fault.empty()) {
        display_.Fault(fault);
        downloads_.Finish(false);
        display_.Finish(downloads_.Counts(), EXIT_STATUS_FAILED);
        return EXIT_STATUS_FAILED;
    }
    try {
        while (!downloads_.Done()) Turn();
        Finish(signals::StopCount() > 0);
        EndManager();
    } catch (...) {
        EndTaskManager();
        throw;
    }
    if (signals::StopCount() > 0) signals::EndBy(signals::StopSignal());
    return downloads_.Status();
}

void Session::Turn() {
    for (const Event& event : events_.Take()) downloads_.Handle(event);
    downloads_.PrintPaths();
    LookAtSignals();
    const bool more = downloads_.StartNext();
    downloads_.PrintPaths();
    const bool resumed = signals::TakeResume();
    if (signals::TakeResize() || resumed) display_.ScreenChanged(resumed);
    display_.Refresh(downloads_.Running(), downloads_.Counts());
    if (more || downloads_.Done()) return;
    wake_.Wait(timing::kTurn, downloads_.Awaits());
}

void Session::LookAtSignals() {
    const int count = signals::StopCount();
    if (count > 1 || (stopping_ && Clock::now() > stop_deadline_)) EndNow();
    if (count == 0 || stopping_) return;
    stopping_ = true;
    stop_deadline_ = Clock::now() + timing::kCommandStop;
    const std::size_t asked = downloads_.Stop();
    if (asked > 0) {
        display_.Note("stopping " + text::Count(asked, noun_) + " (again: end now)");
    }
}

void Session::Finish(bool atOnce) {
    if (finished_) return;
    finished_ = true;
    downloads_.Finish(atOnce);
    const int signal = signals::StopSignal();
    display_.Finish(downloads_.Counts(), signal == 0 ? downloads_.Status() : 128 + signal);
}

// The manager waits for its workers; meanwhile a signal can still cut everything short.
void Session::EndManager() {
    std::atomic<bool> ended{false};
    std::thread ender = RunBeside([this, &ended] {
        EndTaskManager();
        ended = true;
        wake_.Wake();
    });
    while (!ended) {
        LookAtSignals();
        wake_.Wait(timing::kTurn);
    }
    if (ender.joinable()) ender.join();
}

// Ends without waiting for tasks: the workers are killed and reaped, and all names removed.
void Session::EndNow() {
    KillWorkers();
    // The process has no other children.
    PollUntil(timing::kCommandKills, [] { return waitpid(-1, nullptr, WNOHANG) == -1; });
    downloads_.Abandon();
    shm_unlink(SectionName(sysutility::GetCurrentPid()).c_str());
    Finish(true);
    signals::EndBy(signals::StopSignal());
}

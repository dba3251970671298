#include "Console/cli/session.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>

#include "Console/cli/signals.h"
#include "Console/screen/text.h"
#include "TaskMan/openparts.h"
#include "TaskMan/taskman.h"
#include "common/sysutility.h"

namespace {

// The longest wait of the main loop: what the display shows grows no older.
constexpr std::chrono::milliseconds kTurn{250};
// From the first signal to an end that waits for nothing more.
constexpr std::chrono::milliseconds kStopTime{11'000};
constexpr std::chrono::milliseconds kKillTime{500};

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

Session::Session(Work& work, const char* noun, const WakePipe& wake, EventQueue& events,
                 Display& display)
    : work_(work), noun_(noun), wake_(wake), events_(events), display_(display) {}

// Starts the manager. Returns the fault in one line; empty when it runs.
std::string Session::Begin(const std::string& worker) {
    const std::string program = FindWorker(worker);
    if (!IsProgram(program)) return "no worker program at " + program;
    std::string reason;
    return StartTaskManager(program.c_str(), "", reason) == 0 ? "" : reason;
}

int Session::Run(const std::string& worker) {
    if (const std::string fault = Begin(worker); !fault.empty()) {
        display_.Note("taskman: " + text::Printable(fault));
        work_.Finish(false);
        display_.Close(work_.Counts(), EXIT_STATUS_FAILED);
        return EXIT_STATUS_FAILED;
    }
    try {
        while (!work_.Done()) Turn();
        Close(signals::StopCount() > 0);
        EndManager();
    } catch (...) {
        EndTaskManager();
        throw;
    }
    if (signals::StopCount() > 0) signals::EndBy(signals::StopSignal());
    return work_.Status();
}

void Session::Turn() {
    for (const Event& event : events_.Take()) work_.Handle(event);
    LookAtSignals();
    const bool more = work_.StartNext();
    const bool resumed = signals::TakeResume();
    if (signals::TakeResize() || resumed) display_.ScreenChanged(resumed);
    display_.Refresh(work_.Running(), work_.Counts());
    if (!more && !work_.Done()) wake_.Wait(kTurn, work_.Awaits());
}

void Session::LookAtSignals() {
    const int count = signals::StopCount();
    if (count > 1 || (stopping_ && Clock::now() > stop_deadline_)) EndNow();
    if (count == 0 || stopping_) return;
    stopping_ = true;
    stop_deadline_ = Clock::now() + kStopTime;
    const std::size_t asked = work_.Stop();
    if (asked > 0) {
        display_.Note("stopping " + text::Count(asked, noun_) + " (again: end now)");
    }
}

void Session::Close(bool atOnce) {
    if (closed_) return;
    closed_ = true;
    work_.Finish(atOnce);
    const int signal = signals::StopSignal();
    display_.Close(work_.Counts(), signal == 0 ? work_.Status() : 128 + signal);
}

// The manager waits for its workers; meanwhile a signal can still cut everything short.
void Session::EndManager() {
    std::atomic<bool> ended{false};
    std::thread ender([this, &ended] {
        EndTaskManager();
        ended = true;
        wake_.Wake();
    });
    while (!ended) {
        LookAtSignals();
        wake_.Wait(kTurn);
    }
    ender.join();
}

// Ends without waiting for anybody: the workers are killed and all names removed.
void Session::EndNow() {
    const Clock::time_point deadline = Clock::now() + kKillTime;
    bool alive = true;
    while (alive && Clock::now() < deadline) {
        alive = false;
        for (const std::atomic<pid_t>& worker : g_WorkerPid) {
            const pid_t pid = worker;
            if (pid > 0 && kill(pid, SIGKILL) == 0) alive = true;
        }
        if (alive) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    work_.Abandon();
    const std::string section =
        std::string(SHARE_MEM_NAME) + "_" + std::to_string(sysutility::GetCurrentPid());
    shm_unlink(section.c_str());
    Close(true);
    ForgetParts();
    signals::EndBy(signals::StopSignal());
}

const WakePipe& InstallSignals() {
    static const WakePipe wake;
    signals::Install(wake);
    return wake;
}

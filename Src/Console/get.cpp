#include "Console/get.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <thread>

#include "Console/display.h"
#include "Console/downloads.h"
#include "Console/events.h"
#include "Console/signals.h"
#include "Console/text.h"
#include "TaskMan/taskman.h"
#include "common/sysutility.h"

namespace {

// The longest wait of the main loop: what the display shows grows no older.
constexpr std::chrono::milliseconds kTurn{250};
// From the first signal to an end that waits for nothing more.
constexpr std::chrono::milliseconds kStopTime{11'400};
constexpr std::chrono::milliseconds kKillTime{500};

std::string FindWorker(const std::string& given) {
    if (!given.empty()) return given;
    const std::string directory = sysutility::GetCurrentPath(true);
    std::string beside = directory + "tarnwick";
    if (access(beside.c_str(), X_OK) == 0) return beside;
    return directory + "../libexec/taskman/tarnwick";
}

// One run of the command.
class Get {
  public:
    Get(const GetOptions& options, const WakePipe& wake)
        : wake_(wake),
          events_(wake),
          display_(MakeDisplay()),
          downloads_(options, events_, *display_) {}

    int Run(const std::string& worker);

  private:
    void Turn();
    void LookAtSignals();
    void CloseDisplay();
    void EndManager();
    [[noreturn]] void EndNow();

    const WakePipe& wake_;
    EventQueue events_;
    std::unique_ptr<Display> display_;
    bool display_closed_ = false;
    Downloads downloads_;
    bool stopping_ = false;
    Clock::time_point stop_deadline_{};
};

int Get::Run(const std::string& worker) {
    std::string reason;
    if (access(worker.c_str(), X_OK) != 0) {
        display_->Note("taskman: no worker program at " + text::Printable(worker));
        return EXIT_STATUS_FAILED;
    }
    if (StartTaskManager(worker.c_str(), "", reason) != 0) {
        display_->Note("taskman: " + text::Printable(reason));
        return EXIT_STATUS_FAILED;
    }
    try {
        while (!downloads_.Done()) Turn();
        CloseDisplay();
        EndManager();
    } catch (...) {
        EndTaskManager();
        throw;
    }
    if (signals::StopCount() > 0) signals::EndBy(signals::StopSignal());
    return downloads_.Status();
}

void Get::Turn() {
    for (const Event& event : events_.Take()) downloads_.Handle(event);
    LookAtSignals();
    downloads_.StartNext();
    const bool resumed = signals::TakeResume();
    if (signals::TakeResize() || resumed) display_->ScreenChanged(resumed);
    display_->Refresh(downloads_.Running(), downloads_.Counts());
    if (!downloads_.Done()) wake_.Wait(kTurn);
}

void Get::LookAtSignals() {
    const int count = signals::StopCount();
    if (count > 1 || (stopping_ && Clock::now() > stop_deadline_)) EndNow();
    if (count == 0 || stopping_) return;
    stopping_ = true;
    stop_deadline_ = Clock::now() + kStopTime;
    const std::size_t asked = downloads_.Stop();
    if (asked > 0) {
        display_->Note("stopping " + text::Count(asked, "download") + " (again: end now)");
    }
}

void Get::CloseDisplay() {
    if (display_closed_) return;
    display_closed_ = true;
    display_->Close(downloads_.Counts());
}

// The manager waits for its workers; meanwhile a signal can still cut everything short.
void Get::EndManager() {
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
void Get::EndNow() {
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
    downloads_.Abandon();
    const std::string section =
        std::string(SHARE_MEM_NAME) + "_" + std::to_string(sysutility::GetCurrentPid());
    shm_unlink(section.c_str());
    CloseDisplay();
    signals::EndBy(signals::StopSignal());
}

}  // namespace

int RunGet(const GetOptions& options) {
    static const WakePipe wake;  // handlers use it to the end of the process
    signals::Install(wake);
    return Get(options, wake).Run(FindWorker(options.worker));
}

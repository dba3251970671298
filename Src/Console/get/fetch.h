// One file of `taskman get`, from the request to its end.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "Console/cli/events.h"
#include "Console/cli/options.h"
#include "Console/get/inputlist.h"
#include "Console/get/target.h"
#include "Console/screen/display.h"

// Works on the main thread and has one thread of its own for what may take long: the last step, the
// check of a file that is there already, the look at an address that failed. That thread ends with
// an event of the kind kEnd. The file of a page has two tasks, one after the other.
class Fetch : private Uncopyable {
  public:
    // The references outlive the object.
    Fetch(Request request, const GetOptions& options, EventQueue& events);

    // Waits for the thread. Removes the part unless it was stored or is kept.
    ~Fetch();

    enum class Phase {
        kIdle,     // nothing is on
        kTask,     // a task of the manager
        kLast,     // the thread, on the part
        kLooking,  // the thread, at the address or at the file that is there: no end waits for it
    };
    Phase Now() const { return phase_; }

    const Request& Asked() const { return request_; }
    const FileView& View() const { return view_; }

    // Names its events from the time when something is on; another one for every task.
    const std::string& Id() const { return id_; }

    // What it writes, or is going to write; empty when that is nothing, or not known yet.
    std::string PartPath() const;

    // The end of a file for which nothing is to be begun: refused, or skipped. Nothing when Begin
    // may be called.
    std::optional<Outcome> Refusal() const;

    // Begins the next task; or the check of a file that is there already and whose digest is known.
    // Returns the end when that cannot be done; without room in the manager it can be tried again.
    std::optional<Outcome> Begin();

    // Takes in what the task reported.
    void NoteState(const Event& event);

    // Takes in the end of the task. Returns the end of the file, if it is that; without one the
    // thread is on, or else the page has been resolved: the second task is to be begun. `stopping`:
    // the command is being stopped.
    std::optional<Outcome> NoteEnd(const Event& event, bool stopping);

    // In the phase kLooking: the end without what the look finds.
    const Outcome& WithoutLook() const { return without_look_; }

    // Seconds that its last task has taken, or takes so far.
    double Seconds() const;

    // Lets the part go. The view stays.
    void Release();

    // For an end that waits for nothing: removes the names that task and part have.
    void Abandon() const;

  private:
    void Plan();
    void Aim(const std::string& name);
    bool AddTaskFor(std::string& reason);
    void StartOver();
    std::optional<Outcome> TakePage(const Event& event);
    Outcome DownloadFailure(const Event& event) const;
    void Look(Outcome failure);
    void Run(Phase phase, std::function<Outcome()> work);

    const Request request_;
    const GetOptions& options_;
    EventQueue& events_;
    bool page_;            // the address is that of a page
    std::string fault_{};  // why the address cannot be used; empty: it can
    Proxy proxy_{};        // for the address
    std::unique_ptr<Target> target_{};
    std::string id_{};
    FileView view_{};
    double seconds_ = 0;
    Outcome without_look_{};
    Phase phase_ = Phase::kIdle;
    std::thread thread_{};
};

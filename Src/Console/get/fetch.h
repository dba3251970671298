// One file of `taskman get`, or one page of `taskman info`, from the request to its end.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Console/base/events.h"
#include "Console/get/get.h"
#include "Console/get/helpers.h"
#include "Console/get/inputlist.h"
#include "Console/get/target.h"
#include "Console/screen/display.h"
#include "TaskMan/manager.h"

// Works on the main thread. The file of a page has two tasks, one after the other.
class Fetch : private Uncopyable {
  public:
    // The references outlive the object.
    Fetch(Request request, const GetOptions& options, EventQueue& events, Helpers& helpers);

    enum class Phase {
        kIdle,      // nothing runs
        kTask,      // a task of the manager
        kStoring,   // the helper thread gives the complete file its name
        kChecking,  // the helper thread compares the digest of an existing file; an interrupted
                    // command does not wait for it
    };
    Phase Now() const { return phase_; }
    // Whether the next task, or the one that runs, is that of a page.
    bool IsPage() const { return page_; }

    const Request& Asked() const { return request_; }
    const FileView& View() const { return view_; }

    // The id that its events carry; it changes with every task and is empty before Begin.
    const std::string& Id() const { return id_; }

    // What it writes, or is going to write; empty when that is nothing, or not known yet.
    std::string PartPath() const;

    // The outcome of a file that needs no Begin: it is refused, or skipped.
    std::optional<Outcome> Verdict() const;

    // Begins the next task, or the comparison of an existing file with its digest. Returns the
    // outcome when that is impossible. `later`: the manager cannot take the task at present; the
    // same call may succeed later. A download begins with the limit `rate`, in KiB per second, 0:
    // none; and ends with its first try when it is to be tried `once`.
    std::optional<Outcome> Begin(std::int32_t rate, bool once, bool& later);

    // Notes the name that the server gives the file. True when that was awaited and has come with
    // this event: the view has the path, and the caller sees to it that it can be used.
    bool TakeServerName(const Event& event);

    // Turns to the next name, because the present one is taken. False when there is none.
    bool NextName();

    // Why the final path cannot be used, in one line; empty when it can, or is not known.
    std::string Obstacle() const { return target_->Obstacle(); }

    // Whether the final path is that of a file that is to stay and counts as finished.
    bool Skips() const { return target_ != nullptr && target_->Skips(); }

    // Stops the task, whose file cannot have the server's name: it is refused for that `fault`, or
    // skipped when that is empty.
    void Decline(const std::string& fault);

    // Notes what the task reported.
    void NoteState(const Event& event);

    // Notes the final code of the task. Returns the outcome when the file has ended with it.
    // Otherwise a helper thread runs; or, in the phase kIdle, Begin starts the download: the page
    // has been resolved, or the host is busy. `stopping`: the command is being stopped.
    std::optional<Outcome> NoteEnd(Event event, bool stopping);

    // The seconds that the busy host asks to wait before the next Begin, 0 when it does not say,
    // if the task has ended for that since the last call.
    std::optional<int> TakeRest() { return std::exchange(rest_, std::nullopt); }

    // Does not count the task that has just ended for a busy host as a try.
    void ForgiveTry() { --busy_tries_; }

    // Counts none of the tries that a busy host has ended so far.
    void ForgiveTries() { busy_tries_ = 0; }

    // Of the present address, see hosts.h; empty when that cannot be used.
    const std::string& Host() const { return host_; }

    // Where its connections end: the proxy, or else the host.
    std::string Peer() const;

    // Whether it has had a task.
    bool HasBegun() const { return !view_.id.empty(); }

    // Whether the worker has told anew with how much of the file it begins, since the last call.
    bool TakeBeginning() { return std::exchange(beginning_, false); }

    // Seconds that its last task took, or has taken so far.
    double Seconds() const;

    // Waits for the helper thread and closes the part, which is removed unless it was stored or can
    // be continued. Returns the line that tells the latter; empty otherwise. The view stays.
    std::string Release();

    // The same for an end that waits for nothing; removes the name of its task's lock, too.
    std::string Abandon() const;

  private:
    void ReadAddress();
    void SetPath(const std::string& name, Naming naming = Naming::kNow);
    void ShowPath();
    void CheckExisting(EndResult result, std::int32_t code = -1);
    bool AddTaskFor(const tagTaskRequest& request, std::string& reason, TaskRefusal& refusal);
    tagTaskRequest TaskRequest(std::int32_t rate, bool once) const;
    void NoteBeginning(const tagTaskAnswer& answer);
    bool MayRest(const tagTaskAnswer& answer);
    void Rest(const tagTaskAnswer& answer);
    bool LacksTries(const Event& event) const;
    void AwaitTask(const tagTaskAnswer& answer);
    void Store();
    std::optional<Outcome> TakePage(const Event& event);
    std::string GiveUpPart() const;

    const Request request_;
    const GetOptions& options_;
    EventQueue& events_;
    bool page_;               // the address is that of a page
    std::string fault_{};     // why the address cannot be used; empty: it can
    std::string host_{};      // of the address
    Proxy proxy_{};           // for the address
    tagTaskRequest carried_;  // what requests to it carry
    std::unique_ptr<Target> target_{};
    std::optional<std::string> declined_{};  // why, empty: it is skipped
    std::string id_{};
    FileView view_{};
    double seconds_ = 0;
    std::optional<std::uint64_t> begun_with_{};  // bytes that were there
    bool beginning_ = false;
    std::optional<int> rest_{};  // see TakeRest
    int busy_tries_ = 0;         // that a busy host has ended, in a row and without progress
    std::uint64_t most_had_ = 0;
    bool once_ = false;      // its task has but one try
    tagTaskAnswer spent_{};  // sums of the tasks before the present one
    Phase phase_ = Phase::kIdle;
    HelperThread helper_;  // the last member: it is joined before the others are destroyed
};

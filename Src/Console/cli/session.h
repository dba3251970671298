// One run of a verb that needs the manager: from its start, through signals, to its end in order.
#pragma once

#include <string>
#include <vector>

#include "Console/cli/events.h"
#include "Console/cli/outcome.h"
#include "Console/screen/display.h"

// What the verb does with its tasks. Calls come from the main thread.
class Work : private Uncopyable {
  public:
    virtual ~Work() = default;

    // Adds tasks while some are wanted and the manager has room. Returns whether it broke off
    // before, for other things to have their turn.
    virtual bool StartNext() = 0;

    // What has to become readable before there may be more to add; -1: nothing.
    virtual int Awaits() const { return -1; }

    // Acts on one event from the queue.
    virtual void Handle(const Event& event) = 0;

    // Begins nothing more and asks every running task to stop. Returns how many were asked.
    virtual std::size_t Stop() = 0;

    // For an end that waits for nothing: removes the names that the running tasks have made, and
    // reports these as stopped. Only Finish, Status and Counts may be called afterwards.
    virtual void Abandon() = 0;

    // The last thing, also after Abandon and when no manager could be started. `atOnce`: nothing
    // may hold up the end.
    virtual void Finish(bool /*atOnce*/) {}

    // Whether no task runs and none will be added.
    virtual bool Done() const = 0;

    virtual ExitStatus Status() const = 0;

    // What is shown of it.
    virtual std::vector<const FileView*> Running() const = 0;
    virtual const Totals& Counts() const = 0;
};

class Session : private Uncopyable {
  public:
    // `noun` is what a task of the work is called. All references outlive the object; `wake` is
    // that of the events.
    Session(Work& work, const char* noun, const WakePipe& wake, EventQueue& events,
            Display& display);

    // Does all of the work and returns the exit status. `worker` is the program of the workers;
    // empty: it is looked for. After SIGINT, SIGTERM or SIGHUP this does not return: everything is
    // stopped and tidied, then the process ends by that signal.
    int Run(const std::string& worker);

  private:
    void Turn();
    void LookAtSignals();
    std::string Begin(const std::string& worker);
    void Close(bool atOnce);
    void EndManager();
    [[noreturn]] void EndNow();

    Work& work_;
    const char* const noun_;
    const WakePipe& wake_;
    EventQueue& events_;
    Display& display_;
    bool closed_ = false;
    bool stopping_ = false;
    Clock::time_point stop_deadline_{};
};

// Installs the handlers of signals; they end the waits on the pipe returned, which lives to the end
// of the process. To be called once.
const WakePipe& InstallSignals();

// One run of a verb that needs the manager: from its start, through signals, to its end in order.
#pragma once

#include <string>

#include "Console/base/events.h"
#include "Console/get/downloads.h"
#include "Console/screen/display.h"

class Session : private Uncopyable {
  public:
    // `noun` is what a message calls one of the downloads. All references outlive the object;
    // `wake` is that of the events.
    Session(Downloads& downloads, const char* noun, const WakePipe& wake, EventQueue& events,
            Display& display);

    // Does all of the work and returns the exit status. `worker` is the program of the workers;
    // empty: it is looked for. After SIGINT, SIGTERM or SIGHUP this does not return: everything is
    // stopped and tidied, then the process ends by that signal.
    int Run(const std::string& worker);

  private:
    void Turn();
    void LookAtSignals();
    std::string StartManager(const std::string& worker);
    void Finish(bool atOnce);
    void EndManager();
    [[noreturn]] void EndNow();

    Downloads& downloads_;
    const char* const noun_;
    const WakePipe& wake_;
    EventQueue& events_;
    Display& display_;
    bool finished_ = false;
    bool stopping_ = false;
    Clock::time_point stop_deadline_{};
};

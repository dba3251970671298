// A thread beside the main loop.
#pragma once

#include <functional>
#include <string>
#include <thread>

#include "Console/base/events.h"

// A thread for one piece of work that may take long: storing a file, comparing a digest. It ends
// with an event of the kind kEnd that carries the outcome. The work runs on copies; of shared
// objects it touches one Target, of which the main thread meanwhile calls const functions only.
class HelperThread : private Uncopyable {
  public:
    ~HelperThread() { Join(); }

    // Starts the thread; the one before has been joined. `events` outlives it.
    void Start(EventQueue& events, const std::string& id, std::function<Outcome()> work);

    // Waits for the thread, if there is one. What it shared may be changed again then.
    void Join();

  private:
    std::thread thread_{};
};

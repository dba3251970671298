// What the tasks of the command have in common, and those that resolve a video page.
#pragma once

#include <cstdint>
#include <string>

#include "Console/cli/events.h"
#include "Console/cli/outcome.h"
#include "Console/cli/proxy.h"
#include "TaskMan/taskcontext.h"

// How the tries of a transfer go.
struct Tries {
    std::int32_t count = 3;    // 1 to 3
    std::int32_t seconds = 1;  // between two, 0 to 3
};

// A task without command and address: its tries, its proxy, and callbacks that report to `events`,
// which lives as long as the manager runs.
tagTaskInfo NewTask(const std::string& id, const Proxy& proxy, Tries tries, EventQueue& events);

// Adds a task that resolves `page`, which has no AddressFault. Its end with code 1 carries the
// information text. Returns false with the reason in one line when the manager refuses it.
bool AddPageTask(const std::string& id, const std::string& page, const Proxy& proxy, Tries tries,
                 EventQueue& events, std::string& reason);

// Why no information text came from `page`, as its task's final event says; the code is not 1.
Outcome PageFailure(const std::string& page, const Event& event);

// Whether the site may be the cause of such a failure, so that a look at the page may tell more.
bool MayBeTheSites(const Outcome& failure);

// What the tasks of the command have in common, and how those that resolve a video page fail.
#pragma once

#include <cstdint>
#include <string>

#include "Console/cli/events.h"
#include "Console/cli/outcome.h"
#include "Console/cli/proxy.h"
#include "TaskMan/taskcontext.h"

// How often a worker tries.
struct Tries {
    std::int32_t count = 3;    // tries in a row that may end without a byte, 1 to 3
    std::int32_t seconds = 1;  // pause between two tries, 0 to 3
};

// A task that still lacks command and address: its tries, its proxy, and callbacks that report to
// `events`, which outlives the manager.
tagTaskInfo NewTask(const std::string& id, const Proxy& proxy, Tries tries, EventQueue& events);

// Why `page` was not resolved, from the final event of its task; its code is not 1.
Outcome PageFailure(const std::string& page, const Event& event);

// Whether the site may be the cause of such a failure, so that asking it again may tell more.
bool MayBeTheSites(const Outcome& failure);

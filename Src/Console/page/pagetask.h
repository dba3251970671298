// What the tasks of the command have in common: how they are made, and how they fail.
#pragma once

#include <cstdint>
#include <string>

#include "Console/base/events.h"
#include "Console/base/outcome.h"
#include "Console/base/proxy.h"
#include "TaskMan/taskcontext.h"

// How often a worker tries.
struct Tries {
    std::int32_t count = 5;     // tries in a row without progress, 1 to 100
    std::int32_t seconds = 10;  // longest pause between two tries, 0 to 300
};

// A task that still lacks command and address: its tries, its proxy, and callbacks that report to
// `events`, which outlives the manager.
tagTaskInfo NewTask(const std::string& id, const Proxy& proxy, Tries tries, EventQueue& events);

// How a download failed or was stopped, from the final event of its task; its code is not 3.
Outcome TaskFailure(const Event& event);

// Why `page` was not resolved, from the final event of its task; its code is not 1.
Outcome PageFailure(const std::string& page, const Event& event);

// The task that resolves a video page.
#pragma once

#include <string>

#include "Console/events.h"
#include "Console/outcome.h"
#include "Console/proxy.h"

// Adds the task `id`, which reports to `events`. The page's address has no AddressFault. Returns
// false with the reason in one line when the manager refuses it.
bool AddPageTask(const std::string& id, const std::string& page, const Proxy& proxy,
                 EventQueue& events, std::string& reason);

// Why no information text came from `page`, as its task's final event says; it is not code 1.
Outcome PageFailure(const std::string& page, const Event& event);

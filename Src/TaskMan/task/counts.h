// The map of the tasks and the counts of it, which change together. taskman.h declares both, with
// CheckAndCalcTaskCount and PrintTaskMapInfo, which are implemented here, too.
#pragma once

#include "common/mutex.h"

// Held while the map and its counters change together, and during a recount: a recount between the
// two changes would count the task twice or not at all. Taken before every other lock.
extern Threading::Mutex g_tally_mutex;

// The map of the tasks and the counts of it, which change together. taskman.h declares both, with
// CheckAndCalcTaskCount and PrintTaskMapInfo, which are implemented here, too.
#pragma once

#include "common/mutex.h"

// Held by the module around a change of the map and of the counters that goes with it, and around a
// recount: a recount that came between the two would count the task twice or never. Taken before
// every other lock.
extern Threading::Mutex g_tally_mutex;

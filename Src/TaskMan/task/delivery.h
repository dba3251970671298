// The way of a report from the scanner to the application.
#pragma once

#include "TaskMan/task/watch.h"

// The scanner's callbacks for every task, `param` is its watch: they hand on to the application's
// callbacks and note how far the task is.
void DeliverState(void* param, const char* szTaskID, std::int32_t nCode, double dValue,
                  std::int32_t nTaskKind);
void DeliverResult(void* param, const char* szTaskID, std::int32_t nCode, const char* szText,
                   std::uint32_t nLength);

// Calls the application back in the scanner's place, with the final code that the worker has left
// in the slot, else with code 8. For when neither scanner nor worker runs any more.
void DeliverLast(Watch& watch);

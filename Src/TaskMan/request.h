// What is asked of a task before it may enter the manager.
#pragma once

#include <string>

#include "TaskMan/taskcontext.h"

// Why the task is refused, in one line; empty when nothing in the record itself speaks against it.
std::string RefusalOf(const tagTaskInfo& taskinfo);

// Whether one id is the beginning of the other, or both are the same. Slots are recognised by the
// beginning of their id, so two such tasks could not be told apart.
bool IdsCollide(const std::string& one, const std::string& other);

// The output path of a download task without links and relative parts, by which two tasks that
// write one file are recognised; empty when the task writes none.
std::string OutputPath(const tagTaskInfo& taskinfo);

// A whole slot with the request of `taskinfo` in it.
tagTaskContext SlotOf(const tagTaskInfo& taskinfo);

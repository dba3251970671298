// What is asked of a task before it may enter the manager.
#pragma once

#include <string>
#include <string_view>

#include "TaskMan/taskcontext.h"

// Why the task is refused, in one line; empty when nothing in the record itself speaks against it.
std::string RefusalOf(const tagTaskInfo& taskinfo);

// Whether `id` is one a task may have: 1 to 63 letters, digits, "_" and "-".
bool IsTaskID(std::string_view id);

// The process id in an id that has the form of MakeTaskID's; -1 for any other.
int ProcessOfTaskID(std::string_view id);

// Whether one id is the beginning of the other, or both are the same. Slots are recognised by the
// beginning of their id, so two such tasks could not be told apart.
bool IdsCollide(const std::string& one, const std::string& other);

// The output path of a download task without links and relative parts, by which two tasks that
// write one file are recognised; empty when the task writes none.
std::string OutputPath(const tagTaskInfo& taskinfo);

// A whole slot with the request of `taskinfo` in it.
tagTaskContext SlotOf(const tagTaskInfo& taskinfo);

// What is asked of a task before it may enter the manager. taskman.h declares CheckTaskParam and
// CheckPath, which are implemented here, too.
#pragma once

#include <string>

#include "TaskMan/taskcontext.h"

// Why the task is refused, in one line; empty when nothing in the record itself speaks against it.
std::string RefusalOf(const tagTaskInfo& taskinfo);

// The output path of a download task without links and relative parts, by which two tasks that
// write one file are recognised; empty when the task writes none. May wait for the file system.
std::string OutputPath(const tagTaskInfo& taskinfo);

// A whole slot with the request of `taskinfo` in it.
tagTaskContext SlotOf(const tagTaskInfo& taskinfo);

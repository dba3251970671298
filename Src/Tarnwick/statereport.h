// Reports into the worker's live slot.
//
// Every report is made under the task's lock, into a slot that still carries the task's id:
// SendStateMSG checks that under the lock; a caller that reports a
// value asks OwnsSlot right before. Job
// thread only.
#pragma once

#include "TaskMan/taskcontext.h"

// Sets the bit of `code` in the slot. Always 0. A slot that no longer carries the task's id fails
// the standard assertion, with the lock released; a code outside 0 to 31 throws std::out_of_range
// ("bitset::set") and nothing is written.
int SendStateMSG(tagDownloadStateCode code);

// Whether the live slot carries the task's id.
bool OwnsSlot();

// Stores a value in `field` of the live slot and sets the bit of `code`, both in one locked
// section, so that a reader who holds the lock sees them together. The caller has checked
// OwnsSlot().
void ReportValue(double tagTaskContext::*field, double value, tagDownloadStateCode code);

// Stores an extended task's answer text, and with code 10 the size in bytes, with the code in one
// locked section. The caller has checked OwnsSlot().
void ReportAnswer(const std::string& text, tagDownloadStateCode code, double size = 0.0);

// Stores the information text, at most 20000 bytes, with zeros behind it, and sets the bit of code
// 1; otherwise like ReportValue.
void ReportInfoText(const std::string& text);

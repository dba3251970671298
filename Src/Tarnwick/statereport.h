// Reports into the worker's live slot.
//
// Every report happens under the task's lock, and is for a slot that still carries the task's id:
// SendStateMSG checks it under the lock, who reports a value checks it right before. Job thread
// only.
#pragma once

#include "TaskMan/taskcontext.h"

// Sets the bit of `code` in the slot. Returns 0. A slot that no longer carries the task's id ends
// the process with the standard assertion, the lock released; a code outside 0 to 31 throws
// std::out_of_range ("bitset::set") and nothing is written.
int SendStateMSG(tagDownloadStateCode code);

// Whether the live slot carries the task's id.
bool OwnsSlot();

// Stores a value in `field` of the live slot and sets the bit of `code`, both in one locked
// section, so that a reader who holds the lock sees them together. The caller has checked
// OwnsSlot().
void ReportValue(double tagTaskContext::*field, double value, tagDownloadStateCode code);

// Like ReportValue for the information text, at most 20000 bytes: the field is zero-filled first.
void ReportInfoText(const std::string& text);

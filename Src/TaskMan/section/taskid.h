// Task ids: which are accepted, and which name their process.
#pragma once

#include <string>
#include <string_view>

// Whether `id` is one that a task may have: 1 to 63 letters, digits, "_" and "-".
bool IsTaskID(std::string_view id);

// The process id in an id of the form that MakeTaskID (manager.h) gives; -1 for any other id.
int ProcessOfTaskID(std::string_view id);

// Whether one id is the beginning of the other, or both are the same. Slots are recognised by the
// beginning of their id, so two such tasks could not be told apart.
bool IdsCollide(const std::string& one, const std::string& other);

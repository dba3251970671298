// How the verbs write for programs: one JSON object a line, of nothing but ASCII.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

// Value of "v" in the first line of each output.
constexpr int JSON_VERSION = 1;

// Sets a text that may be missing. What is not UTF-8 in it is replaced in the line; a second field
// holds the bytes then.
void SetText(nlohmann::ordered_json& event, const std::string& key, const std::string& bytes);

// Whole numbers without a fraction.
nlohmann::ordered_json Number(double value);

// The object as a line, with its end.
std::string JsonLine(const nlohmann::ordered_json& event);

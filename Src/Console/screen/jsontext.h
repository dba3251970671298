// How the verbs write for programs: one JSON object a line, in ASCII.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "TaskMan/tasktext.h"

// Value of "v" in the first line of each output.
constexpr int JSON_VERSION = 2;

// Sets a text field; an empty text becomes null. When it is not UTF-8, JsonLine replaces the
// invalid bytes, and a second field, KEY_hex, holds all of them in hexadecimal digits.
void SetText(nlohmann::ordered_json& event, const std::string& key, const std::string& bytes);

// Sets why something ended: the worker's word for it, the line for people, the HTTP status.
void SetAnswer(nlohmann::ordered_json& event, const tagTaskAnswer& answer,
               const std::string& message);

// The number; without a fraction when it is a whole one.
nlohmann::ordered_json Number(double value);

// The object as a line, with its newline.
std::string JsonLine(const nlohmann::ordered_json& event);

#include "Console/screen/jsontext.h"

#include <cmath>
#include <nlohmann/json.hpp>

#include "Console/base/utf8.h"

namespace {

bool IsUtf8(std::string_view bytes) {
    while (!bytes.empty()) {
        const utf8::Character next = utf8::First(bytes);
        if (!next.valid) return false;
        bytes.remove_prefix(next.length);
    }
    return true;
}

}  // namespace

void SetText(nlohmann::ordered_json& event, const std::string& key, const std::string& bytes) {
    event[key] = bytes.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(bytes);
    if (!IsUtf8(bytes)) event[key + "_hex"] = utf8::Hex(bytes);
}

void SetAnswer(nlohmann::ordered_json& event, const tagTaskAnswer& answer,
               const std::string& message) {
    SetText(event, "reason", ReasonName(answer.Reason));
    SetText(event, "message", message);
    event["status"] = nullptr;
    if (answer.nStatus != 0) event["status"] = answer.nStatus;
    event["retry_after"] = nullptr;
    if (answer.nRetryAfter > 0) event["retry_after"] = answer.nRetryAfter;
}

nlohmann::ordered_json Number(double value) {
    constexpr double kExact = 9007199254740992.0;
    if (std::abs(value) <= kExact && std::trunc(value) == value) {
        return static_cast<std::int64_t>(value);
    }
    return value;
}

std::string JsonLine(const nlohmann::ordered_json& event) {
    return event.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

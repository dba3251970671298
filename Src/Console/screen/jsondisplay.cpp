#include "Console/screen/jsondisplay.h"

#include <unistd.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "Console/screen/jsontext.h"

namespace {

using Json = nlohmann::ordered_json;

}  // namespace

void JsonDisplay::Started(const FileView& file) {
    Json event = NewEvent("task", file);
    SetText(event, "address", file.address);
    SetText(event, "path", file.path);
    Tell(event);
}

void JsonDisplay::State(const FileView& file, std::int32_t code, double value) {
    Json event = NewEvent("state", file);
    event["code"] = code;
    event["value"] = Number(value);
    Tell(event);
}

void JsonDisplay::Ended(const FileView& file, const Outcome& outcome) {
    Json event = NewEvent("end", file);
    event["result"] = ResultName(outcome.result);
    event["code"] = outcome.code < 0 ? Json() : Json(outcome.code);
    SetText(event, "address", file.address);
    SetText(event, "path", file.path);
    event["bytes"] = Number(outcome.bytes);
    event["seconds"] = Number(std::round(outcome.seconds * 1000) / 1000);
    SetAnswer(event, file.answer, outcome.message);
    event["size"] = file.size < 0 ? Json() : Number(file.size);
    event["had"] = file.answer.uHad;
    event["received"] = file.answer.uReceived;
    event["requests"] = file.answer.nRequests;
    Tell(event);
    numbers_.erase(&file);
}

void JsonDisplay::Resting(const std::string& host, double seconds) {
    Json event = NewEvent("rest");
    SetText(event, "host", host);
    event["seconds"] = Number(seconds);
    Tell(event);
}

void JsonDisplay::Note(const std::string& line) {
    WriteAll(STDERR_FILENO, line + "\n");
}

void JsonDisplay::Warn(const std::string& warning) {
    Display::Warn(warning);
    Json event = NewEvent("warning");
    SetText(event, "message", warning);
    Tell(event);
}

void JsonDisplay::Finish(const Totals& totals, int status) {
    Json event = NewEvent("summary");
    event["files"] = totals.files;
    event["finished"] = totals.finished;
    event["skipped"] = totals.skipped;
    event["unchanged"] = totals.unchanged;
    event["failed"] = totals.Failed();
    event["stopped"] = totals.stopped;
    event["not_begun"] = totals.waiting;
    event["bytes"] = Number(totals.finishedBytes);
    event["exit"] = status;
    Tell(event);
}

nlohmann::ordered_json JsonDisplay::NewEvent(const char* name) {
    Json event;
    if (!begun_) event["v"] = JSON_VERSION;
    begun_ = true;
    event["event"] = name;
    return event;
}

nlohmann::ordered_json JsonDisplay::NewEvent(const char* name, const FileView& file) {
    const auto [number, added] = numbers_.try_emplace(&file, files_ + 1);
    if (added) ++files_;
    Json event = NewEvent(name);
    event["file"] = number->second;
    SetText(event, "id", file.id);
    return event;
}

void JsonDisplay::Tell(const nlohmann::ordered_json& event) {
    print_(JsonLine(event));
}

#include "TaskMan/tasktext.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <iterator>

#include "common/stringutility.h"

namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::size_t kTextMost = 512;  // of an answer's text other than an address

constexpr const char* kReasonNames[TASK_REASON_COUNT] = {
    "",           "http-status", "name-not-found", "refused", "timeout",   "stalled", "tls",
    "broken-off", "changed",     "no-space",       "local",   "redirects", "proxy",   "address",
    "protocol",   "request",     "page",           "stopped", "unchanged", "other"};

// The keys of a record's kind, each with its field: `visit` is called with both.
template <class Visit>
void ForEachKey(const tagTaskRequest& /*kind*/, Visit visit) {
    visit("url", &tagTaskRequest::strUrl);
    visit("user-agent", &tagTaskRequest::strUserAgent);
    visit("continue", &tagTaskRequest::bContinue);
    visit("sha256", &tagTaskRequest::strSha256);
    visit("answer-timeout", &tagTaskRequest::nAnswerSeconds);
    visit("stall-timeout", &tagTaskRequest::nStallSeconds);
    visit("tries", &tagTaskRequest::nTries);
    visit("wait", &tagTaskRequest::nWaitSeconds);
    visit("header", &tagTaskRequest::Headers);
    visit("user", &tagTaskRequest::strUser);
    visit("password", &tagTaskRequest::strPassword);
    visit("netrc", &tagTaskRequest::strNetrc);
    visit("ca-file", &tagTaskRequest::strCaFile);
    visit("cert-file", &tagTaskRequest::strCertFile);
    visit("key-file", &tagTaskRequest::strKeyFile);
    visit("insecure", &tagTaskRequest::bInsecure);
    visit("remote-time", &tagTaskRequest::bRemoteTime);
    visit("if-none-match", &tagTaskRequest::strIfNoneMatch);
    visit("if-modified-since", &tagTaskRequest::strIfModifiedSince);
    visit("retry-after", &tagTaskRequest::nRetryAfter);
    visit("ends-when-busy", &tagTaskRequest::bEndsWhenBusy);
    visit("stay", &tagTaskRequest::nStaySeconds);
}

template <class Visit>
void ForEachKey(const tagTaskAnswer& /*kind*/, Visit visit) {
    visit("reason", &tagTaskAnswer::Reason);
    visit("message", &tagTaskAnswer::strMessage);
    visit("status", &tagTaskAnswer::nStatus);
    visit("errno", &tagTaskAnswer::nErrno);
    visit("retry-after", &tagTaskAnswer::nRetryAfter);
    visit("final-url", &tagTaskAnswer::strFinalUrl);
    visit("etag", &tagTaskAnswer::strETag);
    visit("last-modified", &tagTaskAnswer::strLastModified);
    visit("file-name", &tagTaskAnswer::strFileName);
    visit("had", &tagTaskAnswer::uHad);
    visit("received", &tagTaskAnswer::uReceived);
    visit("requests", &tagTaskAnswer::nRequests);
    visit("connections", &tagTaskAnswer::nConnections);
    visit("tries", &tagTaskAnswer::nTries);
    visit("parts", &tagTaskAnswer::bParts);
    visit("reached", &tagTaskAnswer::bReached);
}

// ---- Values to texts and back. Read is false for a value that its field cannot hold.

const std::string& Written(const std::string& value) {
    return value;
}
std::string Written(TaskReason value) {
    return ReasonName(value);
}
template <class Number>
std::string Written(Number value) {
    return std::to_string(value);
}

bool Read(std::string_view text, std::string& value) {
    value = text;
    return true;
}
bool Read(std::string_view text, std::vector<std::string>& values) {
    values.emplace_back(text);
    return true;
}
bool Read(std::string_view text, TaskReason& value) {
    value = ReasonOfName(text);
    return true;
}
template <class Number>
bool Read(std::string_view text, Number& value) {
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && rest == end && value >= 0;
}
bool Read(std::string_view text, bool& value) {
    value = text == "1";
    return value || text == "0";
}

template <class Value>
void AppendLine(std::string& text, std::string_view key, const Value& value) {
    text.append(key).append("=").append(Written(value)).append(kLineEnd);
}
void AppendLine(std::string& text, std::string_view key, const std::vector<std::string>& values) {
    for (const std::string& value : values) AppendLine(text, key, value);
}

// Takes the first line off the text, its end included; false when the text has no such end.
bool TakeLine(std::string_view& text, std::string_view& line) {
    const std::size_t end = text.find(kLineEnd);
    if (end == text.npos) return false;
    line = text.substr(0, end);
    text.remove_prefix(end + kLineEnd.size());
    return std::none_of(line.begin(), line.end(),
                        [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
}

// Stores the value of the line in the field of its key. Returns the fault.
template <class Record>
std::string ReadLine(std::string_view line, Record& record) {
    const std::size_t sign = line.find('=');
    if (sign == line.npos) return "a line is no key=value";
    std::string fault;
    ForEachKey(record, [&](std::string_view key, auto field) {
        if (line.substr(0, sign) != key) return;
        if (!Read(line.substr(sign + 1), record.*field)) fault = std::string(key) + ": a bad value";
    });
    return fault;
}

// What no line may hold becomes a blank.
std::string OneLine(std::string text, std::size_t most) {
    if (text.size() > most) text.resize(most);
    if (!strutil::holdsControl(text)) return text;
    std::replace_if(
        text.begin(), text.end(),
        [](const char& c) {
            return strutil::holdsControl({&c, 1});
        },
        ' ');
    return text;
}

}  // namespace

const char* ReasonName(TaskReason reason) {
    return kReasonNames[static_cast<int>(reason)];
}

TaskReason ReasonOfName(std::string_view name) {
    const auto* found = std::find(std::begin(kReasonNames), std::end(kReasonNames), name);
    return found == std::end(kReasonNames)
               ? TaskReason::kOther
               : static_cast<TaskReason>(found - std::begin(kReasonNames));
}

std::string EncodeRequest(const tagTaskRequest& request) {
    std::string text;
    // A worker of another version may have other defaults.
    ForEachKey(request,
               [&](std::string_view key, auto field) { AppendLine(text, key, request.*field); });
    return text.append(kLineEnd);
}

std::string DecodeRequest(std::string_view text, tagTaskRequest& request) {
    if (text.size() > TASK_REQUEST_MOST) return "the request is longer than 65536 bytes";
    tagTaskRequest read;
    for (std::string_view line;;) {
        if (!TakeLine(text, line)) return "a line of the request has no proper end";
        if (line.empty()) break;
        if (std::string fault = ReadLine(line, read); !fault.empty()) return fault;
    }
    if (!text.empty()) return "the request goes on behind its end";
    if (std::string refusal = RefusalOf(read); !refusal.empty()) return refusal;
    request = std::move(read);
    return {};
}

std::string EncodeAnswer(const tagTaskAnswer& answer) {
    static const tagTaskAnswer nothing;
    std::string text;
    ForEachKey(answer, [&](std::string_view key, auto field) {
        const auto& value = answer.*field;
        if (value == nothing.*field) return;
        const bool address = key == "final-url";
        if (address && answer.strFinalUrl.size() > TASK_ADDRESS_MOST) return;
        AppendLine(text, key, OneLine(Written(value), address ? TASK_ADDRESS_MOST : kTextMost));
    });
    return text;
}

std::string DecodeAnswer(std::string_view text, tagTaskAnswer& answer) {
    text = text.substr(0, std::min(text.find('\0'), TASK_ANSWER_MOST));
    tagTaskAnswer read;
    for (std::string_view line; !text.empty();) {
        if (!TakeLine(text, line)) return "a line of the answer has no proper end";
        if (std::string fault = ReadLine(line, read); !fault.empty()) return fault;
    }
    answer = std::move(read);
    return {};
}

// The judgement of an answer, or of a transfer that failed: what the next step is.
//
// Pure functions: the same arguments give the same result.
#pragma once

#include <curl/curl.h>

#include <string>

#include "Tarnwick/engine/answer.h"
#include "TaskMan/tasktext.h"

namespace engine {

// What a request has asked for.
struct Asked {
    std::optional<Range> range{};  // of known or unknown end; nothing: the whole file
    bool additional = false;       // other connections are at work
    bool conditional = false;      // only a file that is not the one that is known already
};

// What earlier answers, or the record of an earlier run, have said about the file.
struct Known {
    bool any = false;
    std::uint64_t size = kUnknown;
    std::string validator{};  // as ValidatorOf returns it
};

enum class Verdict {
    kWhole,     // the body is the file from byte 0 on
    kPart,      // the body is what was asked for
    kChanged,   // the body is another file than before, from byte 0 on
    kNoRanges,  // the server knows no ranges: the body is the same file, from byte 0 on
    kStale,     // no use: the file is another one now
    kUnfit,     // no use: the server does not serve ranges as it should
    kRefused,   // no use: the server does not bear this additional connection
    kAgain,     // no use: try again after a pause
    kFinal,     // no use: nor would another try be
};

// Whether the body goes into the file.
constexpr bool IsGood(Verdict verdict) {
    return verdict <= Verdict::kNoRanges;
}

struct Judgement {
    Verdict verdict = Verdict::kFinal;
    TaskReason reason = TaskReason::kNone;  // for the last three, and for a try that was the last
    std::string message{};                  // one line for people
    int pause = 0;                          // seconds that the server asks to wait; 0: does not say
};

// Judges the answer once its headers are complete.
Judgement JudgeAnswer(const Answer& answer, const Asked& asked, const Known& known);

// Judges a transfer that libcurl has ended with `code` before all of the answer had come; `text` is
// its message, or empty. `answer` is the last answer that came, redirects included; with `proxied`
// a proxy was to be used, which has answered with status `connect` when it was asked for a tunnel;
// 0: it was not.
Judgement JudgeError(CURLcode code, const std::string& text, const Answer& answer, bool proxied,
                     long connect = 0);

}  // namespace engine

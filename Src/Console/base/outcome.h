// How a file of `taskman get` ends, and with what status the command exits.
#pragma once

#include <cstdint>
#include <string>

// Exit statuses of the command. When several apply, the smallest that is not 0 wins.
enum ExitStatus : int {
    EXIT_STATUS_FINISHED = 0,
    EXIT_STATUS_FAILED = 1,      // a download failed, or its worker died
    EXIT_STATUS_USAGE = 2,       // wrong arguments, or an address that cannot be used
    EXIT_STATUS_LOCAL = 3,       // the local file: exists, cannot be created, no space, no rename
    EXIT_STATUS_UNRESOLVED = 4,  // the page was not resolved, or has no such format
    EXIT_STATUS_MISMATCH = 5,    // the file is not the one that was announced
    EXIT_STATUS_STOPPED = 6,     // stopped on request
};

// The status of a command, given that of the files so far and that of one more file.
constexpr ExitStatus Combine(ExitStatus sofar, ExitStatus status) {
    if (sofar == EXIT_STATUS_FINISHED) return status;
    return status == EXIT_STATUS_FINISHED || sofar < status ? sofar : status;
}

enum class EndResult {
    kFinished,
    kFailed,
    kDied,
    kStopped,
    kMismatch,
    kRefused,
    kSkipped,
    kUnchanged
};

// Whether the file is there as it was asked for: stored now, or there before.
constexpr bool IsThere(EndResult result) {
    return result == EndResult::kFinished || result == EndResult::kSkipped ||
           result == EndResult::kUnchanged;
}

// The end of one file.
struct Outcome {
    EndResult result = EndResult::kFinished;
    ExitStatus status = EXIT_STATUS_FINISHED;
    std::string message{};   // one line, which may hold any bytes; empty when finished
    double bytes = 0;        // size of the finished, skipped or unchanged file
    double seconds = 0;      // that its last task took
    std::int32_t code = -1;  // final code of its last task; -1 when it had none
};

// The word for a result: "finished", "failed" and so on.
constexpr const char* ResultName(EndResult result) {
    switch (result) {
        case EndResult::kFinished:
            return "finished";
        case EndResult::kFailed:
            return "failed";
        case EndResult::kDied:
            return "died";
        case EndResult::kStopped:
            return "stopped";
        case EndResult::kMismatch:
            return "mismatch";
        case EndResult::kRefused:
            return "refused";
        case EndResult::kSkipped:
            return "skipped";
        case EndResult::kUnchanged:
            return "unchanged";
    }
    return "";
}

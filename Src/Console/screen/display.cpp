#include "Console/screen/display.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdlib>

#include "Console/base/signals.h"
#include "Console/screen/bardisplay.h"
#include "Console/screen/jsondisplay.h"
#include "Console/screen/plaindisplay.h"
#include "Console/screen/text.h"
#include "TaskMan/taskcontext.h"
#include "common/sysutility.h"

namespace {

bool ColourWanted(Colour wanted, bool capable) {
    if (wanted != Colour::kAuto) return wanted == Colour::kAlways;
    const char* none = std::getenv("NO_COLOR");
    return capable && (none == nullptr || *none == '\0');
}

Detail DetailOf(const DisplayOptions& options) {
    if (options.quiet) return Detail::kFailures;
    if (options.verbose) return Detail::kReports;
    return options.progress == ProgressForm::kNone ? Detail::kEnds : Detail::kProgress;
}

// Waits until the descriptor takes bytes or has failed. False when the command is to end and it
// still takes none; errno is ETIMEDOUT then.
bool AwaitRoom(int descriptor) {
    constexpr int kTurn = 250;         // milliseconds
    static std::atomic<int> turns{8};  // that are left, over all calls, once the command is to end
    pollfd room{descriptor, POLLOUT, 0};
    while (poll(&room, 1, kTurn) < 1) {
        const int stops = signals::StopCount();
        if (stops < 1 || (stops == 1 && turns-- > 0)) continue;
        errno = ETIMEDOUT;
        return false;
    }
    return true;
}

void PrintEvent(const std::string& line) {
    std::string fault;
    Print(line, fault);
    if (!fault.empty()) WriteAll(STDERR_FILENO, FaultLine(fault));
}

}  // namespace

void SmoothSpeed::Note(double speed, Clock::time_point now) {
    from_ = latest_ < 0 ? speed : At(now);
    latest_ = speed;
    since_ = now;
}

double SmoothSpeed::At(Clock::time_point now) const {
    constexpr double kSmoothing = 3;  // seconds
    const double passed = std::chrono::duration<double>(now - since_).count();
    return latest_ + (from_ - latest_) * std::exp(-passed / kSmoothing);
}

std::unique_ptr<Display> MakeDisplay(const DisplayOptions& options) {
    if (options.json) {
        return std::make_unique<JsonDisplay>(PrintEvent);
    }
    const bool capable = CanDraw(STDERR_FILENO);
    const bool colour = ColourWanted(options.colour, capable);
    const bool bars = options.progress == ProgressForm::kBar ||
                      (options.progress == ProgressForm::kAuto && capable);
    if (bars && !options.quiet) {
        return std::make_unique<BarDisplay>(STDERR_FILENO, colour, options.verbose);
    }
    return std::make_unique<PlainDisplay>(STDERR_FILENO, DetailOf(options), colour);
}

bool CanDraw(int descriptor) {
    const char* term = std::getenv("TERM");
    return isatty(descriptor) == 1 && term != nullptr && *term != '\0' &&
           std::string_view(term) != "dumb";
}

void Display::Fault(const std::string& fault) {
    std::string line = FaultLine(fault);
    line.pop_back();
    Note(line);
}

std::string EndLine(const FileView& file, const Outcome& outcome) {
    std::string line = file.name + ": " + ResultName(outcome.result);
    if (outcome.result != EndResult::kFinished) {
        if (!outcome.message.empty()) line += ": " + text::Printable(outcome.message);
        return line;
    }
    line += ", 100 % of " + text::Size(outcome.bytes) + " in " + text::Duration(outcome.seconds);
    // The speed of a short transfer says nothing.
    const double fetched = outcome.bytes - static_cast<double>(file.answer.uHad);
    if (outcome.seconds > 2) line += ", " + text::Size(fetched / outcome.seconds) + "/s";
    return line;
}

std::string SummaryLine(const Totals& totals) {
    if (totals.files < 2 && !totals.more) return "";
    std::string line =
        std::to_string(totals.finished) + " of " + text::Count(totals.files, "file") + " finished";
    const auto add = [&line](std::size_t count, const char* what) {
        if (count > 0) line += ", " + std::to_string(count) + what;
    };
    add(totals.skipped, " skipped");
    add(totals.unchanged, " unchanged");
    add(totals.Failed(), " failed");
    add(totals.stopped, " stopped");
    add(totals.waiting, " not begun");
    if (totals.more) line += ", the rest of the list not begun";
    return line;
}

std::string StateLine(const FileView& file, std::int32_t code) {
    const auto words = [&file, code]() -> std::string {
        switch (code) {
            case DOWNLOAD_STATE_PARSE_START:
                return "work on the page has begun";
            case DOWNLOAD_STATE_DOWNLOAD_START:
                return "the first bytes have arrived";
            case DOWNLOAD_STATE_DOWNLOAD_FINISH:
                return "all bytes have arrived";
            case DOWNLOAD_STATE_PROGRESS:
                return std::to_string(static_cast<int>(file.percent)) + " %";
            case DOWNLOAD_STATE_SPEED:
                return text::Size(file.speed.Latest()) + "/s";
            case DOWNLOAD_STATE_FILE_SIZE:
                return text::Size(file.size) + " are to come";
            default:
                return "";
        }
    }();
    const std::string line = file.name + ": code " + std::to_string(code);
    return words.empty() ? line : line + ": " + words;
}

std::string RestingLine(const std::string& host, double seconds) {
    const std::string time = seconds < 1
                                 ? text::Duration(seconds)
                                 : std::to_string(static_cast<long>(std::ceil(seconds))) + " s";
    return text::Printable(host) + " is busy: waiting " + time;
}

std::string TaskLine(const FileView& file) {
    const std::string line =
        file.name + ": task " + text::Printable(file.id) + ", " + text::Printable(file.address);
    return file.path.empty() ? line : line + " -> " + text::Printable(file.path);
}

std::string Coloured(const std::string& line, EndResult result) {
    const bool wrong = !IsThere(result) && result != EndResult::kStopped;
    return wrong ? "\x1b[31m" + line + "\x1b[0m" : line;
}

std::string BegunLine(const FileView& file, bool verbose) {
    if (file.answer.uHad > 0 && file.size > 0) {
        const double percent = 100 * static_cast<double>(file.answer.uHad) / file.size;
        return file.name + ": continues at " + text::Percent(std::min(percent, 100.0)) + " %";
    }
    if (!file.foundPart || !verbose) return "";
    const std::string& why = file.answer.strMessage;
    return file.name + ": starts over: " +
           (why.empty() ? "the server does not go on with the partial file" : text::Printable(why));
}

double TimeLeft(double bytes, double speed) {
    return speed > 0 && bytes >= 0 ? bytes / speed : -1;
}

bool WriteAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        if (!AwaitRoom(descriptor)) return false;
        // A pipe that poll() calls writable takes PIPE_BUF bytes without blocking.
        const ssize_t written =
            write(descriptor, bytes.data(), std::min<std::size_t>(bytes.size(), PIPE_BUF));
        if (written == -1 && errno == EINTR) continue;
        if (written < 1) return false;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

std::string OutputFault() {
    if (errno == EPIPE) return "";
    if (errno == ETIMEDOUT) return "cannot write standard output: nobody reads it";
    return sysutility::SystemFault("cannot write standard output", errno);
}

std::string FaultLine(const std::string& fault) {
    return "taskman: " + text::Printable(fault) + "\n";
}

bool WriteResult(const std::string& result, std::string faultLines) {
    const bool written = WriteAll(STDOUT_FILENO, result);
    const std::string fault = written ? "" : OutputFault();
    if (!fault.empty()) faultLines += FaultLine(fault);
    return WriteAll(STDERR_FILENO, faultLines) && written;
}

bool Print(std::string_view bytes, std::string& fault) {
    static bool broken = false;
    if (broken) return false;
    broken = !WriteAll(STDOUT_FILENO, bytes);
    if (broken) fault = OutputFault();
    if (broken && signals::StopCount() == 0) std::raise(SIGTERM);
    return !broken;
}

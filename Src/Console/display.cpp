#include "Console/display.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Console/bardisplay.h"
#include "Console/plaindisplay.h"
#include "Console/text.h"

namespace {

bool TerminalCanDraw() {
    const char* term = std::getenv("TERM");
    return isatty(STDERR_FILENO) == 1 && term != nullptr && *term != '\0' &&
           std::strcmp(term, "dumb") != 0;
}

bool ColourWanted(Colour wanted) {
    if (wanted != Colour::kAuto) return wanted == Colour::kAlways;
    const char* none = std::getenv("NO_COLOR");
    return none == nullptr || *none == '\0';
}

}  // namespace

std::unique_ptr<Display> MakeDisplay(const DisplayOptions& options) {
    if (TerminalCanDraw()) {
        return std::make_unique<BarDisplay>(STDERR_FILENO, ColourWanted(options.colour));
    }
    return std::make_unique<PlainDisplay>(STDERR_FILENO);
}

std::string EndLine(const FileView& file, const Outcome& outcome) {
    std::string line = file.name + ": " + ResultName(outcome.result);
    if (outcome.result != EndResult::kFinished) {
        return outcome.reason.empty() ? line : line + ": " + text::Printable(outcome.reason);
    }
    line += ", " + text::Size(outcome.bytes) + " in " + text::Duration(outcome.seconds);
    // Ends are learned once a second: for less than a few, a speed would say nothing.
    if (outcome.seconds > 2) line += ", " + text::Size(outcome.bytes / outcome.seconds) + "/s";
    return line;
}

std::string SummaryLine(const Totals& totals) {
    if (totals.files < 2) return "";
    std::string line =
        std::to_string(totals.finished) + " of " + text::Count(totals.files, "file") + " finished";
    const auto add = [&line](std::size_t count, const char* what) {
        if (count > 0) line += ", " + std::to_string(count) + what;
    };
    add(totals.ended - totals.finished - totals.stopped, " failed");
    add(totals.stopped, " stopped");
    add(totals.waiting, " not begun");
    return line;
}

double TimeLeft(double bytes, double speed) {
    return speed > 0 && bytes >= 0 ? bytes / speed : -1;
}

bool WriteAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(descriptor, bytes.data(), bytes.size());
        if (written == -1 && errno == EINTR) continue;
        if (written < 1) return false;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

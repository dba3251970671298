#include "Console/screen/bardisplay.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

#include "Console/screen/text.h"

namespace {

constexpr std::chrono::milliseconds kBetweenDraws{250};
constexpr const char* kToLineEnd = "\x1b[K";
constexpr const char* kToScreenEnd = "\x1b[J";
// If a character is wider than wcwidth() says, the line is cut instead of wrapped.
constexpr const char* kWrapOff = "\x1b[?7l";
constexpr const char* kWrapOn = "\x1b[?7h";

constexpr int kPercentColumns = 4;
constexpr int kSizeColumns = 10;
constexpr int kSpeedColumns = 12;
constexpr int kClockColumns = 8;
constexpr int kGap = 2;
constexpr int kLeastOfName = 8;

double SecondsSince(Clock::time_point start, Clock::time_point now) {
    return std::chrono::duration<double>(now - start).count();
}

std::string NameField(const FileView& file, int columns) {
    return text::PadRight(text::CutMiddle(file.name, columns), columns);
}

// The name, and at the end as much of the words as leaves room for it: all, or the short ones.
std::string WordLine(const FileView& file, int columns, const std::string& all,
                     const std::string& shorter) {
    const bool fits = columns >= text::Width(all) + kGap + kLeastOfName;
    const std::string& words = fits ? all : shorter;
    const int room = std::max(columns - text::Width(words) - kGap, 0);
    return text::CutMiddle(NameField(file, room) + "  " + words, columns);
}

std::string WaitingLine(const FileView& file, int columns, Clock::time_point now) {
    const std::string seconds =
        std::to_string(static_cast<long>(SecondsSince(file.started, now))) + " s";
    return WordLine(file, columns, "waiting for the server, " + seconds, "waiting, " + seconds);
}

std::string Bar(double percent, int columns) {
    const int inside = columns - 2;
    const int filled = std::clamp(static_cast<int>(percent * inside / 100), 0, inside);
    std::string bar(static_cast<std::size_t>(filled), '=');
    if (filled < inside) bar += '>';
    bar.resize(static_cast<std::size_t>(inside), ' ');
    return "[" + bar + "]";
}

std::string SpeedText(double speed) {
    return speed < 0 ? "" : text::Size(speed) + "/s";
}

}  // namespace

std::string FileLine(const FileView& file, int columns, Clock::time_point now) {
    if (!file.answered) return WaitingLine(file, columns, now);
    const double speed = file.speed.At(now);
    if (file.size < 0) {
        return WordLine(file, columns,
                        "size unknown  " + text::PadLeft(SpeedText(speed), kSpeedColumns),
                        SpeedText(speed));
    }
    std::string values = text::PadLeft(text::Percent(file.percent) + "%", kPercentColumns);
    const auto add = [&values, columns](int from, const std::string& value, int width) {
        if (columns >= from) values += std::string(kGap, ' ') + text::PadLeft(value, width);
    };
    add(46, text::Size(file.size), kSizeColumns);
    add(60, SpeedText(speed), kSpeedColumns);
    add(72, text::Clock(TimeLeft(file.size - file.Received(), speed)), kClockColumns);
    const int room = std::max(columns - text::Width(values) - 1, 0);  // for name, gap and bar
    const int bar = room < 26 ? 0 : std::min(room * 2 / 5, 60);
    const int name = bar == 0 ? room : room - bar - kGap;
    std::string line = NameField(file, name);
    if (bar > 0) line += "  " + Bar(file.percent, bar);
    return text::CutMiddle(line + " " + values, columns);
}

std::string TotalLine(const std::vector<const FileView*>& running, const Totals& totals,
                      int columns, Clock::time_point now) {
    double received = totals.finishedBytes;
    double missing = 0;
    double speed = 0;
    bool sizesKnown = totals.waiting == 0 && !totals.more;
    for (const FileView* file : running) {
        received += file->Received();
        missing += file->size - file->Received();
        speed += std::max(file->speed.At(now), 0.0);
        sizesKnown = sizesKnown && file->size >= 0;
    }
    std::string line = totals.more ? text::Count(totals.ended, "file") + " done"
                                   : std::to_string(totals.ended) + " of " +
                                         text::Count(totals.files, "file") + " done";
    const auto add = [&line, columns](const std::string& part) {
        if (text::Width(line) + 2 + text::Width(part) <= columns) line += ", " + part;
    };
    if (totals.Failed() > 0) add(std::to_string(totals.Failed()) + " failed");
    add(text::Size(received));
    if (speed > 0) add(text::Size(speed) + "/s");
    if (sizesKnown && speed > 0) add(text::Clock(TimeLeft(missing, speed)) + " left");
    return text::CutMiddle(line, columns);
}

BarDisplay::BarDisplay(int descriptor, bool colour, bool reports)
    : descriptor_(descriptor), colour_(colour), reports_(reports) {
    ReadSize();
}

void BarDisplay::ReadSize() {
    winsize size{};
    if (ioctl(descriptor_, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return;
    // The last column stays free: some terminals wrap as soon as it is filled.
    columns_ = std::max(size.ws_col - 1, 2);
    rows_ = size.ws_row == 0 ? 24 : size.ws_row;
}

// A command in the background leaves the screen to the one in the foreground.
bool BarDisplay::InForeground() const {
    const pid_t front = tcgetpgrp(descriptor_);
    return front == -1 || front == getpgrp();
}

void BarDisplay::Started(const FileView& file) {
    if (reports_) Keep(TaskLine(file));
}

void BarDisplay::State(const FileView& file, std::int32_t code, double /*value*/) {
    if (reports_) Keep(StateLine(file, code));
}

void BarDisplay::Begun(const FileView& file) {
    if (const std::string line = BegunLine(file, reports_); !line.empty()) Keep(line);
}

void BarDisplay::Ended(const FileView& file, const Outcome& outcome) {
    Keep(EndLine(file, outcome), outcome.result);
}

void BarDisplay::Note(const std::string& line) {
    Keep(line);
    Draw();
}

void BarDisplay::Keep(const std::string& line, EndResult result) {
    for (const std::string& row : text::Wrap(line, columns_)) {
        kept_.push_back(colour_ ? Coloured(row, result) : row);
    }
}

void BarDisplay::Refresh(const std::vector<const FileView*>& running, const Totals& totals) {
    const Clock::time_point now = Clock::now();
    if (now - last_draw_ < kBetweenDraws) return;
    frame_.clear();
    const auto shown = static_cast<std::size_t>(std::max(rows_ - 2, 0));
    for (const FileView* file : running) {
        if (frame_.size() < shown) frame_.push_back(FileLine(*file, columns_, now));
    }
    frame_.push_back(TotalLine(running, totals, columns_, now));
    Draw();
}

void BarDisplay::Clear() {
    frame_.clear();
    Draw();
}

void BarDisplay::ScreenChanged(bool resumed) {
    ReadSize();
    if (resumed) drawn_ = 0;
    for (std::string& line : frame_) line = text::CutMiddle(line, columns_);
}

void BarDisplay::Finish(const Totals& totals, int /*status*/) {
    if (const std::string line = SummaryLine(totals); !line.empty()) Keep(line);
    frame_.clear();
    Draw();
}

void BarDisplay::Draw() {
    last_draw_ = Clock::now();
    const bool front = InForeground();
    if (!front) drawn_ = 0;
    if (!front && kept_.empty()) return;
    std::string out = kWrapOff;
    out += '\r';
    // Some terminals rewrap lines when they become narrower, others do not. Going up too few rows
    // leaves a trace of the frame; too many would erase lines that stay.
    if (drawn_ > 1) out += "\x1b[" + std::to_string(drawn_ - 1) + "A";
    for (const std::string& line : kept_) out += line + kToLineEnd + "\n";
    kept_.clear();
    drawn_ = 0;
    for (const std::string& line : frame_) {
        if (!front) break;
        if (drawn_++ > 0) out += "\n";
        out += line + kToLineEnd;
    }
    WriteAll(descriptor_, out + kToScreenEnd + kWrapOn);
}

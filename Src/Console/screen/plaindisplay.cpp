#include "Console/screen/plaindisplay.h"

#include "Console/screen/text.h"
#include "TaskMan/taskcontext.h"

void PlainDisplay::Started(const FileView& file) {
    Shown& shown = shown_[&file];
    const bool again = shown.name == file.name;
    shown = {.name = file.name};
    if (detail_ == Detail::kReports) return Note(TaskLine(file));
    if (detail_ == Detail::kProgress && !again) Note(file.name + ": started");
}

void PlainDisplay::State(const FileView& file, std::int32_t code, double /*value*/) {
    if (detail_ == Detail::kReports) return Note(StateLine(file, code));
    if (detail_ < Detail::kProgress) return;
    if (code == DOWNLOAD_STATE_SPEED && file.size < 0) ShowSpeed(file);
    if (code != DOWNLOAD_STATE_PROGRESS) return;
    const int quarters = static_cast<int>(file.percent) / 25;
    int& shown = shown_[&file].quarters;
    // The final line covers the last quarter.
    if (quarters <= shown || quarters > 3) return;
    shown = quarters;
    std::string line = file.name + ": " + std::to_string(quarters * 25) + " %";
    if (file.size >= 0) line += " of " + text::Size(file.size);
    const double speed = file.speed.At(Clock::now());
    if (speed >= 0) line += ", " + text::Size(speed) + "/s";
    Note(line);
}

// With the first speed the size may still be on its way.
void PlainDisplay::ShowSpeed(const FileView& file) {
    if (++shown_[&file].speeds != 2) return;
    Note(file.name + ": size unknown, " + text::Size(file.speed.At(Clock::now())) + "/s");
}

void PlainDisplay::Begun(const FileView& file) {
    shown_[&file].quarters = static_cast<int>(file.percent) / 25;
    const std::string line = BegunLine(file, detail_ == Detail::kReports);
    if (detail_ >= Detail::kProgress && !line.empty()) Note(line);
}

void PlainDisplay::Ended(const FileView& file, const Outcome& outcome) {
    shown_.erase(&file);
    if (IsThere(outcome.result) && detail_ == Detail::kFailures) return;
    const std::string line = EndLine(file, outcome);
    Note(colour_ ? Coloured(line, outcome.result) : line);
}

void PlainDisplay::Resting(const std::string& host, double seconds) {
    if (detail_ != Detail::kFailures) Display::Resting(host, seconds);
}

void PlainDisplay::Note(const std::string& line) {
    WriteAll(descriptor_, line + "\n");
}

void PlainDisplay::Finish(const Totals& totals, int /*status*/) {
    if (detail_ == Detail::kFailures) return;
    if (const std::string line = SummaryLine(totals); !line.empty()) Note(line);
}

#include "Console/screen/plaindisplay.h"

#include "Console/screen/text.h"
#include "TaskMan/taskcontext.h"

void PlainDisplay::Started(const FileView& file) {
    marks_[&file] = 0;
    if (detail_ == Detail::kReports) return Note(TaskLine(file));
    if (detail_ == Detail::kProgress) Note(file.name + ": started");
}

void PlainDisplay::State(const FileView& file, std::int32_t code, double /*value*/) {
    if (detail_ == Detail::kReports) return Note(StateLine(file, code));
    if (detail_ < Detail::kProgress || code != DOWNLOAD_STATE_PROGRESS) return;
    const int quarters = static_cast<int>(file.percent) / 25;
    int& shown = marks_[&file];
    // The final line covers the last quarter.
    if (quarters <= shown || quarters > 3) return;
    shown = quarters;
    std::string line = file.name + ": " + std::to_string(quarters * 25) + " %";
    if (file.size >= 0) line += " of " + text::Size(file.size);
    if (file.speed >= 0) line += ", " + text::Size(file.speed) + "/s";
    Note(line);
}

void PlainDisplay::Ended(const FileView& file, const Outcome& outcome) {
    marks_.erase(&file);
    const bool well =
        outcome.result == EndResult::kFinished || outcome.result == EndResult::kSkipped;
    if (well && detail_ == Detail::kFailures) return;
    const std::string line = EndLine(file, outcome);
    Note(colour_ ? Coloured(line, outcome.result) : line);
}

void PlainDisplay::Note(const std::string& line) {
    WriteAll(descriptor_, line + "\n");
}

void PlainDisplay::Finish(const Totals& totals, int /*status*/) {
    if (detail_ == Detail::kFailures) return;
    if (const std::string line = SummaryLine(totals); !line.empty()) Note(line);
}

// Bars, for a terminal: a line per running file and one for all at the bottom, redrawn in place;
// what has ended scrolls up above them and stays.
#pragma once

#include <string>
#include <vector>

#include "Console/screen/display.h"

class BarDisplay : public Display {
  public:
    // `reports`: everything a worker reports is told, too.
    BarDisplay(int descriptor, bool colour, bool reports);

    void Started(const FileView& file) override;
    void State(const FileView& file, std::int32_t code, double value) override;
    void Ended(const FileView& file, const Outcome& outcome) override;
    void Note(const std::string& line) override;
    void Refresh(const std::vector<const FileView*>& running, const Totals& totals) override;
    void Clear() override;
    void ScreenChanged(bool resumed) override;
    void Finish(const Totals& totals, int status) override;

  private:
    void ReadSize();
    bool InForeground() const;
    void Keep(const std::string& line, EndResult result = EndResult::kFinished);
    void Draw();

    const int descriptor_;
    const bool colour_;
    const bool reports_;
    int columns_ = 80;  // that may be written to
    int rows_ = 24;
    std::vector<std::string> kept_;   // lines that are to stay, not yet written
    std::vector<std::string> frame_;  // lines that come and go
    int drawn_ = 0;                   // lines of the frame on the screen
    Clock::time_point last_draw_{};
};

// ---- Its lines; at most `columns` columns wide.

// A running file: name, bar, percent, size, speed, time left; from the right, what finds no room is
// left out. A file that starts over says so behind its name. Before the first byte: name and how
// long the server has been waited for.
std::string FileLine(const FileView& file, int columns, Clock::time_point now);

// All files: how many are done and how many failed, bytes, speed and, once no file waits, time
// left.
std::string TotalLine(const std::vector<const FileView*>& running, const Totals& totals,
                      int columns);

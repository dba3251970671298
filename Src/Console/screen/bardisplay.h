// Bars, for a terminal: a line per running file and one for all at the bottom, redrawn in place.
// The lines of files that have ended stay above them and scroll up.
#pragma once

#include <string>
#include <vector>

#include "Console/screen/display.h"

class BarDisplay : public Display {
  public:
    // `reports`: also shows everything that the workers report.
    BarDisplay(int descriptor, bool colour, bool reports);

    void Started(const FileView& file) override;
    void State(const FileView& file, std::int32_t code, double value) override;
    void Begun(const FileView& file) override;
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
    int columns_ = 80;  // of the screen that are used
    int rows_ = 24;
    std::vector<std::string> kept_;   // lines that stay, not yet written
    std::vector<std::string> frame_;  // transient lines, which the next draw replaces
    int drawn_ = 0;                   // lines of the frame on the screen
    Clock::time_point last_draw_{};
};

// ---- Its lines; at most `columns` columns wide, 2 or more.

// A running file: name, bar, percent, size, speed, time left; what does not fit is left out from
// the right. From the second try on its number stands behind the name. Before the first byte: the
// name, and for how long the server has not answered. Of unknown size: name and speed.
std::string FileLine(const FileView& file, int columns, Clock::time_point now);

// All files: how many are done and how many failed, bytes, speed and, when no file waits to be
// begun, the time left.
std::string TotalLine(const std::vector<const FileView*>& running, const Totals& totals,
                      int columns, Clock::time_point now);

// Plain lines, for logs and whatever is no terminal.
#pragma once

#include <map>

#include "Console/screen/display.h"

// What is shown; each includes the ones before.
enum class Detail {
    kFailures,  // files that did not finish
    kEnds,      // all files, and how many there were
    kProgress,  // a file's start, and 25, 50 and 75 percent of it
    kReports,   // everything a worker reports
};

class PlainDisplay : public Display {
  public:
    explicit PlainDisplay(int descriptor, Detail detail = Detail::kProgress, bool colour = false)
        : descriptor_(descriptor), detail_(detail), colour_(colour) {}

    void Started(const FileView& file) override;
    void State(const FileView& file, std::int32_t code, double value) override;
    void Begun(const FileView& file) override;
    void Ended(const FileView& file, const Outcome& outcome) override;
    void Resting(const std::string& host, double seconds) override;
    void Note(const std::string& line) override;
    void Finish(const Totals& totals, int status) override;

  private:
    const int descriptor_;
    const Detail detail_;
    const bool colour_;
    // What was shown of a file.
    struct Shown {
        std::string name{};  // with which its last task started; one that had to wait keeps it
        int quarters = 0;    // 0 to 3
        int speeds = 0;      // that were reported without a known size
    };
    void ShowSpeed(const FileView& file);

    std::map<const FileView*, Shown> shown_;
};

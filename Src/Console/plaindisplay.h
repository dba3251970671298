// Plain lines, for logs: at a file's start, at 25, 50 and 75 percent, and at its end.
#pragma once

#include <map>

#include "Console/display.h"

class PlainDisplay : public Display {
  public:
    explicit PlainDisplay(int descriptor) : descriptor_(descriptor) {}

    void Begin(const FileView& file) override;
    void State(const FileView& file, std::int32_t code, double value) override;
    void End(const FileView& file, const Outcome& outcome) override;
    void Note(const std::string& line) override;
    void Refresh(const std::vector<const FileView*>&, const Totals&) override {}
    void ScreenChanged(bool) override {}
    void Close(const Totals& totals, int status) override;

  private:
    const int descriptor_;
    std::map<const FileView*, int> marks_;  // quarters that were told
};

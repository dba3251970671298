// Events for programs: one JSON object a line, in ASCII. docs/json.md lists their fields.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <nlohmann/json_fwd.hpp>

#include "Console/screen/display.h"

class JsonDisplay : public Display {
  public:
    // `print` gets each line at once, with its newline.
    explicit JsonDisplay(std::function<void(const std::string& line)> print)
        : print_(std::move(print)) {}

    void Started(const FileView& file) override;
    void State(const FileView& file, std::int32_t code, double value) override;
    void Ended(const FileView& file, const Outcome& outcome) override;
    void Resting(const std::string& host, double seconds) override;
    // A line for people, on standard error.
    void Note(const std::string& line) override;
    void Warn(const std::string& warning) override;
    void Finish(const Totals& totals, int status) override;

  private:
    nlohmann::ordered_json NewEvent(const char* name);
    nlohmann::ordered_json NewEvent(const char* name, const FileView& file);
    void Tell(const nlohmann::ordered_json& event);

    const std::function<void(const std::string& line)> print_;
    bool begun_ = false;
    std::map<const FileView*, std::size_t> numbers_{};  // of the files that have not ended
    std::size_t files_ = 0;                             // last number given
};

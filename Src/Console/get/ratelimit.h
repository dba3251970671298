// The limit on the rate of a command: gives each running file its share of it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Console/get/fetch.h"
#include "Console/get/rateshares.h"

// Works on the main thread, while the manager runs. Pages count for nothing.
class RateLimit {
  public:
    using Files = std::map<std::string, std::unique_ptr<Fetch>>;  // by their ids

    // Bytes per second; 0: no limit, and nothing here does anything.
    explicit RateLimit(std::uint64_t rate);

    // How many files may run at the same time.
    std::size_t MostFiles() const;

    // To be called several times a second: shares the rate out anew each second, and when a file
    // has begun or ended.
    void Update(const Files& running);

    // Makes room for one more, which is about to begin. Returns its share in KiB per second; 0: no
    // limit.
    std::int32_t MakeRoomFor(const Fetch& file, const Files& running);

  private:
    void ShareOut(std::map<std::string, double> speeds);

    std::optional<RateShares> shares_;
    std::map<std::string, double> last_{};  // the files of the last time
    Clock::time_point next_{};
};

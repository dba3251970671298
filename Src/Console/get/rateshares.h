// How the rate of a whole command is shared out among its files.
//
// All files get the same, but for those that do not use as much: these get a little more than they
// use, and leave the rest to the others. A share is a whole number of KiB per second, at least 1,
// and the shares of a second are never more than the rate: what a division leaves over goes round
// among the files, and what is less than a KiB is kept for the next second.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

class RateShares {
  public:
    static constexpr std::uint64_t kKiB = 1024;

    // `rate` is at least a KiB: bytes per second.
    explicit RateShares(std::uint64_t rate) : rate_(rate) { NextSecond(); }

    // How many files may share it.
    std::size_t MostFiles() const { return rate_ / kKiB; }

    // To be called each second, before ShareOut.
    void NextSecond();

    // Shares the rate out among the files that run, by name: with the bytes per second that each
    // was last seen to bring; below 0: unknown, which counts for nothing after some seconds.
    void ShareOut(const std::map<std::string, double>& speeds);

    // The share of a file of the last ShareOut.
    std::int32_t Of(const std::string& name) const { return files_.at(name).share; }

  private:
    struct File {
        std::int32_t share = 0;
        int seconds = 0;  // since its beginning
        // The smallest shares of this second and of those before: a speed is told up to two
        // seconds after it was measured.
        std::array<std::int32_t, 3> least{};
        // Its speeds of this second and of those before, in KiB per second: many servers send in
        // bursts.
        std::array<double, 3> speeds{};
    };

    std::int32_t WantOf(File& file, double speed, std::size_t count) const;

    const std::uint64_t rate_;
    std::uint64_t kept_ = 0;    // bytes of earlier seconds
    std::int32_t budget_ = 0;   // KiB of this second
    std::size_t rotation_ = 0;  // how often what is left over has gone round
    std::map<std::string, File> files_{};
};

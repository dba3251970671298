#include "Tarnwick/engine/bucket.h"

#include <algorithm>

namespace engine {
namespace {

using Seconds = std::chrono::duration<double>;

// What was not used in this time is lost. It makes up for a process that is held up on a busy
// machine, and is the most that comes at once after a silence of the server.
constexpr double kKept = 0.25;

}  // namespace

// It may hold what one piece needs, however small the rate.
double Bucket::LevelAt(Time now, std::uint64_t bytes) const {
    const double most = std::max(rate_ * kKept, static_cast<double>(bytes));
    const double grown = level_ + rate_ * Seconds(now - filled_).count();
    return std::max(level_, std::min(grown, most));
}

void Bucket::SetRate(std::uint64_t rate, Time now) {
    if (rate_ == static_cast<double>(rate)) return;
    level_ = rate_ == 0.0 ? 0.0 : LevelAt(now, row_.empty() ? 0 : row_.front().bytes);
    filled_ = now;
    rate_ = static_cast<double>(rate);
}

bool Bucket::Take(int owner, std::uint64_t bytes, Time now) {
    if (rate_ == 0.0) return true;
    if (row_.empty() || owner == turn_) {
        const double level = LevelAt(now, bytes);
        if (level >= static_cast<double>(bytes)) {
            level_ = level - static_cast<double>(bytes);
            filled_ = now;
            return true;
        }
    }
    row_.push_back({owner, bytes});
    refused_ = true;
    last_ = now;
    return false;
}

int Bucket::Next(Time now) {
    turn_ = -1;
    if (row_.empty() || Until(now).count() > 0) return turn_;
    turn_ = row_.front().owner;
    row_.pop_front();
    return turn_;
}

std::chrono::steady_clock::duration Bucket::Until(Time now) const {
    using Duration = std::chrono::steady_clock::duration;
    if (row_.empty()) return Duration::max();
    const auto bytes = static_cast<double>(row_.front().bytes);
    const double missing = bytes - LevelAt(now, row_.front().bytes);
    if (rate_ == 0.0 || missing <= 0.0) return Duration::zero();
    return std::chrono::ceil<Duration>(Seconds(missing / rate_));
}

void Bucket::Leave(int owner) {
    std::erase_if(row_, [owner](const Waiting& each) { return each.owner == owner; });
}

}  // namespace engine

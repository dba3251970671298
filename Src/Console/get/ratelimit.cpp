#include "Console/get/ratelimit.h"

#include <algorithm>
#include <limits>

#include "TaskMan/manager.h"

namespace {

constexpr std::chrono::seconds kEvery{1};
// Stands for a file that has no id yet.
constexpr const char* kNewcomer = "";

std::map<std::string, double> SpeedsOf(const RateLimit::Files& running) {
    std::map<std::string, double> speeds;
    for (const auto& [id, file] : running) {
        const bool downloads = file->Now() == Fetch::Phase::kTask && !file->IsPage();
        if (downloads) speeds.emplace(id, file->View().speed.Latest());
    }
    return speeds;
}

}  // namespace

RateLimit::RateLimit(std::uint64_t rate) {
    if (rate > 0) shares_.emplace(rate);
}

std::size_t RateLimit::MostFiles() const {
    return shares_ ? shares_->MostFiles() : std::numeric_limits<std::size_t>::max();
}

void RateLimit::Update(const Files& running) {
    if (!shares_) return;
    std::map<std::string, double> speeds = SpeedsOf(running);
    const auto same = [](const auto& one, const auto& other) { return one.first == other.first; };
    const bool due = Clock::now() >= next_;
    if (!due && std::equal(speeds.begin(), speeds.end(), last_.begin(), last_.end(), same)) return;
    if (due) {
        shares_->NextSecond();
        next_ = Clock::now() + kEvery;
    }
    ShareOut(std::move(speeds));
}

std::int32_t RateLimit::MakeRoomFor(const Fetch& file, const Files& running) {
    if (!shares_ || file.IsPage()) return 0;
    std::map<std::string, double> speeds = SpeedsOf(running);
    speeds.emplace(kNewcomer, -1.0);
    ShareOut(std::move(speeds));
    return shares_->Of(kNewcomer);
}

void RateLimit::ShareOut(std::map<std::string, double> speeds) {
    shares_->ShareOut(speeds);
    for (const auto& [id, speed] : speeds) {
        // One that has just ended needs no limit.
        if (id != kNewcomer) static_cast<void>(SetTaskRate(id.c_str(), shares_->Of(id)));
    }
    last_ = std::move(speeds);
}

#include "Console/get/rateshares.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace {

// A file uses its share when it brings this part of it.
constexpr double kUsed = 0.95;
// What it may bring then, and otherwise: so many times its speed, and this part of an equal share,
// so that it can show that it has become faster.
constexpr double kMore = 2.0;
constexpr double kRoom = 1.125;
constexpr std::size_t kPartToBegin = 32;
// The time in which a file may begin.
constexpr int kSecondsToBegin = 3;

}  // namespace

void RateShares::NextSecond() {
    kept_ += rate_;
    budget_ = static_cast<std::int32_t>(kept_ / kKiB);
    kept_ %= kKiB;
    ++rotation_;
    for (auto& [name, file] : files_) {
        std::shift_right(file.least.begin(), file.least.end(), 1);
        file.least.front() = file.share;
        std::shift_right(file.speeds.begin(), file.speeds.end(), 1);
        ++file.seconds;
    }
}

// The largest share that is of use to the file.
std::int32_t RateShares::WantOf(File& file, double speed, std::size_t count) const {
    if (speed < 0.0 && file.seconds < kSecondsToBegin) return budget_;
    const double used = std::max(speed, 0.0) / static_cast<double>(kKiB);
    file.speeds.front() = used;
    const bool all = used >= kUsed * *std::min_element(file.least.begin(), file.least.end());
    const double best = *std::max_element(file.speeds.begin(), file.speeds.end());
    const double want = best * (all ? kMore : kRoom) +
                        static_cast<double>(budget_) / static_cast<double>(kPartToBegin * count);
    return static_cast<std::int32_t>(std::min<double>(want, budget_)) + 1;
}

void RateShares::ShareOut(const std::map<std::string, double>& speeds) {
    std::erase_if(files_, [&](const auto& each) { return !speeds.contains(each.first); });
    std::vector<std::pair<std::int32_t, File*>> wants;
    for (const auto& [name, speed] : speeds) {
        File& file = files_[name];
        wants.emplace_back(WantOf(file, speed, speeds.size()), &file);
    }
    if (wants.empty()) return;
    // The modest first, so that the others know what is left for them; of these, which all want
    // more than an equal share, the last ones get what a division leaves over.
    const std::int32_t enough = budget_ / static_cast<std::int32_t>(wants.size()) + 1;
    std::rotate(wants.begin(), wants.begin() + rotation_ % wants.size(), wants.end());
    std::stable_sort(wants.begin(), wants.end(), [enough](const auto& one, const auto& other) {
        return std::min(one.first, enough) < std::min(other.first, enough);
    });
    for (const auto& [want, file] : wants) file->share = 0;
    std::int32_t left = budget_;
    // What nobody wants is shared out as well: it may turn out to be of use.
    for (const bool unwanted : {false, true}) {
        auto count = static_cast<std::int32_t>(wants.size());
        for (const auto& [want, file] : wants) {
            const std::int32_t part = std::min(unwanted ? left : want, left / count--);
            file->share += part;
            left -= part;
        }
    }
    for (auto& [name, file] : files_) {
        file.share = std::max(file.share, 1);
        if (file.least.back() == 0) file.least.fill(file.share);  // it begins
        file.least.front() = std::min(file.least.front(), file.share);
    }
}

#include "Console/get/hosts.h"

#include <algorithm>

#include "TaskMan/timing.h"
#include "common/address.h"

namespace {

using Seconds = std::chrono::duration<double>;

// A host that has rested and is not asked again is forgotten.
constexpr std::chrono::minutes kRemembered{10};

}  // namespace

bool Hosts::MayBeAsked(const std::string& host, std::size_t underWay) const {
    if (host.empty()) return true;
    if (most_ > 0 && underWay >= static_cast<std::size_t>(most_)) return false;
    const auto found = rests_.find(host);
    return found == rests_.end() || Clock::now() >= found->second.until;
}

double Hosts::Rest(const std::string& host, int seconds) {
    const Clock::time_point now = Clock::now();
    std::erase_if(rests_,
                  [now](const auto& each) { return each.second.until + kRemembered < now; });
    Resting& resting = rests_[host];
    // What several files are told at about the same time counts once.
    const bool again = now >= resting.until;
    if (!again && seconds == 0) return 0;
    if (again) ++resting.times;
    const double pause =
        seconds > 0 ? seconds : std::min<double>(timing::PauseAfter(resting.times), longest_);
    const Clock::time_point until =
        now + std::chrono::duration_cast<Clock::duration>(Seconds(pause));
    constexpr std::chrono::seconds kSame{1};
    resting.wished = seconds > 0 || (!again && resting.wished);
    const bool longer = again || until > resting.until + kSame;
    resting.until = std::max(resting.until, until);
    return longer ? pause : 0;
}

void Hosts::NoteServed(const std::string& host) {
    const auto found = rests_.find(host);
    if (found != rests_.end() && !found->second.wished) rests_.erase(found);
}

bool Hosts::IsUnreached(const std::string& host) const {
    const auto found = reached_.find(host);
    return found != reached_.end() && !found->second;
}

std::string HostOf(std::string_view address) {
    const Authority authority = AuthorityOf(address);
    const bool secure = address.size() > 4 && (address[4] == 's' || address[4] == 'S');
    const bool usual = authority.port.empty() || authority.port == (secure ? "443" : "80");
    return usual ? authority.host : authority.host + ":" + authority.port;
}

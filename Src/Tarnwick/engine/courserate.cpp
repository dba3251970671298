#include <algorithm>

#include "Tarnwick/engine/course.h"

namespace engine {
namespace {

using namespace std::chrono_literals;

constexpr long kReceive = 512L * 1024;
constexpr long kReceiveOfSeveral = 128L * 1024;
// Under a limit a read brings at most what may come in this part of a second: what is read at once
// has to wait at once.
constexpr std::uint64_t kPartOfSecond = 16;
constexpr std::uint64_t kLeastReceive = 1024;  // libcurl takes no less
// What waits is looked at no more often: each look costs processor time, and whatever has gathered
// meanwhile may come.
constexpr auto kLeastPause = 20ms;

}  // namespace

// Sets the limit as the watcher wants it, and lets those connections go on for which there is
// enough by now. True when a request has ended by it.
bool Course::GoOn() {
    const Clock::time_point now = Clock::now();
    bucket_.SetRate(watcher_.MostPerSecond(), now);
    bool any = false;
    for (int id = bucket_.Next(now); id != -1 && !over_; id = bucket_.Next(now)) {
        Connection& connection = *connections_[static_cast<std::size_t>(id)];
        const CURLcode code = connection.Resume();
        if (code == CURLE_OK) continue;
        OnEnd(connection, code);
        any = true;
    }
    return any;
}

Clock::duration Course::UntilGoOn(Clock::time_point now) const {
    return std::max<Clock::duration>(bucket_.Until(now), kLeastPause);
}

// Of a request that begins.
long Course::ReceiveSize() {
    const long most = task_.connections > 1 ? kReceiveOfSeveral : kReceive;
    const std::uint64_t limit = watcher_.MostPerSecond();
    if (limit == 0) return most;
    const std::uint64_t part = std::max(limit / kPartOfSecond, kLeastReceive);
    return static_cast<long>(std::min(part, static_cast<std::uint64_t>(most)));
}

}  // namespace engine

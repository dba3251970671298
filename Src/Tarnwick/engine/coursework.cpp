#include <algorithm>

#include "Tarnwick/engine/course.h"
#include "Tarnwick/engine/curl.h"
#include "common/address.h"

namespace engine {
namespace {

using namespace std::chrono_literals;

constexpr std::uint64_t kFirstRange = 1024 * 1024;  // of several connections: ends by itself
// A connection that was just asked has the rate of the others until it has been silent for longer.
constexpr auto kTrust = 2s;
constexpr auto kStealEvery = 50ms;
constexpr auto kStealAfterLimit = 500ms;  // has held back for the last time
// Less than this factor a further connection has to bring, or it was the last; and the shortest
// time that says something about it.
constexpr double kLeastGain = 1.05;
constexpr double kGainSeconds = 0.3;

}  // namespace

void Course::GiveWork() {
    if (Clock::now() < rest_until_) return;
    if (round_judged_) {
        GiveFurtherWork();
    } else if (BusyCount() == 0) {
        BeginRound();
    }
}

void Course::BeginRound() {
    Connection* connection = connections_.empty() ? NewConnection() : connections_.front().get();
    if (connection == nullptr) return GiveUp(TaskReason::kLocal, NO_MEMORY);
    const bool several = ceiling_ > 1 && ranges_;
    connection->rest_until = {};
    bool asked = false;
    if (known_.any && CanContinue()) {
        const auto range = blocks_.Take(connection->Id(), several ? kFirstRange : kUnknown);
        asked = range && AskFor(*connection, *range);
    } else {
        known_ = {};
        Request request{use_final_ ? final_url_ : task_.url};
        // What is there counts for nothing, but stays until the answer has come.
        if (several) request.asked.range = Range{0, kFirstRange};
        if (!begun_) AddConditions(request);
        asked = Ask(*connection, std::move(request));
    }
    if (!asked) GiveUp(TaskReason::kLocal, NO_MEMORY);
}

void Course::GiveFurtherWork() {
    const Clock::time_point now = Clock::now();
    bool waiting = false;  // for an answer
    for (const auto& connection : connections_) {
        waiting = waiting || (connection->Busy() && !connection->IsJudged());
        if (connection->Busy() || now < connection->rest_until || BusyCount() >= ceiling_) continue;
        const auto range = MoreFor(connection->Id(), kLeastSteal);
        if (range && !AskFor(*connection, *range)) return GiveUp(TaskReason::kLocal, NO_MEMORY);
    }
    // Should all that are left have been refused, one of them begins again.
    round_judged_ = BusyCount() > 0 || over_ ||
                    std::any_of(connections_.begin(), connections_.end(), [](const auto& each) {
                        return each->rest_until != Clock::time_point::max();
                    });
    // Also with one that is resting: its place is taken by no other.
    if (waiting || over_ || static_cast<int>(connections_.size()) >= ceiling_) return;
    const int id = static_cast<int>(connections_.size());
    const auto range = MoreFor(id, kLeastBlock);
    if (!range) return;
    Connection* connection = NewConnection();
    if (connection == nullptr || !AskFor(*connection, *range)) ceiling_ = std::max(BusyCount(), 1);
}

// A free block, or, where several connections may be at work, a part of another one's.
std::optional<Range> Course::MoreFor(int id, std::uint64_t least) {
    if (id > 0 && !CanContinue()) return std::nullopt;
    const std::uint64_t smallest = least == kLeastBlock ? kLeastBlock : 1;
    if (auto range = blocks_.Take(id, kUnknown, smallest)) return range;
    const Clock::time_point now = Clock::now();
    if (BusyCount() == 0 || !CanContinue() || now < next_steal_) return std::nullopt;
    // The others bring as much as may come; and a part that is taken away costs what its owner has
    // on the way.
    if (bucket_.HeldBack(now - kStealAfterLimit)) return std::nullopt;
    std::vector<double> rates(std::max<std::size_t>(connections_.size(), id + 1), 0.0);
    double sum = 0.0;
    for (const auto& connection : connections_) {
        rates[connection->Id()] = connection->BytesPerSecond(now);
        if (connection->Busy()) sum += rates[connection->Id()];
    }
    const double mean = sum / BusyCount();
    for (const auto& connection : connections_) {
        const bool young = connection->Got() == 0 && now - connection->AskedAt() < kTrust;
        double& rate = rates[connection->Id()];
        if (rate == 0.0 && (young || !connection->Busy())) rate = mean;
    }
    if (id == static_cast<int>(connections_.size())) rates[id] = mean;
    const auto stolen = blocks_.Steal(id, rates, least);
    if (!stolen) next_steal_ = now + kStealEvery;
    return stolen;
}

// The one that is being judged counts as well.
void Course::NoteConnections() {
    const auto serving = [](const auto& each) {
        return each->Busy() && !each->Dropped() && each->IsJudged();
    };
    const auto now = std::count_if(connections_.begin(), connections_.end(), serving) + 1;
    result_.answer.nConnections =
        std::max(result_.answer.nConnections, static_cast<std::int32_t>(now));
}

// Whether the connection that was added last but one has brought anything; if not, there will be no
// more. Where answers come at once there is no time to tell.
void Course::NoteGain() {
    const Clock::time_point now = Clock::now();
    const double seconds = std::chrono::duration<double>(now - gain_since_).count();
    if (seconds < kGainSeconds) return;
    // Under the limit there is nothing to be seen of a gain.
    const bool held = bucket_.HeldBack(gain_since_);
    const double rate = held ? 0.0 : static_cast<double>(Received() - gain_from_) / seconds;
    if (!held && gain_rate_ > 0.0 && rate < gain_rate_ * kLeastGain) ceiling_ = BusyCount();
    gain_rate_ = rate;
    gain_since_ = now;
    gain_from_ = Received();
}

void Course::AddConditions(Request& request) const {
    const auto add = [&request](const char* name, const std::string& value) {
        if (!value.empty()) request.headers.push_back(name + value);
    };
    add("If-None-Match: ", task_.ifNoneMatch);
    add("If-Modified-Since: ", task_.ifModifiedSince);
    request.asked.conditional = !request.headers.empty();
}

// libcurl guards a login against the redirects that it follows; where the course asks at their end
// by itself, the guard is here.
bool Course::Ask(Connection& connection, Request request) {
    request.foreign = !SameOrigin(request.url, task_.url);
    curl_easy_setopt(connection.Handle(), CURLOPT_BUFFERSIZE, ReceiveSize());
    if (!connection.Ask(std::move(request))) return false;
    ++result_.answer.nRequests;
    return true;
}

bool Course::AskFor(Connection& connection, const Range& range) {
    Request request{use_final_ || round_judged_ ? final_url_ : task_.url};
    if (request.url.empty()) request.url = task_.url;
    request.asked = {range, BusyCount() > 0};
    if (!known_.validator.empty()) request.headers = {"If-Range: " + known_.validator};
    if (Ask(connection, std::move(request))) return true;
    blocks_.Release(connection.Id());
    return false;
}

Connection* Course::NewConnection() {
    const int id = static_cast<int>(connections_.size());
    connections_.push_back(std::make_unique<Connection>(id, shared_));
    return connections_.back()->Handle() == nullptr ? nullptr : connections_.back().get();
}

}  // namespace engine

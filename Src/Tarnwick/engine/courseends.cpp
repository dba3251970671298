#include <algorithm>
#include <utility>

#include "Tarnwick/engine/course.h"
#include "Tarnwick/engine/curl.h"
#include "TaskMan/timing.h"

namespace engine {
namespace {

using namespace std::chrono_literals;

constexpr Clock::duration kRest = 300ms;   // of one connection, while others go on
constexpr Clock::duration kLongRest = 5s;  // the same when nothing has come on it
// A file that changes more often is not followed.
constexpr int kMostChanges = 1;
constexpr const char* kServesOnce = " (an address that serves one request needs one connection)";

}  // namespace

// Called within curl_multi_perform: no request can begin or end here.
Judgement Course::OnAnswer(Connection& connection) {
    if (over_) return {};
    judged_ = true;
    const Answer& answer = connection.Last();
    Judgement judged = JudgeAnswer(answer, connection.Current().asked, known_);
    switch (judged.verdict) {
        case Verdict::kChanged:
            if (++started_over_ > kMostChanges) {
                judged.verdict = Verdict::kFinal;
                return judged;
            }
            best_ = 0;
            result_.answer.strMessage = judged.message;
            [[fallthrough]];
        case Verdict::kNoRanges:
        case Verdict::kWhole:
            if (connection.Current().asked.range) {
                ceiling_ = 1;
                if (judged.verdict != Verdict::kChanged) ranges_ = false;
            }
            NoteAnswer(connection);
            return BeginAnew(connection, answer, answer.length);
        case Verdict::kPart:
            return TakePart(connection, judged);
        default:
            return judged;
    }
}

// The body is the file from byte 0 on, whatever was there before; the other connections end.
Judgement Course::BeginAnew(Connection& connection, const Answer& answer, std::uint64_t size) {
    for (const auto& other : connections_) {
        if (other.get() != &connection && other->Busy()) other->Drop();
    }
    const bool partly = connection.Current().asked.range && answer.status == 206;
    known_ = {true, size, IsEncoded(answer) ? "" : ValidatorOf(answer)};
    result_.answer.uHad = 0;
    MaybeFault fault = file_.Restart();
    blocks_ = Blocks(size);
    blocks_.Take(connection.Id(), partly ? connection.Current().asked.range->end : kUnknown);
    if (partly) blocks_.Share(static_cast<std::uint64_t>(ceiling_));
    if (!fault) fault = Describe();
    if (fault) {
        GiveUp(*fault);
        return {};
    }
    round_judged_ = begun_ = told_ = true;
    NoteConnections();
    watcher_.Known(size, result_.answer);
    return {answer.status == 206 ? Verdict::kPart : Verdict::kWhole};
}

// The part is what was asked for.
Judgement Course::TakePart(Connection& connection, const Judgement& judged) {
    const Answer& answer = connection.Last();
    if (!known_.any) {
        const std::uint64_t size = ParseContentRange(answer.contentRange)->size;
        known_ = {false, size, ValidatorOf(answer)};
        // Parts of a file are only put together when something proves that they are of the same
        // one.
        if (!CanContinue() && size > connection.Current().asked.range->end) {
            return {Verdict::kUnfit, TaskReason::kProtocol, "nothing tells one file from another"};
        }
        NoteAnswer(connection);
        return BeginAnew(connection, answer, size);
    }
    if (!round_judged_) {
        NoteAnswer(connection);
        blocks_.Share(static_cast<std::uint64_t>(ceiling_));
        if (MaybeFault fault = Describe()) {
            GiveUp(*fault);
            return {};
        }
        if (!std::exchange(told_, true)) watcher_.Known(known_.size, result_.answer);
    }
    round_judged_ = true;
    if (connection.Current().asked.additional) NoteGain();
    NoteConnections();
    return judged;
}

MaybeFault Course::Describe() {
    if (known_.size == kUnknown || known_.size == 0) return std::nullopt;
    PartRecord about;
    if (file_.Found() != nullptr) about = *file_.Found();
    about.size = known_.size;
    // Where the server knows no ranges nothing can be continued: no record.
    about.validator = ranges_ ? known_.validator : "";
    about.sha256 = ranges_ ? task_.sha256 : "";
    about.address = final_url_;
    return file_.Describe(about, known_.size - blocks_.Done());
}

void Course::NoteAnswer(const Connection& connection) {
    const Answer& answer = connection.Last();
    final_url_ = connection.FinalUrl();
    tagTaskAnswer& told = result_.answer;
    told.bReached = true;
    told.nStatus = answer.status;
    told.strFinalUrl = final_url_;
    told.strETag = answer.etag;
    told.strLastModified = answer.lastModified;
    const std::optional<bool> parts = ServesParts(answer);
    ranges_ = ranges_ && parts.value_or(true);
    told.bParts = ranges_ && parts.value_or(false);
    told.strFileName = DispositionName(answer.contentDisposition);
    gain_since_ = Clock::now();
    gain_from_ = Received();
    gain_rate_ = 0.0;
}

void Course::OnEnd(Connection& connection, CURLcode code) {
    long redirects = 0;
    curl_easy_getinfo(connection.Handle(), CURLINFO_REDIRECT_COUNT, &redirects);
    result_.answer.nRequests += static_cast<std::int32_t>(redirects);
    if (connection.Dropped()) return connection.End();
    if (connection.WriteFault()) return GiveUp(*connection.WriteFault());
    if (connection.Threw()) return GiveUp(TaskReason::kLocal, NO_MEMORY);
    const Answer& answer = connection.Last();
    // For libcurl it is no failure when the connection ends within the headers.
    const bool answered = connection.IsJudged() || (code == CURLE_OK && answer.complete);
    if (answered) {
        const Judgement& judged = connection.JudgeLate();
        if (over_) return;
        if (IsGood(judged.verdict)) return OnGood(connection, code);
        if (answer.status != 0) result_.answer.nStatus = answer.status;
        return OnFailure(connection, judged);
    }
    long connect = 0;
    curl_easy_getinfo(connection.Handle(), CURLINFO_HTTP_CONNECTCODE, &connect);
    OnFailure(connection, JudgeError(code, connection.Message(), answer, task_.proxied, connect));
}

// The body was of use, as far as it came.
void Course::OnGood(Connection& connection, CURLcode code) {
    const int id = connection.Id();
    if (MaybeFault fault = connection.Flush()) return GiveUp(*fault);
    const bool unknown = known_.size == kUnknown;
    if (code == CURLE_OK && unknown) {
        blocks_.End();
        known_.size = blocks_.Size();
    }
    if (blocks_.Left(id).Size() > 0) {
        return OnFailure(connection, JudgeError(code, connection.Message(), {}, false));
    }
    connection.End();
    blocks_.Release(id);
    if (!blocks_.Complete()) return;
    FlushAll();
    if (over_) return;
    Report();
    if (MaybeFault fault = file_.Finish(blocks_.Have(), blocks_.Size(), RemoteTime()))
        return GiveUp(*fault);
    result_.end = End::kFinished;
    // Not that of a further connection which was refused.
    result_.answer.nStatus = connection.Last().status;
    result_.answer.Reason = TaskReason::kNone;
    over_ = true;
}

// The time for the file; -1: none. An answer to If-Range may lack the date that it was asked with.
std::time_t Course::RemoteTime() const {
    if (!task_.remoteTime) return -1;
    const std::string& told = result_.answer.strLastModified;
    const std::string& date = told.empty() ? known_.validator : told;
    return date.starts_with('"') ? -1 : curl_getdate(date.c_str(), nullptr);
}

// Whether the first of several requests was served, and now none is.
bool Course::MayServeOnce(const Judgement& judged) const {
    return judged.reason == TaskReason::kHttpStatus && task_.connections > 1 &&
           result_.answer.nConnections > 0;
}

void Course::OnFailure(Connection& connection, const Judgement& judged) {
    if (MaybeFault fault = connection.Flush()) return GiveUp(*fault);
    const std::uint64_t got = connection.Got();
    const bool atFinal = connection.Current().url != task_.url;
    if (connection.HadPeer()) result_.answer.bReached = true;
    connection.End();
    blocks_.Release(connection.Id());
    const bool others = BusyCount() > 0;
    switch (judged.verdict) {
        case Verdict::kStale:
            if (++started_over_ > kMostChanges) return GiveUp(judged);
            best_ = 0;
            result_.answer.strMessage = judged.message;
            return StartOver();
        case Verdict::kUnfit:
            ranges_ = false;
            result_.answer.strMessage = judged.message;
            return StartOver();
        case Verdict::kAgain:
            if (!others && !IsWaitedFor(connection.Last(), judged)) {
                ++result_.answer.nTries;
                return GiveUp(judged);
            }
            if (!others) return FailRound(judged, got > 0);
            if (IsStuck()) return GiveUp(judged);
            connection.rest_until = Clock::now() + (got > 0 ? kRest : kLongRest);
            return;
        case Verdict::kRefused:
            if (others) return Retire(connection);
            // It has become the only one: asked so, it is judged in full.
            connection.rest_until = Clock::now() + kRest;
            return;
        default:
            if (others) return Retire(connection);
            // An address that a redirect has led to may have expired; and what others have just
            // left may count at the server still.
            if (judged.reason == TaskReason::kHttpStatus &&
                (atFinal || (result_.answer.nConnections > 1 && !std::exchange(forgiven_, true)))) {
                return FailRound(judged, false);
            }
            GiveUp(judged, MayServeOnce(judged) ? kServesOnce : "");
    }
}

// Whether a failure that may pass is waited for here, rather than by whoever wants the file.
bool Course::IsWaitedFor(const Answer& answer, const Judgement& judged) const {
    const bool busy =
        judged.reason == TaskReason::kHttpStatus && (answer.status == 429 || answer.status == 503);
    return judged.pause <= task_.retryAfter && !(busy && task_.endsWhenBusy);
}

// Connections of which always one is under way while another one fails would keep a round alive for
// ever.
bool Course::IsStuck() {
    if (const std::uint64_t there = blocks_.Done(); there != stuck_at_) {
        stuck_at_ = there;
        stuck_ = 0;
    }
    return ++stuck_ > task_.tries * task_.connections;
}

// The last connection has failed.
void Course::FailRound(const Judgement& judged, bool gotBytes) {
    ++result_.answer.nTries;
    const std::uint64_t there = blocks_.Done();
    if (there > best_) {
        best_ = there;
        failures_ = 0;
    } else if (++failures_ >= task_.tries) {
        return GiveUp(judged);
    }
    round_judged_ = false;
    use_final_ = gotBytes && !final_url_.empty();
    rest_until_ = Clock::now() + Pause(judged);
}

Clock::duration Course::Pause(const Judgement& judged) {
    // The random part is for many clients of a server that was away: they must not come back at
    // once.
    double seconds =
        timing::PauseAfter(failures_) * std::uniform_real_distribution(0.75, 1.25)(random_);
    seconds = std::min(seconds, static_cast<double>(task_.waitSeconds));
    seconds = std::max(seconds, static_cast<double>(std::min(judged.pause, task_.retryAfter)));
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// What is there is of no use: the whole file is asked for, with one connection and without a range.
void Course::StartOver() {
    for (const auto& connection : connections_) {
        connection->End();
        blocks_.Release(connection->Id());
    }
    known_ = {};
    ceiling_ = 1;
    round_judged_ = use_final_ = false;
}

// The server bears fewer connections. The others see to what this one has left.
void Course::Retire(Connection& connection) {
    ceiling_ = std::max(BusyCount(), 1);
    connection.rest_until = Clock::time_point::max();
}

}  // namespace engine

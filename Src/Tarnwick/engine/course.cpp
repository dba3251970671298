#include "Tarnwick/engine/course.h"

#include <locale.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "Tarnwick/engine/curl.h"

namespace engine {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kGather = 256 * 1024;
constexpr std::size_t kGatherOfSeveral = 64 * 1024;
constexpr auto kTick = 1s;
constexpr auto kLongestPoll = 100ms;
constexpr long kConnectSeconds = 10;

// libcurl turns the characters of a host's name into those of the net by way of the thread's
// locale: in the locale "C" it refuses all beyond ASCII. To read another one is worth doing once.
class Utf8Names : private Uncopyable {
  public:
    Utf8Names() {
        static const locale_t locale =
            newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
        if (locale != nullptr) before_ = uselocale(locale);
    }
    ~Utf8Names() {
        if (before_ != nullptr) uselocale(before_);
    }

  private:
    locale_t before_{};
};

bool Passed(Clock::time_point since, int seconds, Clock::time_point now) {
    return seconds > 0 && now - since >= std::chrono::seconds(seconds);
}

}  // namespace

Result Fetch(const Task& task, PartFile& file, Watcher& watcher, Pool& pool) {
    const Utf8Names names;
    try {
        pool.EndUnsound();
        return Course(task, file, watcher, pool).Run();
    } catch (const std::bad_alloc&) {
        return Failed({TaskReason::kLocal, ENOMEM, NO_MEMORY});
    }
}

Result Fetch(const Task& task, Watcher& watcher) {
    PartFile file(task.path, task.keeps);
    const MaybeFault fault = file.Open([&watcher] { return !watcher.EndAsked(); });
    Pool pool;
    return fault ? Failed(*fault) : Fetch(task, file, watcher, pool);
}

Result Failed(const Fault& fault) {
    Result result;
    result.answer.Reason = fault.reason;
    result.answer.strMessage = fault.message;
    result.answer.nErrno = fault.number;
    return result;
}

Course::Course(const Task& task, PartFile& file, Watcher& watcher, Pool& pool)
    : task_(task),
      watcher_(watcher),
      file_(file),
      pool_(pool),
      multi_(pool.Multi()),
      shared_{multi_,
              task,
              blocks_,
              file_,
              bucket_,
              [this](CURL* curl) { Prepare(curl); },
              [this](Connection& connection) { return OnAnswer(connection); },
              task.connections > 1 ? kGatherOfSeveral : kGather},
      random_(static_cast<unsigned>(getpid()) ^
              static_cast<unsigned>(Clock::now().time_since_epoch().count())),
      ceiling_(std::clamp(task.connections, 1, 10)) {}

Result Course::Run() {
    Open();
    while (!over_) {
        if (watcher_.EndAsked()) {
            GiveUp(TaskReason::kStopped, "stopped");
            result_.end = End::kStopped;
            break;
        }
        GiveWork();
        int running = 0;
        curl_multi_perform(multi_, &running);
        bool ended = GoOn();
        ended = HandleEnds() || ended;
        LookAtClocks();
        if (!over_ && Clock::now() >= next_tick_) Tick();
        Report();
        // New work must not wait for what is under way.
        const bool judged = std::exchange(judged_, false);
        if (!over_ && !ended && !judged) Poll();
    }
    return Conclude();
}

void Course::Open() {
    next_tick_ = Clock::now() + kTick;
    if (multi_ == nullptr) return GiveUp(TaskReason::kLocal, NO_MEMORY);
    const PartRecord* found = file_.Found();
    if (found == nullptr) {
        result_.answer.strMessage = file_.Disregarded();
        return;
    }
    const bool sameDigest = found->sha256 == task_.sha256;
    if (found->validator.empty() ? !sameDigest || task_.sha256.empty()
                                 : !sameDigest && !found->sha256.empty() && !task_.sha256.empty()) {
        result_.answer.strMessage = "the partial file is of a file with another digest";
        return;
    }
    known_ = {true, found->size, found->validator};
    blocks_ = Blocks(found->size, found->have);
    begun_ = true;
    result_.answer.uHad = best_ = blocks_.Done();
    if (!blocks_.Complete()) return;
    // The last byte is fetched again: whether the file is still the same can only be asked with
    // one.
    blocks_ = Blocks(found->size, found->size > 1 ? std::vector<Range>{{0, found->size - 1}}
                                                  : std::vector<Range>{});
}

void Course::Prepare(CURL* curl) const {
    pool_.Watch(curl);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_QUICK_EXIT, 1L);
    curl_easy_setopt(curl, CURLOPT_PROXY, "");  // none of the environment's
    curl_easy_setopt(curl, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    FollowRedirects(curl);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
    curl_easy_setopt(curl, CURLOPT_USERAGENT, task_.userAgent.c_str());
    // With HTTP/2 all ranges would share one connection.
    if (task_.connections > 1)
        curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
    if (task_.prepare) task_.prepare(curl);
}

// True when a request has ended.
bool Course::HandleEnds() {
    bool any = false;
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        char* self = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &self);
        const CURLcode code = message->data.result;
        if (!over_) OnEnd(*reinterpret_cast<Connection*>(self), code);
        any = true;
    }
    for (const auto& connection : connections_) {
        if (!connection->Busy() || over_) continue;
        if (connection->Dropped()) {
            connection->End();
            any = true;
            continue;
        }
        if (!connection->IsJudged()) continue;
        // Whatever else comes is of no use: all bytes are there, or the rest belongs to somebody
        // else, or the verdict is against it.
        const bool good = IsGood(connection->JudgeLate().verdict);
        if (good && (known_.size == kUnknown || blocks_.Left(connection->Id()).Size() > 0))
            continue;
        OnEnd(*connection, CURLE_OK);
        any = true;
    }
    return any;
}

void Course::LookAtClocks() {
    const Clock::time_point now = Clock::now();
    for (const auto& connection : connections_) {
        if (over_ || !connection->Busy()) continue;
        Judgement judged{Verdict::kAgain};
        if (!connection->IsJudged() && Passed(connection->AskedAt(), task_.answerSeconds, now)) {
            judged.reason = TaskReason::kTimeout;
            judged.message = "no answer within " + std::to_string(task_.answerSeconds) + " s";
        } else if (connection->IsJudged() && !connection->Paused() &&
                   Passed(connection->ActiveAt(), task_.stallSeconds, now)) {
            judged.reason = TaskReason::kStalled;
            judged.message = "no byte for " + std::to_string(task_.stallSeconds) + " s";
        } else {
            continue;
        }
        OnFailure(*connection, judged);
    }
}

void Course::Tick() {
    next_tick_ = Clock::now() + kTick;
    FlushAll();
    if (over_) return;
    // While the first answer of a new beginning is waited for, the map is that of before.
    if (MaybeFault fault = file_.Tick(blocks_.Have())) GiveUp(*fault);
}

void Course::FlushAll() {
    for (const auto& connection : connections_) {
        if (MaybeFault fault = connection->Flush()) return GiveUp(*fault);
    }
}

void Course::Poll() {
    const Clock::time_point now = Clock::now();
    Clock::duration wait = std::min<Clock::duration>(kLongestPoll, next_tick_ - now);
    if (rest_until_ > now) wait = std::min(wait, rest_until_ - now);
    wait = std::min(wait, UntilGoOn(now));
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(wait).count();
    curl_multi_poll(multi_, nullptr, 0, static_cast<int>(std::max<long>(milliseconds, 1)), nullptr);
}

void Course::Report() {
    if (told_) watcher_.Progress(blocks_.Done(), known_.size, Received());
}

Result Course::Conclude() {
    if (result_.end != End::kFinished) {
        for (const auto& connection : connections_) {
            if (!connection->Dropped()) static_cast<void>(connection->Flush());
        }
        if (begun_) file_.Leave(blocks_.Have());
    }
    result_.answer.uReceived = Received();
    for (const auto& connection : connections_) connection->End();
    return result_;
}

int Course::BusyCount() const {
    return static_cast<int>(
        std::count_if(connections_.begin(), connections_.end(),
                      [](const auto& each) { return each->Busy() && !each->Dropped(); }));
}

bool Course::CanContinue() const {
    return ranges_ && known_.size != kUnknown &&
           (!known_.validator.empty() || !task_.sha256.empty());
}

void Course::GiveUp(const Fault& fault) {
    result_.answer.nErrno = fault.number;
    GiveUp(fault.reason, fault.message);
}

void Course::GiveUp(const Judgement& judged, const std::string& remark) {
    result_.answer.nRetryAfter = judged.pause;
    GiveUp(judged.reason, judged.message + remark);
}

void Course::GiveUp(TaskReason reason, const std::string& message) {
    over_ = true;
    result_.end = End::kFailed;
    result_.answer.Reason = reason;
    result_.answer.strMessage = message;
}

std::uint64_t Course::Received() const {
    std::uint64_t received = 0;
    for (const auto& connection : connections_) received += connection->Received();
    return received;
}

}  // namespace engine

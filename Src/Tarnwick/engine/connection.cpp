#include "Tarnwick/engine/connection.h"

#include <algorithm>
#include <cstring>

#include "Tarnwick/engine/curl.h"
#include "common/address.h"

namespace engine {
namespace {

using namespace std::chrono_literals;

constexpr auto kRateWindow = 500ms;

std::string RangeText(const Range& range) {
    return std::to_string(range.begin) + "-" +
           (range.end == kUnknown ? "" : std::to_string(range.end - 1));
}

// Seconds of a difference of times.
double Seconds(Clock::duration time) {
    return std::chrono::duration<double>(time).count();
}

}  // namespace

double Rate::Value(Clock::time_point now) {
    const Clock::duration passed = now - since_;
    const double current = static_cast<double>(bytes_) / std::max(Seconds(passed), 0.001);
    if (passed < kRateWindow) return mean_ == 0.0 ? current : mean_;
    mean_ = mean_ == 0.0 ? current : (mean_ + current) / 2;
    since_ = now;
    bytes_ = 0;
    return mean_;
}

Connection::Connection(int id, const Shared& shared)
    : id_(id), shared_(shared), curl_(curl_easy_init()) {
    if (curl_ == nullptr) return;
    curl_easy_setopt(curl_, CURLOPT_PRIVATE, this);
    curl_easy_setopt(curl_, CURLOPT_HEADERFUNCTION, OnHeader);
    curl_easy_setopt(curl_, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, OnBody);
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(curl_, CURLOPT_ERRORBUFFER, error_);
    shared_.prepare(curl_);
}

Connection::~Connection() {
    End();
    curl_easy_cleanup(curl_);
}

bool Connection::Ask(Request request) {
    if (curl_ == nullptr) return false;
    request_ = std::move(request);
    answer_ = {};
    judgement_ = {};
    judged_ = dropped_ = paused_ = false;
    got_ = 0;
    *error_ = '\0';
    asked_at_ = active_at_ = Clock::now();
    rate_.Begin(asked_at_);
    curl_easy_setopt(curl_, CURLOPT_URL, request_.url.c_str());
    const std::optional<Range>& range = request_.asked.range;
    curl_easy_setopt(curl_, CURLOPT_RANGE, range ? RangeText(*range).c_str() : nullptr);
    SetLogin(curl_, request_.foreign ? "" : shared_.task.user, shared_.task.password);
    headers_.Clear();
    if (!headers_.Add(shared_.task.headers, request_.foreign)) return false;
    for (const std::string& line : request_.headers) {
        if (!headers_.Add(line)) return false;
    }
    curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, headers_.Get());
    busy_ = curl_multi_add_handle(shared_.multi, curl_) == CURLM_OK;
    return busy_;
}

void Connection::End() {
    if (busy_) {
        last_rate_ = BytesPerSecond(Clock::now());
        curl_multi_remove_handle(shared_.multi, curl_);
    }
    busy_ = paused_ = false;
    shared_.bucket.Leave(id_);
    Forget();
}

void Connection::Drop() {
    dropped_ = true;
    Forget();
}

CURLcode Connection::Resume() {
    paused_ = false;
    active_at_ = Clock::now();
    return curl_easy_pause(curl_, CURLPAUSE_CONT);
}

// A map that counts bytes which are not in the file would make a false record.
void Connection::Forget() {
    if (filled_ > 0) shared_.blocks.Retreat(id_, begin_);
    filled_ = 0;
}

MaybeFault Connection::Flush() {
    return Flush(buffer_.get());
}

MaybeFault Connection::Flush(const char* bytes) {
    if (fault_ || filled_ == 0) return fault_;
    fault_ = shared_.file.Write(bytes, filled_, begin_);
    if (fault_) Forget();
    filled_ = 0;
    return fault_;
}

const Judgement& Connection::JudgeLate() {
    if (!judged_ && !dropped_) Judge();
    return judgement_;
}

std::string Connection::FinalUrl() const {
    const char* url = nullptr;
    curl_easy_getinfo(curl_, CURLINFO_EFFECTIVE_URL, &url);
    // As in a redirect that libcurl follows, a login that the server names does not count.
    return url == nullptr ? request_.url : WithoutLogin(url);
}

bool Connection::HadPeer() const {
    const char* peer = nullptr;
    curl_easy_getinfo(curl_, CURLINFO_PRIMARY_IP, &peer);
    return peer != nullptr && *peer != '\0';
}

std::size_t Connection::OnHeader(char* data, std::size_t size, std::size_t count,
                                 void* self) noexcept {
    auto& own = *static_cast<Connection*>(self);
    own.threw_ = true;
    return KeepExceptions(kBreakOff, [&] {
        own.TakeHeader({data, size * count});
        own.threw_ = false;
        return size * count;
    });
}

std::size_t Connection::OnBody(char* data, std::size_t size, std::size_t count,
                               void* self) noexcept {
    auto& own = *static_cast<Connection*>(self);
    own.threw_ = true;
    return KeepExceptions(kBreakOff, [&] {
        const std::size_t taken = own.TakeBody(data, size * count);
        own.threw_ = false;
        return taken;
    });
}

// Answers that libcurl follows or passes over by itself come by here as well: redirects, and 1xx.
void Connection::TakeHeader(std::string_view line) {
    if (judged_ || dropped_) return;
    active_at_ = Clock::now();
    if (line.find_first_not_of("\r\n") != line.npos) {
        answer_.AddLine(line);
        return;
    }
    answer_.complete = true;
    if (answer_.status == 200 || answer_.status == 203 || answer_.status == 206 ||
        (answer_.status >= 400 && !IsChallenge())) {
        Judge();
    }
}

// Whether libcurl may answer by logging in, and another answer come. If it does not, the body that
// it hands over, or the end, tells.
bool Connection::IsChallenge() const {
    return answer_.status == 401 && !request_.foreign && !shared_.task.user.empty();
}

std::size_t Connection::TakeBody(const char* data, std::size_t size) {
    if (dropped_) return 0;
    if (!judged_) Judge();
    const bool good = IsGood(judgement_.verdict);
    const Clock::time_point now = Clock::now();
    if (good && !shared_.bucket.Take(id_, size, now)) {
        // libcurl keeps the piece, and reads no further.
        paused_ = true;
        return CURL_WRITEFUNC_PAUSE;
    }
    active_at_ = now;
    received_ += size;
    rate_.Add(size);
    if (!good) return 0;
    const std::uint64_t position = shared_.blocks.Left(id_).begin;
    const std::uint64_t mine = shared_.blocks.Advance(id_, size);
    got_ += mine;
    if (!Gather(data, mine, position)) return 0;
    // Where the rest of the answer belongs to somebody else, it is broken off.
    return mine < size ? 0 : size;
}

// Writes end at multiples of the buffer's size, as the file system likes it best; but the rest of a
// block that comes in one piece is written without the buffer.
bool Connection::Gather(const char* data, std::size_t size, std::uint64_t position) {
    if (filled_ == 0 && shared_.blocks.Left(id_).Size() == 0) {
        begin_ = position;
        filled_ = size;
        return !Flush(data);
    }
    if (!buffer_) buffer_ = std::make_unique_for_overwrite<char[]>(shared_.gather);
    while (size > 0) {
        if (filled_ == 0) begin_ = position;
        const std::size_t room = shared_.gather - begin_ % shared_.gather - filled_;
        const std::size_t count = std::min(room, size);
        std::memcpy(buffer_.get() + filled_, data, count);
        filled_ += count;
        data += count;
        position += count;
        size -= count;
        if (count == room && Flush()) return false;
    }
    return true;
}

void Connection::Judge() {
    curl_off_t length = -1;
    curl_easy_getinfo(curl_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    answer_.length = length < 0 ? kUnknown : static_cast<std::uint64_t>(length);
    if (answer_.status == 204) answer_.length = 0;
    judgement_ = shared_.judge(*this);
    judged_ = true;
}

}  // namespace engine

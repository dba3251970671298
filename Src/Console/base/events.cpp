#include "Console/base/events.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <iterator>
#include <system_error>
#include <utility>

#include "TaskMan/manager.h"
#include "common/AutoLock.h"

WakePipe::WakePipe() {
    int ends[2];
    if (pipe(ends) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot make a pipe");
    for (const int end : ends) {
        fcntl(end, F_SETFD, FD_CLOEXEC);
        fcntl(end, F_SETFL, O_NONBLOCK);
    }
    reader_ = Descriptor(ends[0]);
    writer_ = Descriptor(ends[1]);
}

void WakePipe::Wake() const {
    const int kept = errno;
    // A full pipe wakes just as well.
    static_cast<void>(write(writer_.Get(), "", 1) == 1);
    errno = kept;
}

void WakePipe::Wait(std::chrono::milliseconds time, int descriptor) const {
    pollfd news[] = {{reader_.Get(), POLLIN, 0}, {descriptor, POLLIN, 0}};
    poll(news, std::size(news), static_cast<int>(time.count()));
    std::array<char, 64> bytes{};
    while (read(reader_.Get(), bytes.data(), bytes.size()) == ssize_t{bytes.size()}) {
    }
}

void EventQueue::Add(Event event) {
    bool first = false;
    {
        Threading::AutoLock hold(&mutex_);
        first = events_.empty();
        events_.push_back(std::move(event));
    }
    // Who was woken for the first takes them all.
    if (first) wake_.Wake();
}

std::vector<Event> EventQueue::Take() {
    Threading::AutoLock hold(&mutex_);
    return std::exchange(events_, {});
}

void EventQueue::OnState(void* queue, const char* szTaskID, std::int32_t nCode, double dValue,
                         std::int32_t /*nTaskKind*/) {
    Event event{Event::Kind::kState, szTaskID, nCode, dValue};
    const bool ended = IsFinalCode(nCode);
    if (ended || nCode == DOWNLOAD_STATE_FILE_SIZE) TaskAnswer(szTaskID, event.answer);
    if (ended) {
        event.remark = TaskRemark(szTaskID);
        event.size = TaskFileSize(szTaskID);
    }
    static_cast<EventQueue*>(queue)->Add(std::move(event));
}

void EventQueue::OnResult(void* queue, const char* szTaskID, std::int32_t nCode, const char* szText,
                          std::uint32_t nLength) {
    Event event{Event::Kind::kState, szTaskID, nCode};
    event.remark = TaskRemark(szTaskID);
    event.text.assign(szText, nLength);
    static_cast<EventQueue*>(queue)->Add(std::move(event));
}

std::thread RunBeside(const std::function<void()>& work) {
    try {
        return std::thread(work);
    } catch (const std::system_error&) {
        work();
        return {};
    }
}

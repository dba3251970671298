// How events reach the main loop: from the manager's scanner thread, from helper threads and from
// signal handlers.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Console/base/outcome.h"
#include "TaskMan/tasktext.h"
#include "common/file.h"
#include "common/mutex.h"
#include "common/uncopyable.h"

// Wakes a thread that waits in poll.
class WakePipe : private Uncopyable {
  public:
    WakePipe();  // throws std::system_error when no pipe can be made

    // Ends the present wait, or the next one. Any thread and any signal handler may call.
    void Wake() const;

    // Returns when woken, when a signal was handled, when `descriptor` can be read (-1: none), or
    // after `time`.
    void Wait(std::chrono::milliseconds time, int descriptor = -1) const;

  private:
    Descriptor reader_{};
    Descriptor writer_{};
};

// Something that happened to a task.
struct Event {
    enum class Kind {
        kState,  // the manager called back: `code`, `value`
        kEnd,    // a helper thread has finished its work: `outcome`
    };
    Kind kind;
    std::string id;  // of the task
    std::int32_t code = 0;
    double value = 0;
    std::string
        remark{};     // with a final code: TaskRemark(), empty unless the manager ended the task
    double size = 0;  // with a final code: size of the file in bytes; 0 when unknown
    tagTaskAnswer answer{};  // with code 10 and with a final code: what the worker has told
    std::string text{};      // with code 1: the information text
    Outcome outcome{};
};

// Carries events to the main loop, in the order in which they were added.
class EventQueue : private Uncopyable {
  public:
    // Wakes through `wake`, which outlives the queue.
    explicit EventQueue(const WakePipe& wake) : wake_(wake) {}

    // Any thread may call.
    void Add(Event event);

    // Everything that was added since the last call.
    std::vector<Event> Take();

    // The callbacks for tasks whose callback parameter is an EventQueue. Both add events of the
    // kind kState; a task that ends with code 1 calls the second one only.
    static void OnState(void* queue, const char* szTaskID, std::int32_t nCode, double dValue,
                        std::int32_t nTaskKind);
    static void OnResult(void* queue, const char* szTaskID, std::int32_t nCode, const char* szText,
                         std::uint32_t nLength);

  private:
    const WakePipe& wake_;
    Threading::Mutex mutex_;
    std::vector<Event> events_ TS_GUARDED_BY(mutex_);
};

// Runs the work on a thread of its own; where none can be started, here and now. Returns the
// thread, which is to be joined if it can be.
std::thread RunBeside(const std::function<void()>& work);

// The manager's end of the channel to the worker of an extended task: a stream socket, whose other
// end is the worker's standard input.
//
// The manager sends one text for each task of the worker, which waits in the socket's buffer. What
// the worker sends is a hint and no more: anything is a reason to look at its slot, and the line
// TASK_CHANNEL_IDLE at the end of it all makes it one that may get another task. The end of file
// that the worker sees means that its manager is gone, or has no further task for it: no other
// process may have this end.
#pragma once

#include <atomic>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/file.h"

// Any thread, and a forked child, may call Close(); else one thread at a time.
class Channel {
  public:
    Channel() = default;
    ~Channel() { Close(); }
    Channel(Channel&& other) noexcept { *this = std::move(other); }
    Channel& operator=(Channel&& other) noexcept;

    // Opens the channel; `worker` becomes the worker's end, above standard error. Returns 0 or an
    // error number: neither end is open then.
    int Open(Descriptor& worker);

    // Sends the text for the next task, with copies of the descriptors; what the worker has told of
    // the one before is forgotten. Returns 0 or an error number: ENOBUFS when the system does not
    // take the whole text at once.
    int Send(std::string_view text, const std::vector<int>& files = {});

    // Descriptor to wait on for something to read; -1 when there is nothing to wait for any more.
    int Awaited() const { return over_ ? -1 : end_.load(); }

    // Whether the channel is to be looked at when `told` is what WaitForEnd has returned: its
    // descriptor is among these, or there are none, which says nothing.
    bool IsAmong(const std::vector<int>& told) const;

    // Reads what the worker has sent; whether there was something, its end included. A few bytes
    // for each task: whatever else it sends stays in the socket's buffer, which has an end.
    bool Heard();

    // Whether the worker waits for its next task, by its own word.
    bool SaysIdle() const;

    void Close();

  private:
    std::atomic<int> end_{-1};
    std::string heard_{};  // since the last Send()
    bool over_ = false;    // no more of it is read
};

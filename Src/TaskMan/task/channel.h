// The manager's end of the channel to the worker of an extended task: a stream socket, whose other
// end is the worker's standard input.
//
// The manager sends one text, before the worker is started, so that it waits in the socket's
// buffer. What the worker sends means that its final code is in the slot; it is a hint and no more,
// so that nothing of it has to be understood. The end of file that the worker sees means that its
// manager is gone: no other process may have this end.
#pragma once

#include <atomic>
#include <string_view>

#include "common/file.h"

// Any thread, and a forked child, may call Close(); else one thread at a time.
class Channel {
  public:
    Channel() = default;
    ~Channel() { Close(); }
    Channel& operator=(Channel&& other) noexcept;

    // Opens the channel with `text` in it; `worker` becomes the worker's end, above standard error.
    // Returns 0 or an error number: ENOBUFS when the system does not take the whole text at once.
    // Neither end is open then.
    int Open(std::string_view text, Descriptor& worker);

    // Descriptor to wait on for something to read; -1 when there is nothing to wait for any more.
    int Awaited() const { return heard_ ? -1 : end_.load(); }

    // Whether the worker has sent something or is gone. True once only: whatever else it sends
    // stays in the socket's buffer, which has an end.
    bool Heard();

    void Close();

  private:
    std::atomic<int> end_{-1};
    bool heard_ = false;
};

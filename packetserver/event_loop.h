// SPDX-License-Identifier: BSD-3-Clause
// Waits on descriptors and calls who asked for them. One thread.
#ifndef PACKETSERVER_EVENT_LOOP_H
#define PACKETSERVER_EVENT_LOOP_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <unordered_map>

namespace packetserver {

class EventLoop {
public:
    using Handler = std::function<void()>;

    EventLoop();
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    /// False, errno set, when the system has no descriptor for waiting.
    bool isOk() const { return epollFd_ >= 0; }

    /// Calls `handler` whenever `fd` can be read, until remove(). False, errno set: it cannot be waited on.
    bool add(int fd, Handler handler);
    void remove(int fd);

    /// Waits for at most `limit` and calls the handlers of what can be read. A handler may add and remove
    /// any.
    void runOnce(std::chrono::milliseconds limit);

private:
    int epollFd_;

    struct Entry {
        std::uint32_t generation;
        Handler handler;
    };

    std::unordered_map<int, Entry> entries_;  // by descriptor
    std::uint32_t generation_ = 0;            // of the last added: tells it from earlier ones of its number
};

}  // namespace packetserver

#endif

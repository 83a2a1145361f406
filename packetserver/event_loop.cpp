// SPDX-License-Identifier: BSD-3-Clause
#include "event_loop.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace packetserver {

EventLoop::EventLoop() : epollFd_(::epoll_create1(EPOLL_CLOEXEC)) {}

EventLoop::~EventLoop() {
    if (epollFd_ >= 0) ::close(epollFd_);
}

bool EventLoop::add(int fd, Handler handler) {
    // The entry first, since it may find no memory: nobody would take what a descriptor without one has.
    if (!entries_.try_emplace(fd, Entry{++generation_, std::move(handler)}).second) {
        errno = EEXIST;
        return false;
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = std::uint64_t(generation_) << 32 | static_cast<std::uint32_t>(fd);
    if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event) == 0) return true;
    const int error = errno;
    entries_.erase(fd);
    errno = error;
    return false;
}

void EventLoop::remove(int fd) {
    if (entries_.erase(fd) != 0) ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
}

void EventLoop::runOnce(std::chrono::milliseconds limit) {
    epoll_event events[32];
    const int count = ::epoll_wait(epollFd_, events, 32, static_cast<int>(limit.count()));
    for (int i = 0; i < count; ++i) {
        const auto found = entries_.find(static_cast<int>(events[i].data.u64 & 0xFFFFFFFFu));
        // One that was called before may have removed it, and have added another of the same number.
        if (found == entries_.end() || found->second.generation != events[i].data.u64 >> 32) continue;
        const Handler handler = found->second.handler;
        handler();
    }
}

}  // namespace packetserver

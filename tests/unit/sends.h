// SPDX-License-Identifier: BSD-3-Clause
// ::send by appointment: what the kernel answers to the next sends on one descriptor, and what it was asked.
// Everything else passes through. Defines ::send: one file of a test program includes this.
#ifndef CVNC_TESTS_SENDS_H
#define CVNC_TESTS_SENDS_H

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <string>
#include <vector>

// One answer of the kernel: an error, or a success that takes no more than so many bytes.
struct SendAnswer {
    int error;
    std::size_t atMost;
};

inline SendAnswer takes(std::size_t bytes) {
    return {0, bytes};
}

inline SendAnswer takesAll() {
    return takes(SIZE_MAX);
}

inline SendAnswer refuses(int error) {
    return {error, 0};
}

inline SendAnswer hasNoRoom() {
    return refuses(EAGAIN);
}

// While it lives, the sends on a descriptor are written down and answered as told: first the appointments, in
// order, then the standing answer, which is the kernel's own at the start. What an answer takes is really
// sent. One at a time, on one thread.
class Sends {
public:
    explicit Sends(int fd) : myFd(fd) { current() = this; }
    ~Sends() { current() = nullptr; }
    Sends(const Sends&) = delete;
    Sends& operator=(const Sends&) = delete;

    void next(std::initializer_list<SendAnswer> answers) {
        myAnswers.insert(myAnswers.end(), answers.begin(), answers.end());
    }
    void always(SendAnswer answer) { myStanding = answer; }

    // The bytes that each send offered since the last call, whatever came of it.
    std::vector<std::string> takeOffered() {
        std::vector<std::string> offered;
        offered.swap(myOffered);
        return offered;
    }
    // Switched off, nothing is written down, and no memory is asked for.
    void keepRecord(bool on) { myIsKeepingRecord = on; }
    // Sends that had another flag than MSG_NOSIGNAL, or not that one.
    int otherFlags() const { return myOtherFlags; }
    // Appointments that nobody came for.
    std::size_t unused() const { return myAnswers.size(); }

    static Sends*& current() {
        static Sends* theOne = nullptr;
        return theOne;
    }
    bool watches(int fd) const { return fd == myFd; }

    SendAnswer meet(const void* bytes, std::size_t size, int flags) {
        if (myIsKeepingRecord) myOffered.emplace_back(static_cast<const char*>(bytes), size);
        if (flags != MSG_NOSIGNAL) ++myOtherFlags;
        if (myAnswers.empty()) return myStanding;
        const SendAnswer answer = myAnswers.front();
        myAnswers.pop_front();
        return answer;
    }

private:
    int myFd;
    std::deque<SendAnswer> myAnswers;
    SendAnswer myStanding = takesAll();
    std::vector<std::string> myOffered;
    bool myIsKeepingRecord = true;
    int myOtherFlags = 0;
};

extern "C" __attribute__((visibility("default"))) ssize_t send(int fd, const void* bytes, std::size_t size,
                                                               int flags) {
    SendAnswer answer = takesAll();
    if (Sends* sends = Sends::current(); sends && sends->watches(fd))
        answer = sends->meet(bytes, size, flags);
    if (answer.error) {
        errno = answer.error;
        return -1;
    }
    if (answer.atMost == 0) return 0;
    return ::sendto(fd, bytes, std::min(size, answer.atMost), flags, nullptr, 0);
}

#endif

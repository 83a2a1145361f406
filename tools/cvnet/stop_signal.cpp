// SPDX-License-Identifier: BSD-3-Clause
// The signal handler, its pipe, and the one wait of the tool.
#include "stop_signal.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <ctime>

#include "failure.h"
#include "text.h"

namespace cvnet {
namespace {

volatile std::sig_atomic_t gRaised = 0;
volatile std::sig_atomic_t gConnection = -1;
int gPipe[2] = {-1, -1};

void onSignal(int) {
    const int errnoBefore = errno;
    gRaised = 1;
    if (gConnection >= 0) ::shutdown(gConnection, SHUT_RDWR);
    const char byte = 0;
    // The pipe is full only when the waiter has been told often enough.
    if (::write(gPipe[1], &byte, 1) < 0) errno = 0;
    errno = errnoBefore;
}

timespec remaining(Clock::time_point until) {
    const auto left = until - Clock::now();
    const long long nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
    timespec result{};
    if (nanoseconds > 0) {
        result.tv_sec = static_cast<time_t>(nanoseconds / 1000000000);
        result.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
    }
    return result;
}

}  // namespace

void StopSignal::install() {
    if (::pipe2(gPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        const int error = errno;
        throw Failure("cannot open a pipe: " + errorText(error));
    }
    struct sigaction action {};
    action.sa_handler = onSignal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);  // no SA_RESTART: a blocked write must see EINTR
    sigemptyset(&action.sa_mask);
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction former {};
        ::sigaction(signal, nullptr, &former);
        if (former.sa_handler != SIG_IGN) ::sigaction(signal, &action, nullptr);  // nohup asked for it
    }
    for (int signal : {SIGPIPE, SIGXFSZ}) std::signal(signal, SIG_IGN);
}

bool StopSignal::raised() {
    return gRaised != 0;
}

void StopSignal::shutDownToo(int fd) {
    gConnection = fd;
    if (fd >= 0 && raised()) ::shutdown(fd, SHUT_RDWR);  // the signal may have come just before
}

bool StopSignal::wait(int fd, std::optional<Clock::time_point> until) {
    std::vector<pollfd> descriptors = {{fd, POLLIN, 0}};  // poll skips a negative descriptor
    wait(descriptors, until);
    return (descriptors[0].revents & (POLLIN | POLLERR)) != 0;
}

void StopSignal::wait(std::vector<pollfd>& descriptors, std::optional<Clock::time_point> until) {
    const std::size_t count = descriptors.size();
    for (pollfd& descriptor : descriptors) descriptor.revents = 0;
    // Errors of standard output are told without being asked for.
    descriptors.insert(descriptors.end(), {{gPipe[0], POLLIN, 0}, {STDOUT_FILENO, 0, 0}});
    bool isInterrupted = true;
    while (isInterrupted && !raised()) {
        const timespec left = until ? remaining(*until) : timespec{};
        const int ready = ::ppoll(descriptors.data(), descriptors.size(), until ? &left : nullptr, nullptr);
        const int error = errno;
        isInterrupted = ready < 0;
        if (ready < 0 && error != EINTR) throw Failure("cannot wait: " + errorText(error));
    }
    descriptors.resize(count);
}

}  // namespace cvnet

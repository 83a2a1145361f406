// SPDX-License-Identifier: BSD-3-Clause
#include "stream_socket.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <cerrno>

#include <fmt/format.h>

#include "failure.h"
#include "library.h"
#include "text.h"

namespace cvnet {
namespace {

constexpr int kConnectInTheBackground = 1;

// How often finish() looks whether bytes were acknowledged, of which no descriptor tells.
constexpr int kLookMilliseconds = 100;
constexpr std::chrono::seconds kPatienceWhenStopped(1);
constexpr int kManyPackets = 1000;

}  // namespace

StreamSocket::StreamSocket(const Endpoint& peer, const StreamFormat& format)
    : NwTcpSocket(peer.addrHostOrder, static_cast<int>(peer.port), kConnectInTheBackground), peer_(peer) {
    waitForConnection();
    setSizeLength(format.sizeLength);
    setSizeOffset(format.sizeOffset);
    takeLibraryWarning();
}

void StreamSocket::waitForConnection() {
    std::string reason = isOk() ? "" : takeLibraryReason("refused");
    if (isOk()) {
        std::vector<pollfd> descriptors = {{socketFd, POLLOUT, 0}};
        while (descriptors[0].revents == 0 && !StopSignal::raised())
            StopSignal::wait(descriptors, std::nullopt);
        int error = EINTR;
        socklen_t length = sizeof error;
        if (descriptors[0].revents != 0 && ::getsockopt(socketFd, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
            error = errno;
        if (error != 0) reason = errorText(error);
    }
    if (!reason.empty()) throw Failure(fmt::format("cannot connect to {}: {}", peer_.text(), reason));
}

void StreamSocket::waitAndFlush(std::optional<Clock::time_point> until) {
    const int events = hasQueue() ? POLLIN | POLLOUT : POLLIN;
    std::vector<pollfd> descriptors = {{socketFd, static_cast<short>(events), 0}};
    StopSignal::wait(descriptors, until);
    if ((descriptors[0].revents & POLLOUT) != 0) flush();
    checkIsOk();
}

void StreamSocket::checkIsOk() {
    if (isOk()) return;
    throw Failure(
        fmt::format("the connection to {} has ended: {}", peer_.text(), takeLibraryReason("closed by peer")));
}

void StreamSocket::discardIncoming() {
    char* packet = nullptr;
    for (int i = 0; i < kManyPackets && NwTcpSocket::NwRecv(&packet, nullptr) > 0; ++i) ++discarded_;
}

int StreamSocket::unacknowledged() {
    int bytes = 0;
    return ::ioctl(socketFd, SIOCOUTQ, &bytes) == 0 ? bytes : 0;
}

std::string StreamSocket::finish(std::chrono::seconds patience) {
    ::shutdown(socketFd, SHUT_WR);
    int left = unacknowledged();
    for (Clock::time_point lastProgress = Clock::now();;) {
        discardIncoming();
        const int leftBefore = left;
        left = unacknowledged();
        const Clock::time_point now = Clock::now();
        if (left != leftBefore) lastProgress = now;
        const bool isStopped = StopSignal::raised();
        const bool waitsOn = left != 0 && !isStopped;
        if (!isOk() || (!waitsOn && now - lastProgress >= (isStopped ? kPatienceWhenStopped : patience)))
            break;
        pollfd descriptor = {socketFd, POLLIN, 0};
        ::poll(&descriptor, 1, kLookMilliseconds);
    }
    const std::string reason = takeLibraryReason("");
    return reason.empty() && left != 0 ? counted(static_cast<unsigned>(left), "byte") + " left" : reason;
}

int SendingStream::NwSend(char* buf, unsigned long len, unsigned int toAddress) {
    int result = NwTcpSocket::NwSend(buf, len, toAddress);
    // The full bundle could not leave and is in the queue now: there is room for the packet.
    if (result < 0 && isOk()) result = NwTcpSocket::NwSend(buf, len, toAddress);
    if (result >= 0 && isOk()) countInStream(PduView(buf, len));
    return result;
}

int ReceivingStream::NwSend(char* buf, unsigned long len, unsigned int toAddress) {
    const int result = NwTcpSocket::NwSend(buf, len, toAddress);
    if (result >= 0 && isOk()) echoes_.sent({buf, len});
    return result;
}

int ReceivingStream::NwRecv(char** buf, int* status) {
    const int length = NwTcpSocket::NwRecv(buf, status);
    if (length <= 0) return 0;
    ::clock_gettime(CLOCK_REALTIME, &counts_.arrival);
    ++counts_.datagrams;
    const bool isOwn = echoes_.isOwn({*buf, static_cast<std::size_t>(length)});
    if (!isOwn && accept(*buf, peer().addrHostOrder)) return length;
    *status = isOwn ? -3 : -2;
    *buf = nullptr;
    return 0;
}

}  // namespace cvnet

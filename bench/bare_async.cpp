// SPDX-License-Identifier: BSD-3-Clause
// Hand-written workers.
#include "bare_async.h"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "traffic.h"

namespace {

const long kPollMicroseconds = 10000;  // the library's default

void waitFor(int fd) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    timeval limit = {0, kPollMicroseconds};
    ::select(fd + 1, &readable, nullptr, nullptr, &limit);
}

}  // namespace

BareAsyncSender::BareAsyncSender(int fd, int port) : myFd(fd), myTo(loopbackAddress(port)) {
    if (::pipe2(myPipe, O_NONBLOCK) != 0) fail("cannot make a pipe");
    myWorker = std::thread([this] { work(); });
}

BareAsyncSender::~BareAsyncSender() {
    myStop = true;
    myWorker.join();
    ::close(myPipe[0]);
    ::close(myPipe[1]);
}

void BareAsyncSender::send(const char* bytes, std::size_t length) {
    BarePacket packet = {myTo, std::vector<char>(bytes, bytes + length)};
    {
        const std::lock_guard<std::mutex> lock(myMutex);
        myQueue.push_back(std::move(packet));
    }
    if (::write(myPipe[1], "e", 1) != 1) return;  // full: the worker wakes all the same
}

bool BareAsyncSender::isEmpty() {
    const std::lock_guard<std::mutex> lock(myMutex);
    return myQueue.empty();
}

void BareAsyncSender::work() {
    char bytes[100];
    while (!myStop || !isEmpty()) {
        for (;;) {
            const std::lock_guard<std::mutex> lock(myMutex);
            if (myQueue.empty()) break;
            const BarePacket& packet = myQueue.front();
            ::sendto(myFd, packet.bytes.data(), packet.bytes.size(), 0,
                     reinterpret_cast<const sockaddr*>(&packet.peer), sizeof packet.peer);
            myQueue.pop_front();
        }
        waitFor(myPipe[0]);
        while (::read(myPipe[0], bytes, sizeof bytes) > 0) {
        }
    }
}

BareAsyncReceiver::BareAsyncReceiver(int fd) : myFd(fd) {
    myWorker = std::thread([this] { work(); });
}

BareAsyncReceiver::~BareAsyncReceiver() {
    myStop = true;
    myWorker.join();
}

int BareAsyncReceiver::receive(char* buffer) {
    const std::lock_guard<std::mutex> lock(myMutex);
    if (myQueue.empty()) return 0;
    const std::vector<char>& bytes = myQueue.front().bytes;
    const int length = static_cast<int>(bytes.size());
    std::memcpy(buffer, bytes.data(), bytes.size());
    myQueue.pop_front();
    return length;
}

void BareAsyncReceiver::work() {
    std::vector<char> buffer(kLargestDatagram);
    while (!myStop) {
        for (;;) {
            BarePacket packet;
            socklen_t size = sizeof packet.peer;
            const ssize_t length = ::recvfrom(myFd, buffer.data(), buffer.size(), MSG_DONTWAIT,
                                              reinterpret_cast<sockaddr*>(&packet.peer), &size);
            if (length < 0) break;
            packet.bytes.assign(buffer.begin(), buffer.begin() + length);
            const std::lock_guard<std::mutex> lock(myMutex);
            myQueue.push_back(std::move(packet));
        }
        waitFor(myFd);
    }
}

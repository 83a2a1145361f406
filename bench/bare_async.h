// SPDX-License-Identifier: BSD-3-Clause
// The yardstick of the asynchronous socket: by hand, with the system's own mutex, the steps that its
// documented design consists of, and nothing else. Out: one copy into a queue, one wake-up byte a packet, a
// worker that holds the queue's lock while it sends. In: a worker that reads into a buffer and copies into a
// queue, a caller that copies out of it.
#ifndef BENCH_BARE_ASYNC_H
#define BENCH_BARE_ASYNC_H

#include <netinet/in.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

struct BarePacket {
    sockaddr_in peer;
    std::vector<char> bytes;
};

// An UDP descriptor and a port on loopback, lent. The end waits until the queue is empty.
class BareAsyncSender {
public:
    BareAsyncSender(int fd, int port);
    ~BareAsyncSender();
    BareAsyncSender(const BareAsyncSender&) = delete;
    BareAsyncSender& operator=(const BareAsyncSender&) = delete;

    void send(const char* bytes, std::size_t length);

private:
    void work();
    bool isEmpty();

    const int myFd;
    const sockaddr_in myTo;
    int myPipe[2];
    std::mutex myMutex;
    std::deque<BarePacket> myQueue;
    std::atomic<bool> myStop{false};
    std::thread myWorker;
};

class BareAsyncReceiver {
public:
    explicit BareAsyncReceiver(int fd);
    ~BareAsyncReceiver();
    BareAsyncReceiver(const BareAsyncReceiver&) = delete;
    BareAsyncReceiver& operator=(const BareAsyncReceiver&) = delete;

    // The next datagram into buffer: its length, 0 when there is none.
    int receive(char* buffer);

private:
    void work();

    const int myFd;
    std::mutex myMutex;
    std::deque<BarePacket> myQueue;
    std::atomic<bool> myStop{false};
    std::thread myWorker;
};

#endif

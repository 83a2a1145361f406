// SPDX-License-Identifier: BSD-3-Clause
// A packet server written out by hand: takes requests off its request socket and answers as a test wants,
// over a queue of its own.
#ifndef CVNC_TESTS_FAKE_PACKET_SERVER_H
#define CVNC_TESTS_FAKE_PACKET_SERVER_H

#include <cvutil/cvPacketServer.h>
#include <cvutil/cvPacketServerMsgs.h>
#include <cvutil/cvShmMsgQueue.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "network.h"

class FakePacketServer {
public:
    static constexpr int kPort = 3000;
    static constexpr int kClientId = 77;

    explicit FakePacketServer(int version = NwPacketServerVersion) {
        char name[] = "/tmp/cvfakeXXXXXX";
        if (!::mkdtemp(name)) throw std::runtime_error("no directory for a packet server");
        myDirectory = name;
        NwSetPacketServerDirectory(name);
        NwPacketServerRequestPath(kPort, myPath, version);
        myFd = NwOpenUnixDgram(myPath, NwUnixDgramBind, "test");
        if (myFd < 0) throw std::runtime_error("no request socket for a packet server");
    }
    ~FakePacketServer() {
        answered();
        close();
        hangUp();
        ::rmdir(myDirectory.c_str());
        NwSetPacketServerDirectory(nullptr);
    }
    FakePacketServer(const FakePacketServer&) = delete;
    FakePacketServer& operator=(const FakePacketServer&) = delete;

    const std::string& directory() const { return myDirectory; }
    const char* path() const { return myPath; }

    // Nobody listens any more.
    void close() {
        if (myFd >= 0) ::close(myFd);
        myFd = -1;
        ::unlink(myPath);
    }

    // The next request, byte for byte; waits for it, and fails the test when none comes.
    std::string next() {
        pollfd readable = {myFd, POLLIN, 0};
        char bytes[512];
        const bool came = ::poll(&readable, 1, kPatienceMilliseconds) == 1;
        const ssize_t length = came ? ::recv(myFd, bytes, sizeof bytes, 0) : -1;
        if (length < 0) ADD_FAILURE() << "no request came";
        return std::string(bytes, length > 0 ? static_cast<std::size_t>(length) : 0);
    }
    bool isEmpty() {
        pollfd readable = {myFd, POLLIN, 0};
        return ::poll(&readable, 1, 0) == 0;
    }
    void drain() {
        while (!isEmpty()) next();
    }

    // Makes one of several segments.
    static void makeSegment(NwShmMsgQueueSegment& made, int slot, unsigned long bytes = 1u << 18) {
        ASSERT_TRUE(made.create(kPort, slot, NwShmMsgQueueMgr::bytesFor(bytes), ::getuid(), ::getgid()));
    }

    // Makes the queue that good() tells of.
    void makeQueue(unsigned long bytes = 1u << 18) {
        makeSegment(segment, 0, bytes);
        writer.reset(new NwShmMsgQueueWriter(segment.queue(), segment.capacity(), segment.semId(), 0));
    }
    // An acknowledgement of that queue.
    NwCsAckRecord good() const {
        NwCsAckRecord ack = NwCsAckRecord();
        ack.kind = NwCsKindAck;
        ack.version = 3;
        ack.clientId = kClientId;
        ack.shmKey = segment.shmKey();
        ack.semKey = segment.semKey();
        ack.server2ClientSize = segment.server2ClientSize();
        ack.client2ServerSize = segment.client2ServerSize();
        return ack;
    }

    // Waits for an attach on a thread of its own, then answers with these bytes (none: it stays silent). The
    // request is in `request` once answered() returned.
    void answerAttach(const std::string& answer) {
        myClientThread = std::thread([this, answer] {
            request = next();
            NwCsAddClientRecord add = NwCsAddClientRecord();
            std::memcpy(&add, request.data(), request.size() < sizeof add ? request.size() : sizeof add);
            notifyPath = add.notifyPath;
            if (answer.empty()) return;
            myNotifyFd = NwOpenUnixDgram(add.notifyPath, NwUnixDgramConnect, "test");
            notify(answer);
        });
    }
    void answerAttach(const NwCsAckRecord& ack) {
        answerAttach(std::string(reinterpret_cast<const char*>(&ack), sizeof ack));
    }
    // Waits until that has been done.
    void answered() {
        if (myClientThread.joinable()) myClientThread.join();
    }
    // Lets go of the client's notify socket.
    void hangUp() {
        if (myNotifyFd >= 0) ::close(myNotifyFd);
        myNotifyFd = -1;
    }

    // One datagram on the client's notify socket.
    void notify(const std::string& bytes) {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), ::send(myNotifyFd, bytes.data(), bytes.size(), 0));
    }

    // One message in the queue.
    void say(const std::string& bytes) {
        ASSERT_TRUE(writer->write(bytes.data(), static_cast<unsigned int>(bytes.size())));
    }
    // One packet in the queue.
    void deliver(const std::string& packet, NwIpv4Addr source = kLoopback) { say(data(packet, source)); }
    static std::string data(const std::string& packet, NwIpv4Addr source) {
        NwCsDataHeader header = NwCsDataHeader();
        header.kind = NwCsKindData;
        header.source = source;
        header.length = static_cast<std::uint32_t>(packet.size());
        return std::string(reinterpret_cast<const char*>(&header), sizeof header) + packet;
    }

    std::string request;     // the attach request
    std::string notifyPath;  // the client's
    NwShmMsgQueueSegment segment;
    std::unique_ptr<NwShmMsgQueueWriter> writer;

private:
    std::string myDirectory;
    char myPath[NwPacketServerPathSize] = "";
    int myFd = -1;
    int myNotifyFd = -1;
    std::thread myClientThread;
};

#endif

// SPDX-License-Identifier: BSD-3-Clause
// What the tests of the packet-server client share: a client whose fields show, and fatal endings that are
// noted instead of suffered.
#ifndef CVNC_TESTS_CLIENT_FIXTURE_H
#define CVNC_TESTS_CLIENT_FIXTURE_H

#include <cvNetworkCompatibility/cvClientSocket.h>
#include <cvNetworkCompatibility/cvNetSocket.h>
#include <gtest/gtest.h>
#include <sys/shm.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <utility>

#include "fake_packet_server.h"
#include "messages.h"
#include "process.h"

const char kNotOk[] = "ClientSock not ok\n";

// While it lives, fatal endings are noted and the process goes on.
class Fatal {
public:
    Fatal() : myFormer(NwSetFatalHandler(note)) { theLast = this; }
    ~Fatal() { NwSetFatalHandler(myFormer); }
    Fatal(const Fatal&) = delete;
    Fatal& operator=(const Fatal&) = delete;

    std::string take() { return std::exchange(myText, std::string()); }

    // Called at the moment of an ending.
    std::function<void()> whenItComes;

private:
    static void note(const char* message) {
        theLast->myText += message;
        if (theLast->whenItComes) theLast->whenItComes();
    }

    static inline Fatal* theLast = nullptr;
    std::string myText;
    NwFatalHandler myFormer;
};

// What was printed, by stream.
struct Printed {
    std::string info, warn, other;
    bool operator==(const Printed& that) const {
        return info == that.info && warn == that.warn && other == that.other;
    }
};

inline std::ostream& operator<<(std::ostream& stream, const Printed& printed) {
    return stream << "information \"" << printed.info << "\", warnings \"" << printed.warn << "\", other \""
                  << printed.other << '"';
}

inline Printed informed(const std::string& text) {
    return {text, "", ""};
}
inline Printed warned(const std::string& text) {
    return {"", text, ""};
}
inline Printed nothingPrinted() {
    return {"", "", ""};
}
inline Printed printed(Messages& messages) {
    Printed result;
    result.info = messages.info();
    result.warn = messages.warn();
    result.other = messages.verbose() + messages.debug();
    return result;
}
// What such a message prints of itself.
inline Printed printedBy(Messages& messages, NwClientServerMsg&& message) {
    message.print();
    return printed(messages);
}

class Client : public NwClientSocket {
public:
    using NwClientSocket::addr;
    using NwClientSocket::clientId;
    using NwClientSocket::exerciseIdTest;
    using NwClientSocket::internal;
    using NwClientSocket::ipAddrTest;
    using NwClientSocket::netSocket;
    using NwClientSocket::notifyFd;
    using NwClientSocket::notifyPath;
    using NwClientSocket::notifyPending;
    using NwClientSocket::NwClientSocket;
    using NwClientSocket::pduKindTest;
    using NwClientSocket::port;
    using NwClientSocket::protocolVersionTest;
    using NwClientSocket::reader;
    using NwClientSocket::recvBuffer;
    using NwClientSocket::shmBase;
    using NwClientSocket::timeout;
};

template <class Record>
std::string bytesOf(const Record& record) {
    return std::string(reinterpret_cast<const char*>(&record), sizeof record);
}

template <class Record>
Record recordIn(const std::string& bytes) {
    Record record = Record();
    EXPECT_EQ(sizeof record, bytes.size());
    std::memcpy(&record, bytes.data(), std::min(bytes.size(), sizeof record));
    return record;
}

inline std::string filterMessage(int index, int op, unsigned int value,
                                 unsigned int id = FakePacketServer::kClientId) {
    return bytesOf(NwCsFilterRecord{NwCsKindFilter, 3, static_cast<std::uint8_t>(index),
                                    static_cast<std::uint8_t>(op), value, id});
}

inline std::string controlMessage(int request) {
    return bytesOf(NwCsControlReqRecord{NwCsKindControlReq, 3, static_cast<std::uint16_t>(request),
                                        FakePacketServer::kClientId});
}

inline std::string groupMessage(int op, unsigned int group) {
    return bytesOf(NwCsMulticastReqRecord{NwCsKindMulticastReq, 3, static_cast<std::uint16_t>(op), group,
                                          FakePacketServer::kClientId});
}

inline std::string noticeMessage(int code) {
    return bytesOf(NwCsNoticeRecord{NwCsKindNotice, 3, static_cast<std::uint16_t>(code)});
}

inline NwCsNoticeMsg notice(int code) {
    return NwCsNoticeMsg(nullptr, static_cast<unsigned short>(code));
}

inline bool exists(const std::string& path) {
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0;
}

inline bool isReadable(int fd) {
    pollfd readable = {fd, POLLIN, 0};
    return ::poll(&readable, 1, 0) == 1;
}

inline int attachments(int shmId) {
    shmid_ds status;
    return ::shmctl(shmId, IPC_STAT, &status) == 0 ? static_cast<int>(status.shm_nattch) : -1;
}

// A server written out by hand, and fatal endings that are noted.
class ClientSocketTest : public ::testing::Test {
protected:
    // A host with an interface that can broadcast.
    static void SetUpTestSuite() {
        if (!hasPrivateNetwork()) return;
        run("ip link add cv0 type veth peer name cv1 && ip address add 10.8.0.1/24 broadcast + dev cv0 && "
            "ip link set cv1 up && ip link set cv0 up");
    }
    static void TearDownTestSuite() {
        if (hasPrivateNetwork()) run("ip link del cv0");
    }

    void SetUp() override {
        NwNetSocket::initErrorAction = 1;
        renewServer();
    }

    // A server with an empty queue, at the place of the one before.
    void renewServer() {
        server.reset();
        server.reset(new FakePacketServer);
        server->makeQueue();
    }

    // A client that is attached; the requests of its attach are taken away.
    std::unique_ptr<Client> attach(unsigned short flags = NwClientSocket::defaultFlags,
                                   unsigned int addr = kLoopback) {
        return attachWith(server->good(), flags, addr);
    }
    std::unique_ptr<Client> attachWith(const NwCsAckRecord& ack, unsigned short flags, unsigned int addr) {
        server->answerAttach(ack);
        std::unique_ptr<Client> client(new Client(FakePacketServer::kPort, addr, -1, flags));
        server->answered();
        server->drain();
        return client;
    }

    // The server has ended the attachment of a client, which has seen it and has released nothing.
    void sendAway(Client& client, int goAway) {
        server->writer->sendAway(goAway);
        char* packet = nullptr;
        EXPECT_EQ(0, client.NwRecv(&packet, nullptr));
        EXPECT_FALSE(client.isOk());
        EXPECT_EQ("", fatal.take());
    }

    Fatal fatal;
    std::unique_ptr<FakePacketServer> server;
};

#endif

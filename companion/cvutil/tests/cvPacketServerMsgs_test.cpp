// SPDX-License-Identifier: BSD-3-Clause
// The records in literal bytes, what a server believes of them, and what they say for people.
#include <cvutil/cvPacketServerMsgs.h>

#include <cvutil/cvOutput.h>
#include <cvutil/cvShmMsgQueue.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

typedef std::vector<unsigned char> Bytes;

// Both ends of a datagram descriptor.
class Channel {
public:
    Channel() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, myEnds), 0); }
    ~Channel() {
        ::close(myEnds[0]);
        ::close(myEnds[1]);
    }
    int writeEnd() const { return myEnds[0]; }
    int readEnd() const { return myEnds[1]; }

    // The next datagram, empty if there is none.
    Bytes take() {
        Bytes bytes(1000);
        const ssize_t length = ::recv(myEnds[1], bytes.data(), bytes.size(), MSG_DONTWAIT);
        bytes.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
        return bytes;
    }

private:
    int myEnds[2];
};

// What goes to NwWarn and NwInfo while this lives.
class Printed {
public:
    Printed() : myFormerWarn(NwWarn.rdbuf(warn.rdbuf())), myFormerInfo(NwInfo.rdbuf(info.rdbuf())) {}
    ~Printed() {
        NwWarn.rdbuf(myFormerWarn);
        NwInfo.rdbuf(myFormerInfo);
    }
    std::ostringstream warn;
    std::ostringstream info;

private:
    std::streambuf* myFormerWarn;
    std::streambuf* myFormerInfo;
};

NwCsMsg received(const Bytes& bytes) {
    NwCsMsg message;
    std::memset(&message, 0, sizeof message);
    std::memcpy(&message, bytes.data(), std::min(bytes.size(), sizeof message));
    return message;
}

std::string warned(NwClientServerMsg&& message) {
    Printed printed;
    message.print();
    EXPECT_EQ(printed.info.str(), "");
    return printed.warn.str();
}

std::string informed(NwClientServerMsg&& message) {
    Printed printed;
    message.print();
    EXPECT_EQ(printed.warn.str(), "");
    return printed.info.str();
}

// --- bytes (of a host whose least significant byte comes first) ---

TEST(PacketServerRecords, addClientIsTheseBytes) {
    Channel channel;
    NwCsAddClientMsg message(channel.writeEnd(), 0x0107, -1, 32, 0x01020304, "/tmp/cvcAbCdEf");
    EXPECT_EQ(message.send(), 176);
    Bytes expected = {1, 3, 0x07, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 32, 0, 0, 0, 4, 3, 2, 1};
    const std::string path = "/tmp/cvcAbCdEf";
    expected.insert(expected.end(), path.begin(), path.end());
    expected.resize(176);
    EXPECT_EQ(channel.take(), expected);
}

TEST(PacketServerRecords, addClientWithTheLongestPathIsEndedAndALongerOneIsEmpty) {
    const std::string longest = "/" + std::string(158, 'p');
    const NwCsAddClientMsg whole(-1, 0, 0, 0, 0, longest.c_str());
    EXPECT_EQ(whole.notifyPath(), longest);
    EXPECT_EQ(NwCsRequestProblem(&whole.bytes(), whole.size()), nullptr);
    EXPECT_STREQ(NwCsAddClientMsg(-1, 0, 0, 0, 0, (longest + "p").c_str()).notifyPath(), "");
    EXPECT_STREQ(NwCsAddClientMsg(-1, 0, 0, 0, 0, nullptr).notifyPath(), "");
}

TEST(PacketServerRecords, addClientReadsBackAndEndsAPathWithoutEnd) {
    const NwCsAddClientMsg message(-1, 0xFFFF, 5, 6, 7, "/x");
    EXPECT_EQ(message.flags(), 0xFFFF);
    EXPECT_EQ(message.clientArg(), 5);
    EXPECT_EQ(message.option(), 6);
    EXPECT_EQ(message.pid(), 7);
    const NwCsMsg endless = received(Bytes(176, 'x'));
    EXPECT_EQ(std::string(NwCsAddClientMsg(-1, &endless).notifyPath()), std::string(159, 'x'));
}

TEST(PacketServerRecords, filterIsTheseBytes) {
    Channel channel;
    NwCsFilterMsg message(channel.writeEnd(), 2, 0, 1, 0x11223344);
    EXPECT_EQ(message.send(), 12);
    EXPECT_EQ(channel.take(), Bytes({2, 3, 2, 0, 1, 0, 0, 0, 0x44, 0x33, 0x22, 0x11}));
    message.setFilterOp(1);
    message.setValue(0xA0B0C0D0);
    EXPECT_EQ(message.send(), 12);
    EXPECT_EQ(channel.take(), Bytes({2, 3, 2, 1, 0xD0, 0xC0, 0xB0, 0xA0, 0x44, 0x33, 0x22, 0x11}));
    EXPECT_EQ(message.filterIndex(), 2);
    EXPECT_EQ(message.filterOp(), 1);
    EXPECT_EQ(message.value(), 0xA0B0C0D0u);
    EXPECT_EQ(message.clientId(), 0x11223344u);
}

TEST(PacketServerRecords, multicastRequestIsTheseBytes) {
    Channel channel;
    NwCsMulticastReqMsg message(channel.writeEnd(), 1, 0xEF010203, 9);
    EXPECT_EQ(message.send(), 12);
    EXPECT_EQ(channel.take(), Bytes({3, 3, 1, 0, 3, 2, 1, 0xEF, 9, 0, 0, 0}));
    EXPECT_EQ(message.op(), 1);
    EXPECT_EQ(message.group(), 0xEF010203u);
    EXPECT_EQ(message.clientId(), 9u);
}

TEST(PacketServerRecords, controlRequestIsTheseBytes) {
    Channel channel;
    NwCsControlReqMsg message(channel.writeEnd(), 0, 3);
    message.setRequest(7);
    EXPECT_EQ(message.send(), 8);
    EXPECT_EQ(channel.take(), Bytes({4, 3, 7, 0, 3, 0, 0, 0}));
    EXPECT_EQ(message.request(), 7);
    EXPECT_EQ(message.clientId(), 3u);
}

TEST(PacketServerRecords, acknowledgementIsTheseBytes) {
    Channel channel;
    NwCsAckMsg message(channel.writeEnd(), true, -2, 0x50000001, 0x60000001, 0x1000, 128);
    EXPECT_EQ(message.send(), 24);
    EXPECT_EQ(channel.take(), Bytes({6, 3, 1, 0,    0xFE, 0xFF, 0xFF, 0xFF, 1,   0, 0, 0x50,
                                     1, 0, 0, 0x60, 0,    0x10, 0,    0,    128, 0, 0, 0}));
}

TEST(PacketServerRecords, acknowledgementOfAnOldServerIsRead) {
    const NwCsMsg bytes = received({6, 2, 9, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4, 0, 0, 0, 5, 0, 0, 0});
    const NwCsAckMsg message(-1, &bytes);
    EXPECT_EQ(message.kind(), 6);
    EXPECT_EQ(message.version(), 2);
    EXPECT_EQ(message.internal(), 9);
    EXPECT_EQ(message.clientId(), 1);
    EXPECT_EQ(message.shmKey(), 2);
    EXPECT_EQ(message.semKey(), 3);
    EXPECT_EQ(message.server2ClientSize(), 4);
    EXPECT_EQ(message.client2ServerSize(), 5);
}

TEST(PacketServerRecords, quotaRefusalAndNoticeAreFourBytes) {
    Channel channel;
    EXPECT_EQ(NwCsQuotaMsg(channel.writeEnd()).send(), 4);
    EXPECT_EQ(channel.take(), Bytes({7, 3, 0, 0}));
    const NwCsNoticeMsg notice(nullptr, 4);
    EXPECT_EQ(notice.size(), 4);
    EXPECT_EQ(std::memcmp(&notice.bytes(), Bytes({12, 3, 4, 0}).data(), 4), 0);
    EXPECT_EQ(notice.notice(), 4);
}

TEST(PacketServerRecords, everyKindHasItsSize) {
    const int sizes[] = {4, 176, 12, 12, 8, 0, 24, 4, 16, 96, 128, 176, 4, 0};
    for (int kind = 0; kind < 14; ++kind) EXPECT_EQ(NwCsRecordSize(kind), sizes[kind]) << "kind " << kind;
    EXPECT_EQ(NwCsRecordSize(-1), 0);
    EXPECT_EQ(NwCsRecordSize(255), 0);
}

TEST(PacketServerRecords, warningCarriesAsMuchTextAsFits) {
    const std::string longText(200, 't');
    const NwCsWarningMsg message(nullptr, 1, 0x0102030405060708, longText.c_str());
    EXPECT_EQ(message.size(), 176);
    EXPECT_EQ(message.warning(), 1);
    EXPECT_EQ(message.count(), 0x0102030405060708u);
    EXPECT_EQ(std::string(message.text(), message.textLength()), std::string(160, 't'));
    EXPECT_EQ(NwCsWarningMsg(nullptr, 0, 0, nullptr).textLength(), 0u);
}

TEST(PacketServerRecords, statesComeBackAsTheyWerePutIn) {
    NwCsStateReturnRecord server = {};
    server.port = 3000;
    server.outsideDropped = 77;
    const NwCsStateReturnMsg serverMessage(nullptr, server);
    EXPECT_EQ(serverMessage.kind(), 9);
    EXPECT_EQ(serverMessage.version(), 3);
    EXPECT_EQ(serverMessage.state().port, 3000u);
    EXPECT_EQ(serverMessage.state().outsideDropped, 77u);

    NwCsCStateReturnRecord client = {};
    client.clientId = 5;
    client.filters[3].values = 6;
    const NwCsCStateReturnMsg clientMessage(nullptr, client);
    const NwCsCStateReturnMsg copy(nullptr, &clientMessage.bytes());
    EXPECT_EQ(copy.kind(), 10);
    EXPECT_EQ(copy.state().clientId, 5u);
    EXPECT_EQ(copy.state().filters[3].values, 6u);
}

// --- sending ---

TEST(PacketServerMessages, withoutADescriptorNothingIsSent) {
    NwCsFilterMsg message(-1, 0, 0, 1, 0);
    errno = 0;
    EXPECT_EQ(message.send(), -1);
    EXPECT_EQ(errno, EBADF);
    const NwCsMsg bytes = message.bytes();
    errno = 0;
    EXPECT_EQ(NwClientServerMsg(&bytes).send(), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(PacketServerMessages, aMessageCutOffItsDescriptorSendsNothingIntoIt) {
    Channel channel;
    NwCsFilterMsg message(channel.writeEnd(), 0, 0, 1, 0);
    message.setFd(-1);
    EXPECT_EQ(message.send(), -1);
    EXPECT_EQ(channel.take(), Bytes());
}

std::atomic<int> theSignals{0};

TEST(PacketServerMessages, aSignalWhileThereIsNoRoomLosesNoRequest) {
    Channel channel;
    NwCsFilterMsg message(channel.writeEnd(), 1, 1, 7, 8);
    const char filler = 'f';
    int fillers = 0;
    while (::send(channel.writeEnd(), &filler, 1, MSG_DONTWAIT) == 1) ++fillers;
    struct sigaction action = {};
    struct sigaction former;
    action.sa_handler = [](int) { ++theSignals; };
    ::sigaction(SIGUSR1, &action, &former);
    theSignals = 0;
    const pthread_t sender = ::pthread_self();
    std::thread other([&] {
        while (theSignals < 3) {
            ::pthread_kill(sender, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        for (int i = 0; i < fillers; ++i) EXPECT_EQ(channel.take(), Bytes(1, 'f'));
    });
    EXPECT_EQ(message.send(), 12);
    other.join();
    ::sigaction(SIGUSR1, &former, nullptr);
    EXPECT_EQ(channel.take(), Bytes({2, 3, 1, 1, 7, 0, 0, 0, 8, 0, 0, 0}));
}

TEST(PacketServerMessages, aShmMessageGoesIntoTheQueueWhileThereIsRoom) {
    EXPECT_EQ(NwCsPingMsg(nullptr).send(), -1);
    alignas(128) static char memory[512 + 64 + 16];
    ASSERT_TRUE(NwShmMsgQueueMgr::format(memory, 512 + 64, 1));
    NwShmMsgQueueWriter writer(memory, 512 + 64, -1, 0);
    NwShmMsgQueueReader reader(memory, 512 + 64, -1, 0, true, false, false);
    EXPECT_EQ(NwCsNoticeMsg(&writer, 1).send(), 4);
    NwCsMsg taken;
    int result = -1;
    EXPECT_EQ(reader.read(&taken, sizeof taken / 8, &result), 4);
    EXPECT_EQ(NwCsNoticeMsg(nullptr, &taken).notice(), 1);
    EXPECT_EQ(NwCsWarningMsg(&writer, 0, 0, "longer than this queue holds").send(), -1);
    EXPECT_EQ(writer.dropped(), 1u);
}

// --- what a server believes ---

struct Request {
    const char* what;
    Bytes bytes;
};

Bytes attach(const std::string& path) {
    Bytes bytes = {1, 3};
    bytes.resize(16);
    bytes.insert(bytes.end(), path.begin(), path.end());
    bytes.resize(176);
    return bytes;
}

TEST(PacketServerRequests, goodOnesAreBelieved) {
    const Request good[] = {
        {"attach", attach("/tmp/x")},
        {"longest path", attach("/" + std::string(158, 'x'))},
        {"operator include", {2, 3, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0}},
        {"operator exclude", {2, 3, 3, 0, 1, 0, 0, 0, 1, 0, 0, 0}},
        {"add any value", {2, 3, 3, 1, 255, 255, 255, 255, 1, 0, 0, 0}},
        {"join", {3, 3, 0, 0, 0, 0, 0, 0xE0, 0, 0, 0, 0}},
        {"leave", {3, 3, 1, 0, 255, 255, 255, 0xEF, 0, 0, 0, 0}},
        {"first request", {4, 3, 0, 0, 0, 0, 0, 0}},
        {"last request", {4, 3, 9, 0, 255, 255, 255, 255}},
    };
    for (const Request& one : good) {
        const NwCsMsg message = received(one.bytes);
        const long length = static_cast<long>(one.bytes.size());
        EXPECT_EQ(NwCsRequestProblem(&message, length), nullptr) << one.what;
        EXPECT_NE(NwCsRequestProblem(&message, length - 1), nullptr) << one.what << ", a byte less";
        EXPECT_NE(NwCsRequestProblem(&message, length + 1), nullptr) << one.what << ", a byte more";
        for (long cut : {-1L, 0L, 1L, 2L}) EXPECT_NE(NwCsRequestProblem(&message, cut), nullptr) << one.what;
        for (unsigned char version : {0, 2, 4, 255}) {
            NwCsMsg other = message;
            other.version = version;
            EXPECT_STREQ(NwCsRequestProblem(&other, length), "another message version") << one.what;
        }
    }
}

TEST(PacketServerRequests, badOnesAreNot) {
    const Request bad[] = {
        {"no request", {0, 3, 0, 0}},
        {"no request", {6, 3, 0, 0}},
        {"no request", {5, 3, 0, 0}},
        {"no request", {255, 3, 0, 0}},
        {"notify path that is not absolute", attach("")},
        {"notify path that is not absolute", attach("tmp/x")},
        {"notify path without an end", attach("/" + std::string(159, 'x'))},
        {"no such filter", {2, 3, 4, 0, 1, 0, 0, 0, 1, 0, 0, 0}},
        {"no such filter", {2, 3, 255, 0, 1, 0, 0, 0, 1, 0, 0, 0}},
        {"no such filter operation", {2, 3, 0, 2, 1, 0, 0, 0, 1, 0, 0, 0}},
        {"no such filter operator", {2, 3, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0}},
        {"no such multicast operation", {3, 3, 2, 0, 0, 0, 0, 0xE0, 0, 0, 0, 0}},
        {"no such multicast operation", {3, 3, 0, 1, 0, 0, 0, 0xE0, 0, 0, 0, 0}},
        {"not a multicast group", {3, 3, 0, 0, 255, 255, 255, 0xDF, 0, 0, 0, 0}},
        {"not a multicast group", {3, 3, 0, 0, 0, 0, 0, 0xF0, 0, 0, 0, 0}},
        {"no such control request", {4, 3, 10, 0, 0, 0, 0, 0}},
        {"no such control request", {4, 3, 0, 1, 0, 0, 0, 0}},
    };
    for (const Request& one : bad) {
        const NwCsMsg message = received(one.bytes);
        EXPECT_STREQ(NwCsRequestProblem(&message, static_cast<long>(one.bytes.size())), one.what);
    }
}

// --- for people ---

TEST(PacketServerPrint, theEndOfAnAttachmentIsAWarning) {
    EXPECT_EQ(warned(NwCsNoticeMsg(nullptr, 2)), "Packet server: stopped, no more packets for this client\n");
    EXPECT_EQ(warned(NwCsNoticeMsg(nullptr, 4)),
              "Packet server: gone, or it has dismissed this client: no more packets\n");
}

TEST(PacketServerPrint, otherNoticesInform) {
    EXPECT_EQ(informed(NwCsNoticeMsg(nullptr, NwCsNoticeExternal)),
              "Packet server: external mode, packets of every host\n");
    EXPECT_EQ(informed(NwCsNoticeMsg(nullptr, NwCsNoticeInternal)),
              "Packet server: internal mode, packets of this host alone\n");
    EXPECT_EQ(informed(NwCsNoticeMsg(nullptr, NwCsNoticeTest)), "Packet server: test message\n");
    EXPECT_EQ(informed(NwCsNoticeMsg(nullptr, NwCsNoticeUnbundlingOn)), "Packet server: unbundling on\n");
    EXPECT_EQ(informed(NwCsNoticeMsg(nullptr, NwCsNoticeUnbundlingOff)), "Packet server: unbundling off\n");
    EXPECT_EQ(informed(NwCsNoticeMsg(nullptr, 99)), "Packet server: notice 99\n");
}

TEST(PacketServerPrint, warnings) {
    EXPECT_EQ(warned(NwCsWarningMsg(nullptr, NwCsWarningText, 0, "so it is")), "Packet server: so it is\n");
    EXPECT_EQ(warned(NwCsWarningMsg(nullptr, NwCsWarningDropped, 12, nullptr)),
              "Packet server: 12 messages dropped, this client's queue was full\n");
    EXPECT_EQ(warned(NwCsWarningMsg(nullptr, NwCsWarningRefused, 0, "terminate: not your server")),
              "Packet server: refused: terminate: not your server\n");
    EXPECT_EQ(warned(NwCsQuotaMsg(-1)), "Packet server: no place for another client\n");
}

TEST(PacketServerPrint, textOfAnotherProcessCannotSteerATerminal) {
    EXPECT_EQ(warned(NwCsWarningMsg(nullptr, 0, 0, "a\x1B[2Jb\r\nc\x7F")), "Packet server: a?[2Jb??c?\n");
}

TEST(PacketServerPrint, bytesThatAreNoAsciiAreHidden) {
    std::string text;
    for (int c = 0x80; c <= 0xFF; ++c) text += static_cast<char>(c);
    EXPECT_EQ(warned(NwCsWarningMsg(nullptr, 0, 0, text.c_str())),
              "Packet server: " + std::string(128, '?') + "\n");
    EXPECT_EQ(warned(NwCsWarningMsg(nullptr, 0, 0, " ~")), "Packet server:  ~\n")
        << "the ends of what is not";
}

TEST(PacketServerPrint, aTextLengthBeyondTheRecordEndsWithIt) {
    Bytes bytes(176, 'w');
    const Bytes head = {11, 3, 0, 0, 255, 255, 255, 255, 0, 0, 0, 0, 0, 0, 0, 0};
    std::copy(head.begin(), head.end(), bytes.begin());
    const NwCsMsg message = received(bytes);
    EXPECT_EQ(warned(NwCsWarningMsg(nullptr, &message)), "Packet server: " + std::string(160, 'w') + "\n");
}

TEST(PacketServerPrint, serverState) {
    NwCsStateReturnRecord s = {};
    s.internal = 1;
    s.unbundling = 1;
    s.port = 3000;
    s.pid = 42;
    s.interfaceAddr = 0x7F000001;
    s.clients = 2;
    s.clientLimit = 8;
    s.controlClients = 1;
    s.controlLimit = 4;
    s.queueBytes = 65536;
    s.groups = 3;
    s.upSeconds = 10;
    s.datagrams = 11;
    s.packets = 12;
    s.kernelDropped = 13;
    s.outsideDropped = 14;
    std::strcpy(s.serverVersion, "54.0.0");
    EXPECT_EQ(
        informed(NwCsStateReturnMsg(nullptr, s)),
        "Packet server: port 3000 on 127.0.0.1, internal mode, unbundling on, process 42, version 54.0.0, up "
        "10 s\n"
        "    2 of 8 clients, 1 of 4 for control, queues of 65536 bytes, 3 multicast groups\n"
        "    11 datagrams, 12 packets, 13 dropped by the system, 14 of other hosts dropped\n");
}

TEST(PacketServerPrint, clientStateWithAProgramNameThatFillsItsField) {
    NwCsCStateReturnRecord s = {};
    s.flags = 0x100 | 7;
    s.index = 1;
    s.count = 3;
    s.clientId = 5;
    s.pid = 42;
    s.uid = 1000;
    s.delivered = 20;
    s.filtered = 21;
    s.dropped = 22;
    s.attachedSeconds = 23;
    s.queueBytes = 4096;
    s.queueUsedBytes = 64;
    s.queueHighWater = 128;
    s.groups = 1;
    for (NwCsFilterState& filter : s.filters) filter.excludes = 1;
    s.filters[2] = {0, 2};
    s.filters[3] = {1, 1};
    std::memset(s.program, 'n', sizeof s.program);
    EXPECT_EQ(
        informed(NwCsCStateReturnMsg(nullptr, s)),
        "Packet server: client 5 (2 of 3), nnnnnnnnnnnnnnnn, process 42 of user 1000, attached 23 s, control "
        "only\n"
        "    20 delivered, 21 filtered, 22 dropped; queue 64 of 4096 bytes, at most 128\n"
        "    unbundling off, 1 multicast groups, filters: kind includes 2, source excludes 1\n");
}

TEST(PacketServerPrint, requestsForALog) {
    EXPECT_EQ(informed(NwCsAddClientMsg(-1, 0x107, -1, 32, 42, "/tmp/x\n")),
              "Packet server: add client with process 42, flags 0x107, answer to /tmp/x?\n");
    EXPECT_EQ(informed(NwCsFilterMsg(-1, 0, 0, 1, 5)), "Packet server: client 5, exercise filter: exclude\n");
    EXPECT_EQ(informed(NwCsFilterMsg(-1, 3, 1, 7, 5)), "Packet server: client 5, source filter: add 7\n");
    EXPECT_EQ(informed(NwCsFilterMsg(-1, 9, 1, 7, 5)), "Packet server: client 5, unknown filter: add 7\n");
    EXPECT_EQ(informed(NwCsMulticastReqMsg(-1, 0, 0xEF000001, 5)),
              "Packet server: client 5, join group 239.0.0.1\n");
    EXPECT_EQ(informed(NwCsControlReqMsg(-1, 6, 5)), "Packet server: client 5, request 6: terminate\n");
    EXPECT_EQ(informed(NwCsControlReqMsg(-1, 10, 5)), "Packet server: client 5, request 10: unknown\n");
    EXPECT_EQ(informed(NwCsAckMsg(-1, false, 5, 1, 2, 3, 4)),
              "Packet server: client 5 accepted (external mode), queue of 3 bytes under key 1, semaphores "
              "under key "
              "2\n");
    EXPECT_EQ(informed(NwCsPingMsg(nullptr)), "Packet server: message of kind 0, version 3\n");
}

}  // namespace

// SPDX-License-Identifier: BSD-3-Clause
// Receiving files: what becomes of the bytes that raw peers send, honest ones and others, whole, broken off,
// slow or without end.
#include <cvNetworkCompatibility/cvFileTransport.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "appointed_clock.h"
#include "file_receive.h"
#include "file_transfer.h"
#include "messages.h"
#include "network.h"
#include "process.h"
#include "tcp_peer.h"

// --- reads, counted ---------------------------------------------------------------------------------------

namespace {

std::atomic<long> theReads{0};

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t recv(int fd, void* bytes, size_t length,
                                                               int flags) {
    ++theReads;
    return ::syscall(SYS_recvfrom, fd, bytes, length, flags, nullptr, nullptr);
}

// --- a file arrives -------------------------------------------------------------------------------------

TEST_F(FileReceive, aMessageIsAFile) {
    deliver(std::string("\0\0\0\x1A\1\2\3\4\0\0\0\3\0\0\0\3\0\0\0\0ab\0xyz", 26));
    EXPECT_EQ(contentsOf(inInbox("ab")), "xyz");
    EXPECT_EQ(arrived, std::vector<std::string>{inInbox("ab")});
    EXPECT_EQ(receiver.transfersUnderWay(), 0u);
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(FileReceive, inHostByteOrderToo) {
    const HostByteOrder hostOrder;
    deliver(std::string("\x1A\0\0\0\4\3\2\1\3\0\0\0\3\0\0\0\0\0\0\0ab\0xyz", 26));
    EXPECT_EQ(contentsOf(inInbox("ab")), "xyz");
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(FileReceive, laterMessagesGoOn) {
    deliver(std::string("\0\0\0\x19\1\2\3\4\0\0\0\6\0\0\0\6\0\0\0\0ab\0AB", 25) +
            std::string("\0\0\0\x0B\1\2\3\4cde", 11) + std::string("\0\0\0\x09\1\2\3\4F", 9));
    EXPECT_EQ(contentsOf(inInbox("ab")), "ABcdeF");
    EXPECT_EQ(messages.debug(),
              "FileTransporter: Received 25 bytes in file transporter\n"
              "FileTransporter: Received 11 bytes in file transporter\n"
              "FileTransporter: Received 9 bytes in file transporter\n");
}

TEST_F(FileReceive, anyCutIntoMessagesIsTheSameFile) {
    const std::string data = randomBytes(500);
    for (const std::size_t part : {1u, 7u, 100u, 499u, 500u}) {
        std::string stream = FirstMessage(kId, "file", "").announcing(data.size()).bytes();
        for (std::size_t at = 0; at < data.size(); at += part)
            stream += laterMessage(kId, data.substr(at, part));
        deliver(stream);
        EXPECT_TRUE(contentsOf(inInbox("file")) == data) << part;
    }
    EXPECT_EQ(arrived.size(), 5u);
    deliver(FirstMessage(kId, "file", "").announcing(3).bytes() + laterMessage(kId, "") +
            laterMessage(kId, "abc"));
    EXPECT_EQ(contentsOf(inInbox("file")), "abc") << "a message may be empty";
}

TEST_F(FileReceive, byteForByte) {
    const std::string stream = streamOf(kId, "file", "some content", 30);
    TcpPeer peer = connect();
    std::thread trickle([&] { peer.sendBytes(stream); });
    receiver.tick();
    trickle.join();
    EXPECT_EQ(contentsOf(inInbox("file")), "some content");
}

TEST_F(FileReceive, connectionTestsBetweenMessagesAreSwallowed) {
    const std::string test = u32(4);
    deliver(test + FirstMessage(kId, "file", "").announcing(2).bytes() + test + test +
            laterMessage(kId, "ab"));
    EXPECT_EQ(contentsOf(inInbox("file")), "ab");
}

TEST_F(FileReceive, anAnnouncedSizeOfNothingIsAnEmptyFile) {
    deliver(fileBytes("empty", ""));
    EXPECT_TRUE(dir.has("inbox/empty"));
    EXPECT_EQ(contentsOf(inInbox("empty")), "");
    EXPECT_EQ(arrived, std::vector<std::string>{inInbox("empty")});
}

TEST_F(FileReceive, theFileSizeIsForInformationOnly) {
    for (const unsigned int fileSize : {0u, 1u, 4u, 100u, 0xFFFFFFFFu}) {
        FirstMessage first(kId, "file", "ab");
        first.fileSize = fileSize;
        first.dataSize = 4;
        deliver(first.bytes() + laterMessage(kId, "cd"));
        EXPECT_EQ(contentsOf(inInbox("file")), "abcd") << fileSize;
        ::unlink(inInbox("file").c_str());
    }
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(FileReceive, twoTransfersMayShareAConnection) {
    deliver(FirstMessage(1, "one", "a").announcing(2).bytes() +
            FirstMessage(2, "two", "x").announcing(3).bytes() + laterMessage(1, "b") + laterMessage(2, "yz"));
    EXPECT_EQ(contentsOf(inInbox("one")), "ab");
    EXPECT_EQ(contentsOf(inInbox("two")), "xyz");
    EXPECT_EQ(arrived, (std::vector<std::string>{inInbox("one"), inInbox("two")}));
}

TEST_F(FileReceive, severalConnectionsAreServedByOneTick) {
    for (const char* name : {"a", "b", "c"}) {
        peers.push_back(connect());
        peers.back().sendAll(fileBytes(name, name));
    }
    receiver.tick();
    EXPECT_EQ(arrived, (std::vector<std::string>{inInbox("a"), inInbox("b"), inInbox("c")}));
    EXPECT_EQ(receiver.connections(), 3) << "they stay until they are closed";
}

TEST_F(FileReceive, theLongestMessageIsTaken) {
    const MessageLimit limit(40);
    deliver(fileBytes("name", std::string(40 - 25, 'x')));
    EXPECT_EQ(contentsOf(inInbox("name")), std::string(15, 'x'));
    arrived.clear();
    expectRefused(fileBytes("more", std::string(40 - 24, 'x')));
}

TEST_F(FileReceive, withoutRoomForAMessageEveryOneIsRefused) {
    for (const int size : {8, 7, 1, 0, -1, INT_MIN}) {
        const MessageLimit limit(size);
        expectRefused(fileBytes("file", "data"));
    }
    expectGoesOn();
}

// --- messages that are none -----------------------------------------------------------------------------

TEST_F(FileReceive, aMessageTooShortForItsFieldsIsRefused) {
    const std::string whole = fileBytes("n", "").substr(4);  // without its length
    for (std::size_t length = 5; length < 4 + whole.size(); ++length) {
        SCOPED_TRACE(length);
        expectRefused(message(whole.substr(0, length - 4)));
    }
    deliver(message(whole));
    EXPECT_TRUE(dir.has("inbox/n")) << "whole, it is one";
}

TEST_F(FileReceive, aMessageTooShortForAnIdentifierHasNone) {
    // The identifier's missing bytes would be those of the message before.
    for (const std::size_t length : {1u, 2u, 3u}) {
        SCOPED_TRACE(length);
        expectRefused(FirstMessage(kId, "name", "da").announcing(4).bytes() +
                      message(u32(kId).substr(0, length)) + laterMessage(kId, "ta"));
    }
}

TEST_F(FileReceive, aNameWithoutItsEndIsRefused) {
    expectRefused(FirstMessage(kId, "name", "").bytes(true, ""));
    expectRefused(FirstMessage(kId, std::string(5000, 'n'), "").bytes(true, ""));
    expectRefused(FirstMessage(kId, "name", "").bytes(true, "") + std::string(100, '\0'));
    const MessageLimit limit(64);
    expectRefused(FirstMessage(kId, std::string(64 - 20, 'n'), "").bytes(true, ""));
}

TEST_F(FileReceive, aMessageLongerThanTheLimitIsRefused) {
    for (const std::size_t excess : {1u, 2u, 1000u, 100000u}) {
        const std::size_t size = static_cast<std::size_t>(NwMaxPacketSize()) - 25 + excess;
        expectRefused(fileBytes("name", std::string(size, 'x')));
        // Also when what lies within the limit would do.
        FirstMessage first(kId, "name", std::string(size, 'x'));
        expectRefused(first.announcing(size - excess).bytes());
    }
    expectRefused(FirstMessage(kId, "name", "").announcing(100000).bytes() +
                  laterMessage(kId, std::string(static_cast<std::size_t>(NwMaxPacketSize()) - 7, 'x')));
}

TEST_F(FileReceive, dataBeyondTheAnnouncedSizeAreRefused) {
    for (const unsigned int size : {0u, 1u, 3u}) {
        FirstMessage first(kId, "name", "data");
        expectRefused(first.announcing(size).bytes());
        first.fileSize = 4;
        expectRefused(first.bytes());
    }
    const std::string first = FirstMessage(kId, "name", "da").announcing(4).bytes();
    expectRefused(first + laterMessage(kId, "ta!"));
    expectRefused(first + laterMessage(kId, "t") + laterMessage(kId, "a!"));
    expectRefused(first + laterMessage(kId, std::string(10000, 'x')));
}

TEST_F(FileReceive, aSecondHeaderIsDataLikeAnyOther) {
    const std::string header = fileBytes("../second", "xx");
    const std::string data = header.substr(8);
    deliver(FirstMessage(kId, "first", "").announcing(data.size() + 1).bytes() + header +
            laterMessage(kId, "!"));
    EXPECT_EQ(contentsOf(inInbox("first")), data + "!");
    const auto before = dir.tree();
    arrived.clear();
    expectRefused(FirstMessage(kId, "first", "").announcing(data.size() - 1).bytes() + header);
    expectRefused(FirstMessage(kId, "other", "x").announcing(5).bytes() +
                  FirstMessage(kId, "other", "x").announcing(5).bytes());
    EXPECT_EQ(dir.tree(), before);
}

TEST_F(FileReceive, aMessageForAnUnknownIdentifierIsTakenForAFirstOne) {
    expectRefused(laterMessage(kId, "data"));
    expectRefused(laterMessage(kId, std::string(100, 'x')));
    // Behind a file that is complete, its identifier is unknown again; nobody reads on.
    deliver(fileBytes("file", "data") + laterMessage(kId, "more"));
    EXPECT_EQ(contentsOf(inInbox("file")), "data");
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(FileReceive, aMalformedMessageTakesTheConnectionsOtherTransfersAlong) {
    expectRefused(FirstMessage(1, "one", "a").announcing(2).bytes() +
                  FirstMessage(2, "two", "").announcing(2).bytes() + laterMessage(3, "none") +
                  laterMessage(1, "b"));
    expectGoesOn();
}

TEST_F(FileReceive, aConnectionMayHaveAThousandTransfersOpen) {
    std::string announcements;
    for (unsigned int id = 1; id <= 1000; ++id)
        announcements += FirstMessage(id, std::to_string(id), "").announcing(1).bytes();
    deliver(announcements + laterMessage(500, "x") + FirstMessage(2000, "again", "").announcing(1).bytes() +
            fileBytes("one-too-many", "x", 2001));
    EXPECT_EQ(messages.warn(), kMalformed);
    EXPECT_EQ(dir.tree(), (std::map<std::string, std::string>{{"inbox", "directory"}, {"inbox/500", "x"}}));
    EXPECT_EQ(receiver.transfersUnderWay(), 0u);
}

TEST_F(FileReceive, filesBeforeAMalformedMessageStay) {
    deliver(FirstMessage(1, "open", "a").announcing(2).bytes() + fileBytes("whole", "data") +
            laterMessage(3, "none"));
    EXPECT_EQ(messages.warn(), kMalformed);
    EXPECT_EQ(contentsOf(inInbox("whole")), "data");
    EXPECT_FALSE(dir.has("inbox/open"));
    EXPECT_EQ(arrived, std::vector<std::string>{inInbox("whole")});
}

TEST_F(FileReceive, aLengthThatNoMessageHasEndsTheConnection) {
    for (const unsigned int length : {0u, 1u, 3u, 0x80000000u, 0xFFFFFFFFu}) {
        const std::string bytes = FirstMessage(kId, "name", "a").announcing(2).bytes() + u32(length) + "xxxx";
        expectRefused(bytes,
                      "NwTcpSocket: bad packet length " + std::to_string(length) + "\n" + kSocketError);
        const Quiet quiet;
        expectRefused(bytes, kSocketError);
    }
}

TEST_F(FileReceive, warningsArePrintedWhileSocketsAreQuiet) {
    const Quiet quiet;
    expectRefused(laterMessage(kId, "data"));
    deliverAndClose(FirstMessage(kId, "name", "").announcing(5).bytes());
    EXPECT_EQ(messages.warn(), kSocketError);
    ASSERT_EQ(::mkdir(inInbox("name").c_str(), 0755), 0);
    deliver(fileBytes("name", "data"));
    EXPECT_EQ(messages.warn(), cantCreate(inInbox("name")));
}

// --- connections that break -----------------------------------------------------------------------------

TEST_F(FileReceive, aConnectionThatEndsAtAnyByteLeavesNothing) {
    const std::string stream = streamOf(kId, "name", "0123456789abcdefghij", 30);
    const std::map<std::string, std::string> nothing = {{"inbox", "directory"}};
    for (std::size_t cut = 0; cut < stream.size(); ++cut) {
        SCOPED_TRACE(cut);
        deliverAndClose(stream.substr(0, cut));
        EXPECT_EQ(messages.warn(), kSocketError);
        EXPECT_EQ(dir.tree(), nothing);
        EXPECT_TRUE(arrived.empty());
        EXPECT_EQ(receiver.transfersUnderWay(), 0u);
        EXPECT_EQ(receiver.connections(), 0);
    }
    deliverAndClose(stream);
    EXPECT_EQ(messages.warn(), "");
    EXPECT_EQ(contentsOf(inInbox("name")), "0123456789abcdefghij");
}

TEST_F(FileReceive, aResetIsToldByTheSocketToo) {
    TcpPeer peer = connect();
    std::thread receiving([&] { receiver.tick(); });
    peer.sendAll(FirstMessage(kId, "name", "a").announcing(2).bytes());
    EXPECT_TRUE(eventually([&] { return messages.debug() != ""; })) << "the message was taken in";
    peer.reset();
    receiving.join();
    EXPECT_EQ(messages.warn(), systemReport("Network read error: ", ECONNRESET) + "\n" + kSocketError);
    EXPECT_EQ(receiver.transfersUnderWay(), 0u);
    expectGoesOn();
}

TEST_F(FileReceive, aConnectionThatEndsTakesAllItsTransfersAlong) {
    deliverAndClose(FirstMessage(1, "one", "a").announcing(2).bytes() +
                    FirstMessage(2, "two", "a").announcing(2).bytes() + fileBytes("three", "whole"));
    EXPECT_EQ(messages.warn(), kSocketError) << "one warning";
    EXPECT_EQ(dir.tree(),
              (std::map<std::string, std::string>{{"inbox", "directory"}, {"inbox/three", "whole"}}));
    EXPECT_EQ(receiver.transfersUnderWay(), 0u);
}

// A process that is killed, whatever it was just doing.
TEST_F(FileReceive, aPeerThatIsKilledLeavesNothing) {
    std::mt19937 random(20);
    const std::string stream = streamOf(kId, "name", randomBytes(3000000), NwMaxPacketSize());
    for (int round = 0; round < 20; ++round) {
        const std::size_t cut = random() % stream.size();
        SCOPED_TRACE(cut);
        TcpPeer peer = connect();
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (std::size_t sent = 0; sent < cut;) {
                const ssize_t n = ::send(peer.fd(), stream.data() + sent, cut - sent, MSG_NOSIGNAL);
                if (n > 0) sent += static_cast<std::size_t>(n);
            }
            ::kill(::getpid(), SIGKILL);
        }
        peer.close();
        receiver.tick();
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(messages.warn(), kSocketError);
        EXPECT_EQ(dir.tree(), (std::map<std::string, std::string>{{"inbox", "directory"}}));
        EXPECT_EQ(receiver.transfersUnderWay(), 0u);
    }
    expectGoesOn();
}

TEST_F(FileReceive, connectionsThatEndedAreRemovedByALaterTick) {
    deliver(fileBytes("file", "data"));
    receiver.tick();
    EXPECT_EQ(receiver.connections(), 1) << "alive";
    peers.clear();
    EXPECT_TRUE(eventually([&] {
        receiver.tick();
        return receiver.connections() == 0;
    }));
    const std::string warnings = messages.warn();
    EXPECT_TRUE(warnings == systemReport("TCP Socket sendTo error: ", EPIPE) + "\n" ||
                warnings == systemReport("TCP Socket sendTo error: ", ECONNRESET) + "\n")
        << warnings;
}

TEST_F(FileReceive, oneTickRemovesEveryConnectionThatEndedAndNoOther) {
    const Quiet quiet;
    for (int i = 0; i < 5; ++i) deliver(fileBytes("file", "data"));
    ASSERT_EQ(receiver.connections(), 5);
    const auto listed = [&] {
        std::vector<const void*> sockets;
        for (NwListItem* item = receiver.mySocketMgr->socketList()->first(); item; item = item->next())
            sockets.push_back(item->data());
        return sockets;
    };
    const std::vector<const void*> before = listed();
    for (const std::size_t ended : {0u, 1u, 3u, 4u})
        static_cast<NwTcpSocket*>(const_cast<void*>(before[ended]))->shutDown();
    receiver.tick();
    EXPECT_EQ(listed(), std::vector<const void*>{before[2]});
}

// Of many that wait to be accepted, those that are through hold no descriptor.
TEST_F(FileReceive, connectionsThatEndedGoBeforeTheNextIsReceivedFrom) {
    for (int i = 0; i < 20; ++i) {
        TcpPeer peer = connect();
        peer.sendAll(fileBytes("file", "data"));
    }
    static int mostConnections;
    mostConnections = 0;
    receiver.addFileTransferedCallback(
        [](const NwFilename&, void* transporter) {
            mostConnections = std::max(mostConnections, static_cast<Receiver*>(transporter)->connections());
        },
        &receiver);
    deliver(fileBytes("last", "data"));
    EXPECT_EQ(arrived.size(), 21u);
    EXPECT_EQ(messages.warn(), "") << "they go silently";
    EXPECT_EQ(mostConnections, 1) << "the one that is received from";
}

TEST_F(FileReceive, everyTickSendsAConnectionTest) {
    TcpPeer& peer = deliver(fileBytes("file", "data"));
    EXPECT_EQ(peer.receive(4), u32(4)) << "as long as its length field, which is 4 bytes wide";
    receiver.tick();
    EXPECT_EQ(peer.receive(4), u32(4));
}

TEST_F(FileReceive, connectionTestsDoNotPileUpForAPeerThatNeverReads) {
    TcpPeer peer(receiver.port(), kLoopback, 1);
    peer.sendAll(fileBytes("file", "data"));
    receiver.tick();
    ASSERT_EQ(receiver.connections(), 1);
    NwTcpSocket& socket = *static_cast<NwTcpSocket*>(receiver.mySocketMgr->socketList()->first()->data());
    socket.setSendBufferSize(1);
    const auto queued = [&] { return socket.getQueueStatus(); };
    int ticks = 0;
    while (queued().first == 0 && ++ticks < 1000000) receiver.tick();
    EXPECT_EQ(queued().first, 1) << "the kernel is full";
    for (int i = 0; i < 1000; ++i) receiver.tick();
    EXPECT_EQ(queued(), std::make_pair(1, 1));
    EXPECT_EQ(receiver.connections(), 1);
}

// --- silent and trickling peers -------------------------------------------------------------------------

TEST_F(FileReceive, aSilentPeerIsWaitedForByDefault) {
    TcpPeer peer = connect();
    std::atomic<bool> isOver{false};
    std::thread receiving([&] {
        receiver.tick();
        isOver = true;
    });
    for (int i = 0; i < 4; ++i) {
        passSeconds(1000);
        pause(110);
        EXPECT_FALSE(isOver);
    }
    peer.sendAll(fileBytes("file", "data"));
    receiving.join();
    EXPECT_EQ(contentsOf(inInbox("file")), "data");
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(FileReceive, aPeerThatMakesNoProgressReleasesTickAfterTheLimit) {
    const StallLimits limits(30, 50);
    const std::string first = FirstMessage(kId, "file", "some").announcing(100).bytes();
    const std::string later = laterMessage(kId, "data");
    const std::pair<std::string, std::string> beginnings[] = {
        {"nothing", ""},
        {"part of a length", first.substr(0, 3)},
        {"part of a message", first.substr(0, 15)},
        {"a message", first},
        {"a message and a half", first + later.substr(0, 6)}};
    for (const auto& beginning : beginnings) {
        SCOPED_TRACE(beginning.first);
        TcpPeer peer = connect();
        peer.sendAll(beginning.second);
        std::atomic<bool> isOver{false};
        std::thread receiving([&] {
            receiver.tick();
            isOver = true;
        });
        pause(50);
        passSeconds(40);
        pause(220);
        EXPECT_FALSE(isOver);
        EXPECT_TRUE(endsAfter(51, isOver));
        if (isOver) expectEnded(peer);
        peer.close();
        receiving.join();
        EXPECT_EQ(messages.warn(), kNoProgress);
        EXPECT_EQ(receiver.transfersUnderWay(), 0u);
        EXPECT_EQ(receiver.connections(), 0);
    }
    EXPECT_FALSE(dir.has("inbox/file"));
    expectGoesOn();
}

TEST_F(FileReceive, bytesThatCompleteNoDataAreNoProgress) {
    const StallLimits limits(30, 50);
    const std::string first = FirstMessage(kId, "file", "some").announcing(100).bytes();
    const std::string endless[] = {
        u32(10000) + u32(kId) + std::string(9000, 'x'), u32(4), laterMessage(kId, ""),
        FirstMessage(kId + 1, "other", "").announcing(1).bytes() + laterMessage(kId + 1, "")};
    for (const std::string& bytes : endless) {
        SCOPED_TRACE(bytes.size());
        TcpPeer peer = connect();
        peer.sendAll(first);
        std::atomic<bool> isOver{false};
        std::thread receiving([&] {
            receiver.tick();
            isOver = true;
        });
        for (std::size_t at = 0; !isOver && at < 20000; ++at) {
            if (::send(peer.fd(), &bytes[at % bytes.size()], 1, MSG_NOSIGNAL) != 1) break;
            passSeconds(1);
            pause(1);
        }
        EXPECT_TRUE(eventually([&] { return isOver.load(); }));
        peer.close();
        receiving.join();
        EXPECT_EQ(messages.warn(), kNoProgress);
        messages.debug();
    }
}

// It waits for the descriptor: a receiver that asked again and again would do so a hundred thousand times in
// this half second.
TEST_F(FileReceive, asksSeldomWhileAPeerIsSilent) {
    const StallLimits limits(30, 0.5);
    theReads = 0;
    deliver(FirstMessage(kId, "file", "some").announcing(100).bytes());
    EXPECT_EQ(messages.warn(), kNoProgress);
    EXPECT_GE(theReads, 3) << "a length, a message, nothing";
    EXPECT_LE(theReads, 1000);
}

// As fast as the connection takes them: there is always something to read, and never a byte of a file that
// was begun.
TEST_F(FileReceive, aFloodWithoutDataIsNoProgress) {
    const StallLimits limits(30, 50);
    const std::pair<std::string, std::string> floods[] = {
        {"connection tests", u32(4)},
        {"later messages", laterMessage(kId, "")},
        {"whole files of no bytes", fileBytes("empty", "", kId + 1)}};
    for (const auto& flood : floods) {
        SCOPED_TRACE(flood.first);
        std::string bytes;
        while (bytes.size() < 100000) bytes += flood.second;
        TcpPeer peer = connect();
        peer.sendAll(FirstMessage(kId, "file", "some").announcing(100).bytes());
        std::atomic<bool> isOver{false};
        std::thread flooding([&] {
            while (!isOver && ::send(peer.fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0) {
            }
        });
        std::thread receiving([&] {
            NwSetOutputLevel(NwOutputWarn);
            receiver.tick();
            isOver = true;
        });
        pause(50);
        passSeconds(40);
        pause(220);
        EXPECT_FALSE(isOver);
        EXPECT_TRUE(endsAfter(51, isOver));
        if (!isOver) ::shutdown(peer.fd(), SHUT_RDWR);
        receiving.join();
        flooding.join();
        EXPECT_EQ(messages.warn(), kNoProgress);
        EXPECT_EQ(receiver.transfersUnderWay(), 0u);
        EXPECT_EQ(receiver.connections(), 0);
        EXPECT_FALSE(dir.has("inbox/file"));
    }
}

TEST_F(FileReceive, aSlowPeerThatMakesProgressIsWaitedFor) {
    const StallLimits limits(30, 50);
    TcpPeer peer = connect();
    std::thread receiving([&] { receiver.tick(); });
    const auto isTaken = [&] { return eventually([&] { return messages.debug() != ""; }); };
    peer.sendAll(FirstMessage(kId, "file", "").announcing(10).bytes());
    EXPECT_TRUE(isTaken());
    for (int i = 0; i < 10; ++i) {
        pause(120);  // a look at the clock on either side
        passSeconds(30);
        pause(5);
        peer.sendAll(laterMessage(kId, "x"));
        EXPECT_TRUE(isTaken());
    }
    receiving.join();
    EXPECT_EQ(contentsOf(inInbox("file")), "xxxxxxxxxx");
    EXPECT_EQ(messages.warn(), "");
}

// --- memory ---------------------------------------------------------------------------------------------

namespace {

// Looks at the memory before each message is taken in.
class Weighed : public Receiver {
public:
    using Receiver::Receiver;
    NwFileTransportObject& transportObject(int id) override {
        most = std::max(most, residentBytes());
        mostAddressed = std::max(mostAddressed, addressedBytes());
        return NwFileTransporter::transportObject(id);
    }
    // What is set aside as address space, whether or not it is used: the system bounds that, too.
    static std::size_t addressedBytes() {
        std::size_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        return pages * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    }
    std::size_t most = 0, mostAddressed = 0;
};

const unsigned int kAnnouncements = kIsSanitized ? 50 : 1000;
const unsigned long kHuge = 0xFFFFFFFFul;
const std::size_t kFlat = std::size_t(8) << 20;

}  // namespace

TEST_F(FileReceive, announcementsOnOneConnectionCommitNoMemory) {
    Weighed weighed(inbox());
    for (const std::string data : {"", "x"}) {
        TcpPeer peer(weighed.port());
        std::string stream;
        for (unsigned int id = 1; id <= kAnnouncements; ++id)
            stream += FirstMessage(id, "huge", data).announcing(kHuge).bytes();
        std::thread sending([&] {
            peer.sendAll(stream);
            peer.close();
        });
        weighed.most = weighed.mostAddressed = 0;
        const std::size_t before = residentBytes(), addressedBefore = Weighed::addressedBytes();
        weighed.tick();
        sending.join();
        EXPECT_EQ(messages.warn(), kSocketError);
        EXPECT_GT(weighed.most, 0u);
        if (!kIsSanitized) {
            EXPECT_LE(weighed.most, before + kFlat);
            EXPECT_LE(weighed.mostAddressed, addressedBefore + (std::size_t(1) << 30));
        }
        EXPECT_EQ(weighed.transfersUnderWay(), 0u);
        messages.debug();
    }
}

TEST_F(FileReceive, announcementsOnManyConnectionsCommitNoMemoryAndAreOneWarningEach) {
    const Quiet quiet;
    Weighed weighed(inbox());
    for (const std::string data : {"", "x", "some more data"}) {
        const std::size_t before = residentBytes();
        weighed.most = 0;
        for (unsigned int id = 1; id <= kAnnouncements; ++id) {
            {
                TcpPeer peer(weighed.port());
                peer.sendAll(FirstMessage(id, "huge", data).announcing(kHuge).bytes());
            }
            weighed.tick();
            ASSERT_EQ(messages.warn(), kSocketError) << id;
            ASSERT_EQ(weighed.transfersUnderWay(), 0u);
            messages.all();
        }
        if (!kIsSanitized) {
            EXPECT_LE(std::max(weighed.most, residentBytes()), before + kFlat);
        }
    }
    EXPECT_EQ(weighed.connections(), 0);
    expectGoesOn();
}

TEST_F(FileReceive, anAnnouncedMessageLengthCommitsNoMemory) {
    const Quiet quiet;
    const std::size_t before = residentBytes();
    for (unsigned int id = 1; id <= kAnnouncements; ++id) {
        deliverAndClose(u32(0x7FFFFFFF) + u32(id) + "x");
        EXPECT_EQ(messages.warn(), kSocketError);
        messages.all();
    }
    if (!kIsSanitized) {
        EXPECT_LE(residentBytes(), before + kFlat);
    }
}

TEST_F(FileReceive, aFileIsInMemoryOnce) {
    if (kIsSanitized) GTEST_SKIP() << "the sanitizer needs memory of its own";
    const std::size_t size = std::size_t(64) << 20;
    Weighed weighed(inbox());
    TcpPeer peer(weighed.port());
    const std::string stream = streamOf(kId, "file", std::string(size, 'x'), NwMaxPacketSize());
    std::thread sending([&] { peer.sendAll(stream); });
    const std::size_t before = residentBytes();
    weighed.tick();
    sending.join();
    EXPECT_EQ(NwFilename(inInbox("file")).fileSize(), static_cast<long long>(size));
    EXPECT_LE(weighed.most, before + size + kFlat);
}

// SPDX-License-Identifier: BSD-3-Clause
// Sending files: what a raw peer reads from the wire, byte for byte, and what the sender makes of files,
// peers and derived classes that do not play along.
#include <cvNetworkCompatibility/cvFileTransport.h>

#include <cvNetworkCompatibility/cvTcpSocket.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <fstream>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "appointed_clock.h"
#include "file_transfer.h"
#include "messages.h"
#include "network.h"
#include "process.h"
#include "tcp_peer.h"

// --- the time of day, by appointment --------------------------------------------------------------------

namespace {

std::atomic<long> theTimeOfDay{-1};  // negative: the system's

}  // namespace

extern "C" __attribute__((visibility("default"))) time_t time(time_t* result) noexcept {
    timespec now;
    ::syscall(SYS_clock_gettime, CLOCK_REALTIME, &now);
    const time_t seconds = theTimeOfDay < 0 ? now.tv_sec : theTimeOfDay.load();
    if (result) *result = seconds;
    return seconds;
}

// --- what happens between two looks at a file ------------------------------------------------------------

namespace {

std::function<void()> theMomentAfterStat;

}  // namespace

extern "C" __attribute__((visibility("default"))) int stat(const char* path, struct stat* status) noexcept {
    const int result = ::fstatat(AT_FDCWD, path, status, 0);
    if (theMomentAfterStat) std::exchange(theMomentAfterStat, nullptr)();
    return result;
}

// --- sends, counted ---------------------------------------------------------------------------------------

namespace {

std::atomic<long> theSends{0};

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t send(int fd, const void* bytes, size_t length,
                                                               int flags) {
    ++theSends;
    return ::syscall(SYS_sendto, fd, bytes, length, flags, nullptr, 0);
}

namespace {

const bool kIsSanitized = *CVNC_SANITIZER != '\0';

void pause(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

// The identifier before any other of this process.
unsigned int firstIdentifier() {
    theTimeOfDay = 1000000;
    std::streambuf* const former = NwWarn.rdbuf(nullptr);
    const unsigned int id = NwFileTransporter(1, true, 0, "", nullptr).nextFileIdentifier();
    NwWarn.rdbuf(former);
    theTimeOfDay = -1;
    return id;
}
const unsigned int theFirstIdentifier = firstIdentifier();

const unsigned int kId = 0x01020304;

struct Progress {
    int sent, total;
    bool operator==(const Progress& other) const { return sent == other.sent && total == other.total; }
};

// Sends under an identifier that is known, and can play false when the file is read.
class Sender : public NwFileTransporter {
public:
    explicit Sender(const Directory& dir) : NwFileTransporter(0, false, 0, dir.path(), nullptr) {}

    unsigned int nextFileIdentifier() override {
        ++identifiers;
        return kId;
    }
    bool readFileToBuffer(std::ifstream& in, std::vector<char>& buffer, int size, int& bytesRead,
                          NwFileTransportFlags& flags) override {
        bufferSizeBefore = buffer.size();
        if (instead) return instead(buffer, bytesRead, flags);
        if (beforeReading) beforeReading();
        return NwFileTransporter::readFileToBuffer(in, buffer, size, bytesRead, flags);
    }
    void sendProgress(NwTcpSocket& socket, int sent, int total) override {
        progress.push_back({sent, total});
        mostQueued = std::max(mostQueued, socket.getQueueStatus().first);
        if (!socket.isOk() || socket.readFd() < 0) hasOpenSocket = false;
        if (onProgress) onProgress(socket);
    }

    int identifiers = 0;
    std::size_t bufferSizeBefore = 99;
    std::function<bool(std::vector<char>&, int&, NwFileTransportFlags&)> instead;
    std::function<void()> beforeReading;
    std::function<void(NwTcpSocket&)> onProgress;
    std::vector<Progress> progress;
    int mostQueued = 0;
    bool hasOpenSocket = true;
};

class FileSend : public testing::Test {
protected:
    bool send(const std::string& path) { return sender.sendFile(path, kLoopback, listener.port()); }
    // Sends the file, and returns what reached the peer before the connection was closed.
    std::string sent(const std::string& path) {
        std::future<std::string> stream =
            std::async(std::launch::async, [this] { return listener.accept().receiveToEnd(); });
        EXPECT_TRUE(send(path));
        EXPECT_TRUE(sender.lastSendComplete());
        return stream.get();
    }
    bool hasConnection() { return waitReadable(listener.fd(), 0); }

    std::string refusal(const char* text, const std::string& path) {
        return "Corvane(NwFileTransporter)" + std::string(text) + path + "\n";
    }
    // The file is refused with that text, nothing else, and before a connection is made.
    void expectRefused(const std::string& path, const char* text = ": error opening file ") {
        EXPECT_FALSE(send(path)) << path;
        EXPECT_EQ(messages.warn(), refusal(text, path));
        EXPECT_FALSE(sender.lastSendComplete());
        EXPECT_FALSE(hasConnection()) << path;
    }

    Messages messages;
    Directory dir;
    TcpListener listener;
    Sender sender{dir};
};

}  // namespace

// --- the wire -------------------------------------------------------------------------------------------

TEST_F(FileSend, aSmallFileIsOneMessage) {
    EXPECT_EQ(sent(dir.write("ab", "xyz")),
              std::string("\0\0\0\x1A\1\2\3\4\0\0\0\3\0\0\0\3\0\0\0\0ab\0xyz", 26));
}

TEST_F(FileSend, inHostByteOrderTheNumbersAreReversed) {
    const HostByteOrder hostOrder;
    EXPECT_EQ(sent(dir.write("ab", "xyz")),
              std::string("\x1A\0\0\0\4\3\2\1\3\0\0\0\3\0\0\0\0\0\0\0ab\0xyz", 26));
}

TEST_F(FileSend, aLargerFileGoesOnInLaterMessages) {
    const MessageLimit limit(24);
    EXPECT_EQ(sent(dir.write("n", "ABcdefghijklmnopqrSTU")),
              std::string("\0\0\0\x18\1\2\3\4\0\0\0\x15\0\0\0\x15\0\0\0\0n\0AB", 24) +
                  std::string("\0\0\0\x18\1\2\3\4cdefghijklmnopqr", 24) +
                  std::string("\0\0\0\x0B\1\2\3\4STU", 11));
}

TEST_F(FileSend, isCutAtTheLongestMessage) {
    for (const int limit : {30, 64, 1500, 15000, 100000}) {
        const MessageLimit longest(limit);
        for (const std::string name : {"a", "tile.dat"}) {
            const int first = limit - 21 - static_cast<int>(name.size()), later = limit - 8;
            for (const int size : {1, first - 1, first, first + 1, first + later - 1, first + later,
                                   first + later + 1, first + 3 * later}) {
                if (size < 1) continue;
                const std::string data = randomBytes(static_cast<std::size_t>(size));
                EXPECT_TRUE(sent(dir.write(name, data)) == streamOf(kId, name, data, limit))
                    << size << " bytes in messages of " << limit;
            }
        }
    }
    const HostByteOrder hostOrder;
    const MessageLimit longest(64);
    const std::string data = randomBytes(300);
    EXPECT_TRUE(sent(dir.write("tile", data)) == streamOf(kId, "tile", data, 64, false));
}

TEST_F(FileSend, everyMessageIsTracedOnTheDebugStream) {
    const MessageLimit limit(24);
    sent(dir.write("n", "ABcdefghijklmnopqrSTU"));
    EXPECT_EQ(messages.debug(),
              "NwFileTransporter: Sent 24 bytes in file transporter\n"
              "NwFileTransporter: Sent 24 bytes in file transporter\n"
              "NwFileTransporter: Sent 11 bytes in file transporter\n");
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(FileSend, thePeerGetsTheNameWithoutDirectories) {
    ASSERT_TRUE(NwMakeDirectory(dir / "some/where"));
    for (const std::string& name : {std::string("tile 7"), std::string("..x"), std::string("-"),
                                    std::string("\xC3\xA9"), std::string("a\nb"), std::string(255, 'n')}) {
        const std::string path = dir.write("some/where/" + name, "data");
        EXPECT_EQ(sent(path), FirstMessage(kId, name, "data").bytes()) << path;
    }
}

TEST_F(FileSend, anEmptyFileIsAConnectionWithoutAMessage) {
    EXPECT_EQ(sent(dir.write("empty", "")), "");
    EXPECT_EQ(messages.warn(), "");
    EXPECT_EQ(messages.debug(), "");
    EXPECT_TRUE(sender.progress.empty());
    EXPECT_EQ(sender.identifiers, 1);
}

TEST_F(FileSend, linksAreFollowed) {
    ASSERT_EQ(::symlink(dir.write("file", "data").c_str(), (dir / "link").c_str()), 0);
    EXPECT_EQ(sent(dir / "link"), FirstMessage(kId, "link", "data").bytes());
}

TEST_F(FileSend, aFileThatShrinksWhileItIsReadEndsInZeros) {
    const std::string path = dir.write("file", "12345678");
    sender.beforeReading = [&] { ASSERT_EQ(::truncate(path.c_str(), 3), 0); };
    EXPECT_EQ(sent(path), FirstMessage(kId, "file", std::string("123\0\0\0\0\0", 8)).bytes());
}

TEST_F(FileSend, getsWholeThroughTheSmallestKernelBuffers) {
    TcpListener narrow(kLoopback, 1);
    const std::string data = randomBytes(1000000);
    const std::string path = dir.write("file", data);
    std::future<std::string> stream =
        std::async(std::launch::async, [&] { return narrow.accept().receiveToEnd(); });
    EXPECT_TRUE(sender.sendFile(path, kLoopback, narrow.port()));
    EXPECT_TRUE(sender.lastSendComplete());
    EXPECT_TRUE(stream.get() == streamOf(kId, "file", data, NwMaxPacketSize()));
}

TEST_F(FileSend, getsWholeThroughTheSmallestBuffersOfItsOwnHost) {
    REQUIRE_PRIVATE_NETWORK();
    const char* const setting = "/proc/sys/net/ipv4/tcp_wmem";
    const std::string former = contentsOf(setting);
    if (!(std::ofstream(setting) << "4096 4096 4096" << std::flush))
        GTEST_SKIP() << "cannot write " << setting;
    const std::string data = randomBytes(1000000);
    EXPECT_TRUE(sent(dir.write("file", data)) == streamOf(kId, "file", data, NwMaxPacketSize()));
    std::ofstream(setting) << former;
}

// --- identifiers ----------------------------------------------------------------------------------------

TEST(FileIdentifier, startsAsTheSecondsSince1970) {
    EXPECT_EQ(theFirstIdentifier, 1000000u);
}

TEST(FileIdentifier, isOneMoreForEachFileOfOneSecond) {
    NwFileTransporter one(0, false, 0, "", nullptr), other(0, false, 0, "", nullptr);
    theTimeOfDay = 5000;
    const unsigned int first = one.nextFileIdentifier();
    EXPECT_EQ(other.nextFileIdentifier(), first + 1) << "the count is the process's";
    theTimeOfDay = 5010;
    EXPECT_EQ(one.nextFileIdentifier(), first + 12);
    theTimeOfDay = -1;
    const unsigned int before = static_cast<unsigned int>(::time(nullptr));
    const unsigned int id = one.nextFileIdentifier() - (first - 5000) - 3;
    EXPECT_LE(before, id);
    EXPECT_LE(id, static_cast<unsigned int>(::time(nullptr)));
}

TEST(FileIdentifier, wrapsAtTheEndOfItsRange) {
    NwFileTransporter transporter(0, false, 0, "", nullptr);
    theTimeOfDay = 0;
    const unsigned int count = transporter.nextFileIdentifier();
    theTimeOfDay = 0xFFFFFFFFL;
    EXPECT_EQ(transporter.nextFileIdentifier(), count);
    theTimeOfDay = -1;
}

TEST_F(FileSend, twoFilesInOneSecondDifferByOne) {
    NwFileTransporter plain(0, false, 0, dir.path(), nullptr);
    const std::string path = dir.write("file", "data");
    theTimeOfDay = 7000;
    ASSERT_TRUE(plain.sendFile(path, kLoopback, listener.port()));
    ASSERT_FALSE(plain.sendFile(dir / "missing", kLoopback, listener.port()));
    ASSERT_TRUE(plain.sendFile(path, kLoopback, listener.port()));
    ASSERT_TRUE(plain.sendFile(path, kLoopback, listener.port()));
    theTimeOfDay = -1;
    const auto identifier = [&] {
        const std::string bytes = listener.accept().receiveToEnd().substr(4, 4);
        return (unsigned(bytes[0]) & 255) << 24 | (unsigned(bytes[1]) & 255) << 16 |
               (unsigned(bytes[2]) & 255) << 8 | (unsigned(bytes[3]) & 255);
    };
    const unsigned int first = identifier();
    EXPECT_EQ(identifier(), first + 2) << "a file that could not be opened took one";
    EXPECT_EQ(identifier(), first + 3);
}

// --- files that are refused -----------------------------------------------------------------------------

TEST_F(FileSend, aPipeThatTakesTheFilesPlaceHoldsNobody) {
    const std::string path = dir.write("file", "data");
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    theMomentAfterStat = [&] { ::rename((dir / "fifo").c_str(), path.c_str()); };
    expectRefused(path);
    EXPECT_FALSE(theMomentAfterStat) << "it took its place meanwhile";
}

TEST_F(FileSend, whatIsNoReadableFileIsRefused) {
    ASSERT_EQ(::symlink("nowhere", (dir / "dangling").c_str()), 0);
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    ASSERT_TRUE(NwMakeDirectory(dir / "directory"));
    for (const std::string& path : {std::string(), dir / "missing", dir / "dangling", dir / "fifo", dir / "",
                                    dir / "directory", std::string("/dev/null")})
        expectRefused(path);
    EXPECT_EQ(sender.identifiers, 7) << "each took an identifier";
    EXPECT_EQ(sender.bufferSizeBefore, 99u) << "none was read";
}

TEST_F(FileSend, aFileWithoutPermissionIsRefused) {
    const std::string path = dir.write("file", "data");
    ASSERT_EQ(::chmod(path.c_str(), 0), 0);
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    if (!asNobody([&] { expectRefused(path); })) GTEST_SKIP() << "no second user to act as";
}

TEST_F(FileSend, aFileLargerThanAnIntIsRefused) {
    const std::string path = dir.write("huge", "");
    for (const long size : {1L << 31, (1L << 32) + 5, 1L << 40}) {
        ASSERT_EQ(::truncate(path.c_str(), size), 0) << "a file of one hole";
        expectRefused(path);
    }
}

TEST_F(FileSend, aNameThatLeavesNoRoomForDataIsRefused) {
    const std::string path = dir.write("name", "abc");
    for (const int limit : {25, 21, 20, 8, 1, 0, -1, INT_MIN}) {
        const MessageLimit longest(limit);
        expectRefused(path);
    }
    const MessageLimit longest(26);
    EXPECT_EQ(sent(path), streamOf(kId, "name", "abc", 26)) << "one byte of data fits";
}

TEST_F(FileSend, namesInWarningsCannotSteerATerminal) {
    EXPECT_FALSE(send(dir / "a\x1B[31m\nb"));
    EXPECT_EQ(messages.warn(), refusal(": error opening file ", dir / "a\\x1B[31m\\x0Ab"));
}

TEST_F(FileSend, aRefusalFollowsASuccess) {
    sent(dir.write("file", "data"));
    expectRefused(dir / "missing");
    sent(dir / "file");
    EXPECT_FALSE(sender.sendFile(dir / "file", kLoopback, freeTcpPort()));
    EXPECT_FALSE(sender.lastSendComplete());
}

TEST_F(FileSend, refusalsArePrintedWhileSocketsAreQuiet) {
    const Quiet quiet;
    expectRefused(dir / "missing");
    sender.instead = [](std::vector<char>&, int&, NwFileTransporter::NwFileTransportFlags&) { return false; };
    expectRefused(dir.write("file", "data"), " error reading file ");
}

// --- peers that are not there ---------------------------------------------------------------------------

TEST_F(FileSend, aPeerThatIsNotThereIsReported) {
    const int port = freeTcpPort();
    const std::string path = dir.write("file", "data");
    const std::string text =
        "Corvane(NwFileTransporter): Could not create socket send() to addr 127.0.0.1 port= " +
        std::to_string(port) + "\n";
    EXPECT_FALSE(sender.sendFile(path, kLoopback, port));
    EXPECT_EQ(messages.warn(), systemReport("TCP Socket connect failed: ", ECONNREFUSED) + text);
    EXPECT_FALSE(sender.lastSendComplete());
    EXPECT_EQ(sender.identifiers, 1);
    EXPECT_EQ(sender.bufferSizeBefore, 0u) << "the file was read before";

    const Quiet quiet;
    EXPECT_FALSE(sender.sendFile(path, kLoopback, port));
    EXPECT_EQ(messages.warn(), text) << "quiet holds for the socket's own report alone";
}

TEST_F(FileSend, aPortThatIsNoneIsNotTakenModulo65536) {
    const std::string path = dir.write("file", "data");
    for (const int port : {listener.port() + 65536, listener.port() - 65536, -1, 0, INT_MAX, INT_MIN}) {
        EXPECT_FALSE(sender.sendFile(path, kLoopback, port)) << port;
        const std::string warnings = messages.warn();
        EXPECT_NE(warnings.find(
                      "Corvane(NwFileTransporter): Could not create socket send() to addr 127.0.0.1 port= " +
                      std::to_string(port) + "\n"),
                  std::string::npos)
            << warnings;
    }
    EXPECT_FALSE(hasConnection());
}

TEST_F(FileSend, withoutAPortGoesToTheOneItListensOnItself) {
    class Recorder : public NwFileTransporter {
    public:
        explicit Recorder(const Directory& dir) : NwFileTransporter(0, false, 0, dir.path(), nullptr) {}
        bool sendFile(const NwFilename& file, unsigned int addr, int toPort) override {
            asked = file.c_str() + std::string(" ") + std::to_string(addr) + " " + std::to_string(toPort);
            return answer;
        }
        using NwFileTransporter::sendFile;
        int port() const override { return 4711; }
        std::string asked;
        bool answer = true;
    } recorder(dir);
    NwFileTransporter& transporter = recorder;
    EXPECT_TRUE(transporter.sendFile("file", 0x0A000001u));
    EXPECT_EQ(recorder.asked, "file " + std::to_string(0x0A000001u) + " 4711");
    recorder.answer = false;
    EXPECT_FALSE(transporter.sendFile("file", 0x0A000001u));
}

TEST_F(FileSend, needsNoPortOfItsOwn) {
    NwFileTransporter deaf(-1, false, 0, dir.path(), nullptr);
    ASSERT_EQ(deaf.port(), -1);
    EXPECT_TRUE(deaf.sendFile(dir.write("file", "data"), kLoopback, listener.port()));
    EXPECT_EQ(listener.accept().receiveToEnd().substr(20), std::string("file\0data", 9));
}

// --- reading, transformed -------------------------------------------------------------------------------

TEST_F(FileSend, readingFillsABufferOneByteLargerThanTheFile) {
    const std::string path = dir.write("file", "data");
    std::ifstream in(path, std::ios::binary);
    std::vector<char> buffer = {'o', 'l', 'd'};
    int bytesRead = 99;
    auto flags = static_cast<NwFileTransporter::NwFileTransportFlags>(7);
    EXPECT_TRUE(sender.NwFileTransporter::readFileToBuffer(in, buffer, 4, bytesRead, flags));
    EXPECT_EQ(std::string(buffer.data(), buffer.size()), std::string("data\0", 5));
    EXPECT_EQ(bytesRead, 4);
    EXPECT_EQ(flags, 0u);

    flags = static_cast<NwFileTransporter::NwFileTransportFlags>(7);
    std::vector<char> more;
    EXPECT_TRUE(sender.NwFileTransporter::readFileToBuffer(in, more, 3, bytesRead, flags))
        << "a stream at its end is not looked at";
    EXPECT_EQ(std::string(more.data(), more.size()), std::string(4, '\0'));
    EXPECT_EQ(bytesRead, 3);
    EXPECT_EQ(flags, 0u);
}

TEST_F(FileSend, aDerivedClassMayTransformTheDataAndSaySo) {
    const std::string path = dir.write("file", "aaaaaaaaaa");
    for (const std::string packed : {"a10", "a much longer text than the file itself"}) {
        sender.instead = [&](std::vector<char>& buffer, int& bytesRead,
                             NwFileTransporter::NwFileTransportFlags& flags) {
            buffer.assign(packed.begin(), packed.end());
            bytesRead = static_cast<int>(packed.size());
            flags = static_cast<NwFileTransporter::NwFileTransportFlags>(0xA1B2C3D4u);
            return true;
        };
        FirstMessage wanted(kId, "file", packed);
        wanted.fileSize = 10;
        wanted.flags = 0xA1B2C3D4u;
        EXPECT_EQ(sent(path), wanted.bytes());
        EXPECT_EQ(sender.bufferSizeBefore, 0u);
    }
}

TEST_F(FileSend, aDerivedClassThatCannotReadEndsIt) {
    sender.instead = [](std::vector<char>&, int&, NwFileTransporter::NwFileTransportFlags&) { return false; };
    expectRefused(dir.write("file", "data"), " error reading file ");
}

TEST_F(FileSend, bytesThatTheBufferDoesNotHoldAreNotSent) {
    const std::string path = dir.write("file", "data");
    for (const int claimed : {6, 1000, INT_MAX}) {
        sender.instead = [&](std::vector<char>& buffer, int& bytesRead,
                             NwFileTransporter::NwFileTransportFlags&) {
            buffer.assign(5, 'x');
            bytesRead = claimed;
            return true;
        };
        expectRefused(path, " error reading file ");
    }
    for (const int claimed : {5, 4, 0, -1, INT_MIN}) {
        sender.instead = [&](std::vector<char>& buffer, int& bytesRead,
                             NwFileTransporter::NwFileTransportFlags&) {
            buffer.assign(5, 'x');
            bytesRead = claimed;
            return true;
        };
        FirstMessage wanted(kId, "file", std::string(static_cast<std::size_t>(std::max(claimed, 0)), 'x'));
        wanted.fileSize = 4;
        EXPECT_EQ(sent(path), claimed > 0 ? wanted.bytes() : "") << claimed;
    }
}

// --- progress -------------------------------------------------------------------------------------------

TEST_F(FileSend, progressIsToldAfterEachMessage) {
    const MessageLimit limit(24);
    sent(dir.write("n", "ABcdefghijklmnopqrSTU"));
    EXPECT_EQ(sender.progress, (std::vector<Progress>{{2, 21}, {18, 21}, {21, 21}}));
    EXPECT_TRUE(sender.hasOpenSocket);
}

TEST_F(FileSend, theSocketShownKnowsTheFormat) {
    sender.onProgress = [](NwTcpSocket& socket) { EXPECT_TRUE(socket.isConnectionEstablished()); };
    EXPECT_EQ(sent(dir.write("file", "data")), FirstMessage(kId, "file", "data").bytes() + u32(4))
        << "a connection test between messages is swallowed by the peer";
}

TEST_F(FileSend, eachMessageIsWithTheKernelBeforeTheNextIsMade) {
    TcpListener narrow(kLoopback, 4096);
    const std::string path = dir.write("file", randomBytes(4 << 20));
    std::future<std::size_t> received =
        std::async(std::launch::async, [&] { return narrow.accept().receiveToEnd().size(); });
    EXPECT_TRUE(sender.sendFile(path, kLoopback, narrow.port()));
    EXPECT_GT(received.get(), std::size_t(4) << 20);
    EXPECT_EQ(sender.mostQueued, 0);
}

TEST_F(FileSend, holdsTheFileOnceWhateverThePeerReads) {
    if (kIsSanitized) GTEST_SKIP() << "the sanitizer needs memory of its own";
    const std::size_t fileSize = 64u << 20, allowance = 8u << 20;
    const std::string path = dir.write("file", "");
    ASSERT_EQ(::truncate(path.c_str(), static_cast<long>(fileSize)), 0);
    TcpListener narrow(kLoopback, 4096);
    const std::size_t before = residentBytes();
    std::size_t most = 0;
    sender.onProgress = [&](NwTcpSocket&) { most = std::max(most, residentBytes()); };
    std::thread slowReader([&] {
        TcpPeer peer = narrow.accept();
        std::vector<char> part(65536);
        for (int i = 0; ::recv(peer.fd(), part.data(), part.size(), 0) > 0; ++i)
            if (i % 100 == 0) pause(1);
    });
    EXPECT_TRUE(sender.sendFile(path, kLoopback, narrow.port()));
    slowReader.join();
    EXPECT_GE(most, before + fileSize) << "the file was in memory";
    EXPECT_LE(most, before + fileSize + allowance);
}

// --- connections that break, peers that stall -----------------------------------------------------------

TEST_F(FileSend, aConnectionThatBreaksIsToldBySocketAndFlagOnly) {
    const std::string path = dir.write("file", randomBytes(16 << 20));
    const auto sendToPeerThatDies = [&] {
        std::thread peer([&] {
            TcpPeer dying = listener.accept();
            dying.receive(100000);
            dying.reset();
        });
        EXPECT_TRUE(send(path));
        peer.join();
        EXPECT_FALSE(sender.lastSendComplete());
        EXPECT_LT(sender.progress.back().sent, sender.progress.back().total);
        EXPECT_TRUE(sender.hasOpenSocket) << "no progress is told of a connection that is broken";
    };
    sendToPeerThatDies();
    const std::string warnings = messages.warn();
    EXPECT_TRUE(warnings == systemReport("TCP Socket sendTo error: ", ECONNRESET) + "\n" ||
                warnings == systemReport("TCP Socket sendTo error: ", EPIPE) + "\n")
        << warnings;
    {
        const Quiet quiet;
        sendToPeerThatDies();
        EXPECT_EQ(messages.warn(), "");
    }
    EXPECT_EQ(sent(dir.write("next", "data")), FirstMessage(kId, "next", "data").bytes());
    EXPECT_TRUE(sender.lastSendComplete());
}

TEST(FileSendStallLimit, isHalfAMinuteAtTheStart) {
    EXPECT_EQ(NwFileTransporter::theSendStallLimit, 30.0);
    EXPECT_EQ(NwFileTransporter::theReceiveStallLimit, 0.0);
    const StallLimits limits(2.5, 7);
    EXPECT_EQ(NwFileTransporter::theSendStallLimit, 2.5);
    EXPECT_EQ(NwFileTransporter::theReceiveStallLimit, 7.0);
}

TEST_F(FileSend, aReceiverThatStallsEndsItAfterTheLimit) {
    const std::string path = dir.write("file", randomBytes(16 << 20));
    for (const bool isQuiet : {false, true}) {
        NwSocket::setQuietSockets(isQuiet);
        std::atomic<bool> isOver{false};
        bool result = true;
        std::thread sending([&] {
            result = send(path);
            isOver = true;
        });
        TcpPeer peer = listener.accept();
        peer.receive(1000);
        passSeconds(20);
        pause(400);
        EXPECT_FALSE(isOver);
        EXPECT_TRUE(endsAfter(31, isOver));
        peer.close();
        sending.join();
        EXPECT_FALSE(result);
        EXPECT_FALSE(sender.lastSendComplete());
        EXPECT_EQ(messages.warn(), refusal(": no progress sending file ", path));
    }
    NwSocket::setQuietSockets(false);
}

// It waits for room on the descriptor: a sender that asked again and again would do so a hundred thousand
// times in this half second.
TEST_F(FileSend, asksSeldomWhileAReceiverTakesNothing) {
    const StallLimits limits(0.5, 0);
    const std::string path = dir.write("file", randomBytes(16 << 20));
    const MessageLimit limit(32 << 20);  // one message: some sends fill the kernel, the others are tries
    theSends = 0;
    EXPECT_FALSE(send(path));
    EXPECT_GE(theSends, 2);
    EXPECT_LE(theSends, 1000);
}

TEST_F(FileSend, aLimitOfZeroWaitsForEver) {
    const StallLimits limits(0, 0);
    const std::string data = randomBytes(16 << 20);
    const std::string path = dir.write("file", data);
    std::thread sending([&] { EXPECT_TRUE(send(path)); });
    TcpPeer peer = listener.accept();
    for (int i = 0; i < 20; ++i) {
        passSeconds(1000);
        pause(20);
    }
    EXPECT_TRUE(peer.receiveToEnd() == streamOf(kId, "file", data, NwMaxPacketSize()));
    sending.join();
    EXPECT_EQ(messages.warn(), "");
}

// Whatever the kernel takes is progress: a part of a long message too. The peer pauses so often that the
// first message alone takes longer than the limit.
TEST_F(FileSend, aReceiverThatIsSlowDoesNotStall) {
    const std::size_t chunk = 2 << 20;
    const MessageLimit limit(static_cast<int>(16 * chunk));
    const std::string data = randomBytes(20 * chunk);
    const std::string path = dir.write("file", data);
    bool result = false;
    std::thread sending([&] { result = send(path); });
    TcpPeer peer = listener.accept();
    const std::string wanted = streamOf(kId, "file", data, NwMaxPacketSize());
    std::string stream;
    while (stream.size() < wanted.size()) {
        const std::string part = peer.receive(std::min(chunk, wanted.size() - stream.size()));
        if (part.empty()) break;
        stream += part;
        passSeconds(5);
        pause(120);
    }
    sending.join();
    EXPECT_TRUE(result);
    EXPECT_EQ(messages.warn(), "");
    EXPECT_TRUE(stream == wanted);
}

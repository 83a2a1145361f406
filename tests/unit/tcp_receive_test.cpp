// SPDX-License-Identifier: BSD-3-Clause
// Finding packets in a TCP stream: formats, splits, lengths good and bad, the buffer, the ends of a
// connection. The other end is a raw socket, so the bytes and their cuts are the test's own.
#include <cvNetworkCompatibility/cvTcpSocket.h>
#include <cvutil/cvByteOrder.h>
#include <cvutil/cvOutput.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "messages.h"
#include "network.h"
#include "packets.h"
#include "process.h"
#include "received.h"
#include "tcp_peer.h"

// --- the system's recv(), watched ------------------------------------------------------------------------

namespace {

struct Request {
    std::size_t length;
    int flags;
    char* place;
};

int watchedFd = -1;
int recvError = 0;  // what the next recv() on it fails with; 0: it does not
std::vector<Request> requests;

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t recv(int fd, void* buffer, std::size_t length,
                                                               int flags) {
    if (fd == watchedFd) {
        requests.push_back({length, flags, static_cast<char*>(buffer)});
        if (recvError) {
            errno = recvError;
            recvError = 0;
            return -1;
        }
    }
    const ssize_t count = ::syscall(SYS_recvfrom, fd, buffer, length, flags, nullptr, nullptr);
    if (count > 0) {  // the kernel wrote past the sanitizers: show them the ends of it
        volatile char* bytes = static_cast<char*>(buffer);
        bytes[0] = bytes[0];
        bytes[count - 1] = bytes[count - 1];
    }
    return count;
}

namespace {

// --- packets ---------------------------------------------------------------------------------------------

struct Format {
    int width;
    int offset;

    int header() const { return offset + width; }
};

std::ostream& operator<<(std::ostream& out, const Format& format) {
    return out << "width " << format.width << ", offset " << format.offset;
}

const Format kDefault = {2, 0};
const Format kDis = {2, 8};

// A length as it stands in the stream.
std::string field(int width, unsigned int value, bool isNetworkOrder = true) {
    std::string bytes;
    for (int i = 0; i < width; ++i) {
        const int place = isNetworkOrder ? width - 1 - i : i;
        bytes += static_cast<char>(value >> 8 * place & 0xFF);
    }
    return bytes;
}

// The first bytes of a packet, up to the end of its length field.
std::string header(Format format, unsigned int length, bool isNetworkOrder = true) {
    return std::string(static_cast<std::size_t>(format.offset), 'h') +
           field(format.width, length, isNetworkOrder);
}

std::string packet(Format format, unsigned int length, int seed = 0, bool isNetworkOrder = true) {
    std::string bytes = header(format, length, isNetworkOrder);
    for (std::size_t i = bytes.size(); i < length; ++i)
        bytes += static_cast<char>(seed + 31 * static_cast<int>(i));
    return bytes;
}

// What a receive leaves of take()'s own values when it only swallowed a connection test.
Received untouched() {
    return {0, 7, "", false};
}

std::string badLength(unsigned int length) {
    return "NwTcpSocket: bad packet length " + std::to_string(length) + "\n";
}

// --- a connection ----------------------------------------------------------------------------------------

// The class, with its fields in sight.
class Probe : public NwTcpSocket {
public:
    using NwTcpSocket::bytesRead;
    using NwTcpSocket::bytesToRead;
    using NwTcpSocket::NwTcpSocket;
    using NwTcpSocket::packetsReceived;
    using NwTcpSocket::pktBuffer;
    using NwTcpSocket::pktBufferSize;
    using NwTcpSocket::sizeLength;
    using NwTcpSocket::sizeOffset;
    using NwTcpSocket::socketFd;
    using NwTcpSocket::waitingForSize;
};

TcpListener& listener() {
    static TcpListener theListener(kLoopback, 1 << 20);
    return theListener;
}

class Connection {
public:
    explicit Connection(Format format = kDefault) {
        socket.setSizeLength(format.width);
        socket.setSizeOffset(format.offset);
    }

    // Bytes that have arrived when the call returns.
    void feed(const std::string& bytes) {
        const std::size_t before = unread();
        peer.sendAll(bytes);
        ASSERT_TRUE(eventually([&] { return unread() == before + bytes.size(); }));
    }
    // What the kernel still holds for the socket.
    std::size_t unread() const {
        int count = 0;
        EXPECT_EQ(::ioctl(socket.socketFd, FIONREAD, &count), 0);
        return static_cast<std::size_t>(count);
    }
    void waitForEnd() const {
        pollfd entry = {socket.socketFd, POLLRDHUP, 0};
        ASSERT_EQ(::poll(&entry, 1, kPatienceMilliseconds), 1);
    }

    Received take() { return takenFrom(socket); }
    static Received takenFrom(NwTcpSocket& from) {
        static char mark;
        char* lent = &mark;
        Received received = {0, 7, "", false};
        received.result = from.NwRecv(&lent, &received.status);
        received.isNull = lent == nullptr;
        if (received.result > 0 && lent)
            received.packet.assign(lent, static_cast<std::size_t>(received.result));
        EXPECT_TRUE(received.result > 0 || received.isNull || lent == &mark);
        return received;
    }
    // The same without a status.
    Received takeWithoutStatus() {
        char* lent = nullptr;
        const int length = socket.NwRecv(&lent, static_cast<int*>(nullptr));
        if (length > 0) return delivered(std::string(lent, static_cast<std::size_t>(length)));
        return {length, 0, "", lent == nullptr};
    }

    TcpPeer peer{listener().port()};
    Probe socket{listener().acceptFd(), kLoopback, 0};
};

class TcpReceive : public testing::Test {
protected:
    void TearDown() override {
        NwNetDebugOn = 0;
        NwSetNetworkByteOrdering(1);
        NwTcpSocket::setPacketBufferSize(20000);
        watchedFd = -1;
        recvError = 0;
        requests.clear();
    }

    // Traces from here on; what was printed so far is forgotten.
    void trace() {
        messages.all();
        NwNetDebugOn = 1;
    }
    void watch(const Connection& connection) {
        requests.clear();
        watchedFd = connection.socket.socketFd;
    }
    static std::vector<std::size_t> requestedLengths() {
        std::vector<std::size_t> lengths;
        for (const Request& request : requests) lengths.push_back(request.length);
        return lengths;
    }

    Messages messages;
};

typedef std::vector<std::size_t> Lengths;

}  // namespace

// --- the start -------------------------------------------------------------------------------------------

TEST_F(TcpReceive, startsInTheSizePhaseOfAnEmptyPacket) {
    Connection connection;
    const Probe& socket = connection.socket;
    EXPECT_EQ(socket.waitingForSize, 1);
    EXPECT_EQ(socket.sizeOffset, 0);
    EXPECT_EQ(socket.sizeLength, 2);
    EXPECT_EQ(socket.bytesToRead, 2u);
    EXPECT_EQ(socket.bytesRead, 0u);
    EXPECT_EQ(socket.pktBufferSize, 20000u);
}

TEST_F(TcpReceive, formatSetsWhatTheFirstReadWants) {
    Connection connection;
    Probe& socket = connection.socket;
    socket.setSizeOffset(8);
    EXPECT_EQ(socket.bytesToRead, 10u);
    socket.setSizeLength(4);
    EXPECT_EQ(socket.bytesToRead, 12u);
    socket.setSizeLength(1);
    EXPECT_EQ(socket.bytesToRead, 9u);
    socket.setSizeOffset(0);
    EXPECT_EQ(socket.bytesToRead, 1u);
}

TEST_F(TcpReceive, otherWidthsAreRefusedAndTheDefaultTaken) {
    Connection connection;
    for (int width : {3, 0, -1, 5, 8, INT_MAX, INT_MIN}) {
        connection.socket.setSizeLength(4);
        messages.all();
        connection.socket.setSizeLength(width);
        EXPECT_EQ(messages.warn(), "Invalid value for size, using default value\n") << width;
        EXPECT_EQ(connection.socket.sizeLength, 2) << width;
        EXPECT_EQ(connection.socket.bytesToRead, 2u) << width;
    }
    for (int width : {1, 2, 4}) {
        connection.socket.setSizeLength(width);
        EXPECT_EQ(connection.socket.sizeLength, width);
    }
    EXPECT_EQ(messages.all(), "");
    const Quiet quiet;
    connection.socket.setSizeLength(3);
    EXPECT_EQ(connection.socket.sizeLength, 2);
    EXPECT_EQ(messages.all(), "");
}

// --- formats and splits ----------------------------------------------------------------------------------

namespace {

struct StreamCase {
    Format format;
    bool isNetworkOrder;
};

std::ostream& operator<<(std::ostream& out, const StreamCase& row) {
    return out << row.format << (row.isNetworkOrder ? ", network order" : ", host order");
}

std::string nameOf(const testing::TestParamInfo<StreamCase>& info) {
    return "width" + std::to_string(info.param.format.width) + "offset" +
           std::to_string(info.param.format.offset) +
           (info.param.isNetworkOrder ? "networkOrder" : "hostOrder");
}

std::vector<StreamCase> streamCases() {
    std::vector<StreamCase> cases;
    for (int width : {1, 2, 4})
        for (int offset : {0, 3, 8})
            for (bool isNetworkOrder : {true, false}) cases.push_back({{width, offset}, isNetworkOrder});
    return cases;
}

class TcpFormat : public TcpReceive, public testing::WithParamInterface<StreamCase> {
protected:
    TcpFormat()
        : format(GetParam().format),
          header_(static_cast<std::size_t>(format.header())),
          first(made(header_ + 5, 1)),
          second(made(header_ + 9, 2)),
          stream(first + second) {
        NwSetNetworkByteOrdering(GetParam().isNetworkOrder ? 1 : 0);
    }
    std::string made(std::size_t length, int seed = 0) const {
        return packet(format, static_cast<unsigned int>(length), seed, GetParam().isNetworkOrder);
    }

    // Feeds the part of the stream from one place to another, and takes what there is to take.
    void feedFromTo(Connection& connection, std::size_t from, std::size_t to) {
        connection.feed(stream.substr(from, to - from));
        const std::size_t ends[] = {first.size(), stream.size()};
        const std::string* packets[] = {&first, &second};
        for (int i = 0; i < 2; ++i) {
            if (ends[i] <= from || ends[i] > to) continue;
            EXPECT_EQ(connection.take(), delivered(*packets[i]));
            EXPECT_EQ(connection.unread(), to - ends[i]) << "what lies behind a packet stays in the kernel";
        }
        EXPECT_EQ(connection.take(), nothing());
        EXPECT_EQ(connection.unread(), 0u);
        EXPECT_TRUE(connection.socket.isOk());
    }

    const Format format;
    const std::size_t header_;
    const std::string first, second, stream;
};

INSTANTIATE_TEST_SUITE_P(Of, TcpFormat, testing::ValuesIn(streamCases()), nameOf);

}  // namespace

TEST_P(TcpFormat, everySplitOfTwoPacketsGivesBoth) {
    Connection connection(format);
    for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
        SCOPED_TRACE(cut);
        feedFromTo(connection, 0, cut);
        feedFromTo(connection, cut, stream.size());
        if (HasFailure()) return;
    }
}

TEST_P(TcpFormat, everyTwoCutsOfTwoPacketsGiveBoth) {
    Connection connection(format);
    for (std::size_t cut = 0; cut <= stream.size(); ++cut)
        for (std::size_t later = cut; later <= stream.size(); ++later) {
            SCOPED_TRACE(std::to_string(cut) + " and " + std::to_string(later));
            feedFromTo(connection, 0, cut);
            feedFromTo(connection, cut, later);
            feedFromTo(connection, later, stream.size());
            if (HasFailure()) return;
        }
}

TEST_P(TcpFormat, oneByteAtATimeGivesBoth) {
    Connection connection(format);
    for (std::size_t i = 0; i < stream.size(); ++i) feedFromTo(connection, i, i + 1);
}

TEST_P(TcpFormat, shortestPacketIsOneByteLongerThanItsHeader) {
    Connection connection(format);
    connection.feed(made(header_ + 1) + made(header_ + 1, 7));
    EXPECT_EQ(connection.take(), delivered(made(header_ + 1)));
    EXPECT_EQ(connection.take(), delivered(made(header_ + 1, 7)));
}

TEST_P(TcpFormat, connectionTestsAreSwallowedWhereverTheyAreCut) {
    Connection connection(format);
    const std::string test = made(header_);
    for (std::size_t cut = 1; cut <= test.size(); ++cut) {
        connection.feed(test.substr(0, cut));
        EXPECT_EQ(connection.take(), cut == test.size() ? untouched() : nothing()) << cut;
        if (cut == test.size()) break;
        connection.feed(test.substr(cut));
        EXPECT_EQ(connection.take(), untouched()) << cut;
        EXPECT_EQ(connection.socket.bytesToRead, header_);
        EXPECT_EQ(connection.socket.bytesRead, 0u);
    }
    connection.feed(test + test + first + test + second);
    EXPECT_EQ(connection.take(), untouched());
    EXPECT_EQ(connection.take(), untouched());
    EXPECT_EQ(connection.take(), delivered(first));
    EXPECT_EQ(connection.take(), untouched());
    EXPECT_EQ(connection.take(), delivered(second));
    EXPECT_EQ(connection.take(), nothing());
}

TEST_P(TcpFormat, eachReadAsksForJustWhatIsMissing) {
    Connection connection(format);
    connection.feed(stream);
    watch(connection);
    EXPECT_EQ(connection.take(), delivered(first));
    EXPECT_EQ(requestedLengths(), (Lengths{header_, 5}));
    EXPECT_EQ(connection.take(), delivered(second));
    EXPECT_EQ(requestedLengths(), (Lengths{header_, 5, header_, 9}));
    const char* start = connection.socket.pktBuffer.get();
    for (std::size_t i = 0; i < requests.size(); ++i) {
        EXPECT_EQ(requests[i].flags, 0);
        EXPECT_EQ(requests[i].place, start + (i % 2 == 0 ? 0 : header_));
    }
}

// Every length that says something about the format: around its ends, and around the powers of two.
TEST_P(TcpFormat, lengthsAreTakenAtTheirWord) {
    const unsigned int least = static_cast<unsigned int>(header_);
    std::set<std::uint64_t> lengths = {
        0,   1,   2,   least - 1, least, least + 1, least + 2, 126,   127,   128,   129,   254,
        255, 256, 257, 32766,     32767, 32768,     32769,     65534, 65535, 65536, 65537, 0x7FFFFFFF};
    for (std::uint64_t length : {0x80000000u, 0x80000001u, 0xFFFFFFFEu, 0xFFFFFFFFu}) lengths.insert(length);
    const std::uint64_t representable = 1ull << 8 * format.width;
    const std::uint64_t largest = format.width == 1 ? 127 : INT_MAX;
    const bool isSanitized = *CVNC_SANITIZER;  // no address space for the largest
    for (std::uint64_t value : lengths) {
        if (value >= representable || (value == INT_MAX && isSanitized)) continue;
        SCOPED_TRACE(value);
        const unsigned int length = static_cast<unsigned int>(value);
        Connection connection(format);
        messages.all();
        const std::string next = made(header_ + 3, 9);
        if (length < least || length > largest) {
            connection.feed(header(format, length, GetParam().isNetworkOrder) + next);
            EXPECT_EQ(connection.take(), nothing());
            EXPECT_FALSE(connection.socket.isOk());
            EXPECT_EQ(messages.all(), badLength(length));
            continue;
        }
        if (length == INT_MAX) {
            connection.feed(header(format, length, GetParam().isNetworkOrder) + "start");
            EXPECT_EQ(connection.take(), nothing());
            EXPECT_EQ(connection.unread(), 0u);
            EXPECT_EQ(connection.socket.bytesToRead, length - least - 5);
        } else {
            connection.feed(made(length) + next);
            EXPECT_EQ(connection.take(), length == least ? untouched() : delivered(made(length)));
            EXPECT_EQ(connection.unread(), next.size());
            EXPECT_EQ(connection.take(), delivered(next));
        }
        EXPECT_TRUE(connection.socket.isOk());
        EXPECT_EQ(messages.all(), "");
    }
}

TEST_F(TcpReceive, orderOfTheBytesIsThatOfTheSettingAtTheTime) {
    Connection connection;
    connection.feed(field(2, 5) + "abc");
    EXPECT_EQ(connection.take(), delivered(field(2, 5) + "abc"));
    NwSetNetworkByteOrdering(0);
    connection.feed(std::string("\x05\x00", 2) + "abc");
    EXPECT_EQ(connection.take(), delivered(std::string("\x05\x00", 2) + "abc"));
    connection.socket.setSizeLength(4);
    connection.feed(std::string("\x07\x00\x00\x00", 4) + "abc");
    EXPECT_EQ(connection.take(), delivered(std::string("\x07\x00\x00\x00", 4) + "abc"));
    NwSetNetworkByteOrdering(1);
    connection.feed(std::string("\x00\x00\x00\x07", 4) + "abc");
    EXPECT_EQ(connection.take(), delivered(std::string("\x00\x00\x00\x07", 4) + "abc"));
}

TEST_F(TcpReceive, whatMarksAConnectionTestIsItsLengthAlone) {
    Connection connection(kDis);
    connection.feed(std::string(8, 'x') + field(2, 10) + "abcdefgh" + field(2, 10));
    EXPECT_EQ(connection.take(), untouched());
    EXPECT_EQ(connection.take(), untouched());
}

TEST_F(TcpReceive, connectionTestLeavesNoStatusToBeSet) {
    Connection connection;
    connection.feed(header(kDefault, 2) + packet(kDefault, 10));
    char mark = 0;
    char* lent = &mark;
    EXPECT_EQ(connection.socket.NwRecv(&lent, static_cast<int*>(nullptr)), 0);
    EXPECT_EQ(lent, &mark);
    EXPECT_EQ(connection.takeWithoutStatus(), delivered(packet(kDefault, 10)));
}

TEST_F(TcpReceive, streamOfRealPdusComesApart) {
    Connection connection(kDis);
    std::string stream;
    for (int i = 0; i < 40; ++i) stream += pdu(100 + i, i);
    connection.feed(stream);
    for (int i = 0; i < 40; ++i) ASSERT_EQ(connection.take(), delivered(pdu(100 + i, i))) << i;
    EXPECT_EQ(connection.take(), nothing());
    EXPECT_EQ(connection.socket.packetsReceived, 0) << "a TCP socket does not count";
}

// --- requests to the kernel ------------------------------------------------------------------------------

TEST_F(TcpReceive, firstReadOfADisPacketIsTenBytes) {
    Connection connection(kDis);
    watch(connection);
    EXPECT_EQ(connection.take(), nothing());
    EXPECT_EQ(requestedLengths(), (Lengths{10}));
}

TEST_F(TcpReceive, callReadsAtMostTwice) {
    Connection connection(kDis);
    const std::string whole = pdu(144);
    connection.feed(whole.substr(0, 4));
    watch(connection);
    EXPECT_EQ(connection.take(), nothing());
    EXPECT_EQ(requestedLengths(), (Lengths{10})) << "an incomplete header is not read for again";
    connection.feed(whole.substr(4, 6));
    requests.clear();
    EXPECT_EQ(connection.take(), nothing());
    EXPECT_EQ(requestedLengths(), (Lengths{6, 134}));
    connection.feed(whole.substr(10, 100));
    requests.clear();
    EXPECT_EQ(connection.take(), nothing());
    EXPECT_EQ(requestedLengths(), (Lengths{134})) << "nor is an incomplete body";
    EXPECT_EQ(requests[0].place, connection.socket.pktBuffer.get() + 10);
    connection.feed(whole.substr(110) + pdu(20));
    requests.clear();
    EXPECT_EQ(connection.take(), delivered(whole));
    EXPECT_EQ(requestedLengths(), (Lengths{34})) << "nor is there a look at the next packet";
    connection.feed(header(kDis, 10));
    requests.clear();
    EXPECT_EQ(connection.take(), delivered(pdu(20)));
    requests.clear();
    EXPECT_EQ(connection.take(), untouched());
    EXPECT_EQ(requestedLengths(), (Lengths{10})) << "nor behind a connection test";
}

// --- traces ----------------------------------------------------------------------------------------------

TEST_F(TcpReceive, tracesOfALengthCutInTwo) {
    Connection connection;
    trace();
    connection.feed(field(2, 5).substr(0, 1));
    EXPECT_EQ(connection.take(), nothing());
    EXPECT_EQ(messages.all(), "Waiting for size.  Read in 1 bytes\n");
    connection.feed(field(2, 5).substr(1) + "abc");
    EXPECT_EQ(connection.take(), delivered(field(2, 5) + "abc"));
    EXPECT_EQ(messages.all(),
              "NwRecv: Waiting for a packet with size 5\n"
              "NwRecv: Have the whole packet (5 bytes)\n");
}

TEST_F(TcpReceive, tracesTellWhatThisReadBroughtOfAHeaderAndAllThatIsThereOfABody) {
    Connection connection(kDis);
    trace();
    const std::string whole = pdu(144);
    connection.feed(whole.substr(0, 3));
    connection.take();
    EXPECT_EQ(messages.all(), "Waiting for size.  Read in 3 bytes\n");
    connection.feed(whole.substr(3, 4));
    connection.take();
    EXPECT_EQ(messages.all(), "Waiting for size.  Read in 4 bytes\n");
    connection.feed(whole.substr(7, 13));
    connection.take();
    EXPECT_EQ(messages.all(),
              "NwRecv: Waiting for a packet with size 144\n"
              "NwRecv: Received 20 out of 144 bytes\n");
    connection.feed(whole.substr(20, 100));
    connection.take();
    EXPECT_EQ(messages.all(), "NwRecv: Received 120 out of 144 bytes\n");
    connection.feed(whole.substr(120));
    EXPECT_EQ(connection.take(), delivered(whole));
    EXPECT_EQ(messages.all(), "NwRecv: Have the whole packet (144 bytes)\n");
    connection.take();
    EXPECT_EQ(messages.all(), "") << "nothing came, nothing to tell";
}

TEST_F(TcpReceive, tracesOfAConnectionTestAndOfAHeaderAlone) {
    Connection connection;
    trace();
    connection.feed(field(2, 2) + field(2, 9));
    EXPECT_EQ(connection.take(), untouched());
    EXPECT_EQ(messages.all(), "NwRecv: Received Connection Test packet\n");
    EXPECT_EQ(connection.take(), nothing());
    EXPECT_EQ(messages.all(), "NwRecv: Waiting for a packet with size 9\n");
}

TEST_F(TcpReceive, growthIsTracedBeforeTheBodyIsRead) {
    Connection connection;
    trace();
    const std::string large = packet(kDefault, 20000);
    connection.feed(large);
    EXPECT_EQ(connection.take(), delivered(large));
    EXPECT_EQ(messages.all(),
              "NwRecv: Waiting for a packet with size 20000\n"
              "NwTcpSocket:: Expanding recv buffer from  20000 to 40000 \n"
              "NwRecv: Have the whole packet (20000 bytes)\n");
}

TEST_F(TcpReceive, badLengthIsNotTraced) {
    Connection connection(kDis);
    trace();
    connection.feed(header(kDis, 9));
    EXPECT_EQ(connection.take(), nothing());
    EXPECT_EQ(messages.all(), badLength(9));
}

TEST_F(TcpReceive, noTracesWhileQuietOrSwitchedOff) {
    for (int quiet : {0, 1}) {
        Connection connection;
        messages.all();
        NwNetDebugOn = quiet;
        NwSocket::setQuietSockets(quiet != 0);
        connection.feed(field(2, 2) + "\x4e");
        connection.take();
        connection.take();
        connection.feed(packet(kDefault, 0x4e20).substr(1, 100));
        connection.take();
        connection.feed(packet(kDefault, 0x4e20).substr(101));
        EXPECT_EQ(connection.take().result, 20000);
        NwSocket::setQuietSockets(false);
        EXPECT_EQ(messages.all(), "") << quiet;
    }
}

// --- the buffer ------------------------------------------------------------------------------------------

TEST_F(TcpReceive, bufferGrowsToTheNextMultipleAboveThePacket) {
    struct {
        unsigned int length, size;
    } const table[] = {{19998, 20000}, {19999, 20000}, {20000, 40000}, {20001, 40000},
                       {39999, 40000}, {40000, 60000}, {45000, 60000}, {65535, 80000}};
    for (const auto& row : table) {
        Connection connection;
        const std::string large = packet(kDefault, row.length, 3);
        connection.feed(large);
        EXPECT_EQ(connection.take(), delivered(large));
        EXPECT_EQ(connection.socket.pktBufferSize, row.size) << row.length;
    }
}

TEST_F(TcpReceive, bufferGrowsByWholeMultiplesOfWhatItIsByThen) {
    Connection connection;
    for (const auto& step : {std::pair<unsigned, unsigned>{25000, 40000},
                             {39999, 40000},
                             {40000, 80000},
                             {20, 80000},
                             {65535, 80000}}) {
        connection.feed(packet(kDefault, step.first, 5));
        EXPECT_EQ(connection.take(), delivered(packet(kDefault, step.first, 5)));
        EXPECT_EQ(connection.socket.pktBufferSize, step.second) << step.first;
    }
}

TEST_F(TcpReceive, bufferGrowsBeforeTheFirstByteOfTheBodyIsThereAndKeepsTheHeader) {
    Connection connection(kDis);
    const std::string large = packet(kDis, 45000, 1);
    connection.feed(large.substr(0, 10));
    EXPECT_EQ(connection.take(), nothing());
    EXPECT_EQ(connection.socket.pktBufferSize, 60000u);
    EXPECT_EQ(std::string(connection.socket.pktBuffer.get(), 10), large.substr(0, 10));
    connection.feed(large.substr(10));
    EXPECT_EQ(connection.take(), delivered(large));
}

TEST_F(TcpReceive, packetsOfLikeSizeUseOneBuffer) {
    Connection connection;
    const char* buffer = connection.socket.pktBuffer.get();
    for (unsigned int length : {100u, 19999u, 3u, 19999u}) {
        connection.feed(packet(kDefault, length));
        char* lent = nullptr;
        ASSERT_EQ(connection.socket.NwRecv(&lent, nullptr), static_cast<int>(length));
        EXPECT_EQ(lent, buffer) << "handed out in place";
        EXPECT_EQ(lent[length], '\0');
    }
}

TEST_F(TcpReceive, zeroByteFollowsEveryPacket) {
    Connection connection;
    connection.feed(packet(kDefault, 200, 1) + field(2, 6) + "text" + packet(kDefault, 19999, 2));
    for (int i = 0; i < 3; ++i) {
        char* lent = nullptr;
        const int length = connection.socket.NwRecv(&lent, nullptr);
        ASSERT_GT(length, 0);
        EXPECT_EQ(lent[length], '\0');
        if (i == 1) {
            EXPECT_STREQ(lent + 2, "text");
        }
    }
}

TEST_F(TcpReceive, headerLargerThanTheBufferMakesItGrowFirst) {
    NwTcpSocket::setPacketBufferSize(8);
    Connection connection({4, 60});
    trace();
    watch(connection);
    EXPECT_EQ(connection.take(), nothing());
    EXPECT_EQ(messages.all(), "NwTcpSocket:: Expanding recv buffer from  8 to 72 \n");
    EXPECT_EQ(requestedLengths(), (Lengths{64}));
    connection.feed(packet({4, 60}, 72));
    EXPECT_EQ(connection.take(), delivered(packet({4, 60}, 72)));
    EXPECT_EQ(connection.socket.pktBufferSize, 144u) << "72 bytes and a zero";
}

// Sizes that name no buffer are stored as they are, and packets come all the same.
TEST_F(TcpReceive, anyBufferSizeServes) {
    const std::string large = packet(kDefault, 30000, 4);
    for (int size : {0, -1, -20000, INT_MIN, 1, 2, 3, 5}) {
        SCOPED_TRACE(size);
        NwTcpSocket::setPacketBufferSize(size);
        EXPECT_EQ(NwTcpSocket::thePktBuffSize, size);
        Connection connection;
        EXPECT_EQ(connection.socket.pktBufferSize, static_cast<unsigned int>(size > 0 ? size : 0));
        EXPECT_EQ(connection.take(), nothing());
        connection.feed(packet(kDefault, 3) + field(2, 2) + large);
        EXPECT_EQ(connection.take(), delivered(packet(kDefault, 3)));
        EXPECT_EQ(connection.take(), untouched());
        EXPECT_EQ(connection.take(), delivered(large));
        EXPECT_GT(connection.socket.pktBufferSize, large.size());
        EXPECT_TRUE(connection.socket.isOk());
    }
}

TEST_F(TcpReceive, bufferSizeIsThatOfConstruction) {
    Connection before;
    NwTcpSocket::setPacketBufferSize(50000);
    Connection after;
    EXPECT_EQ(before.socket.pktBufferSize, 20000u);
    EXPECT_EQ(after.socket.pktBufferSize, 50000u);
    after.feed(packet(kDefault, 49999));
    EXPECT_EQ(after.take(), delivered(packet(kDefault, 49999)));
    EXPECT_EQ(after.socket.pktBufferSize, 50000u);
    after.feed(packet(kDefault, 50000));
    EXPECT_EQ(after.take(), delivered(packet(kDefault, 50000)));
    EXPECT_EQ(after.socket.pktBufferSize, 100000u);
}

TEST_F(TcpReceive, growingByHand) {
    Connection connection;
    Probe& socket = connection.socket;
    EXPECT_FALSE(socket.expandPktBuffer(0));
    EXPECT_FALSE(socket.expandPktBuffer(19999));
    EXPECT_EQ(socket.pktBufferSize, 20000u);
    trace();
    EXPECT_TRUE(socket.expandPktBuffer(20000));
    EXPECT_EQ(messages.all(), "NwTcpSocket:: Expanding recv buffer from  20000 to 40000 \n");
    EXPECT_EQ(socket.pktBufferSize, 40000u);
    EXPECT_TRUE(socket.expandPktBuffer(130000));
    EXPECT_EQ(socket.pktBufferSize, 160000u);
    messages.all();
    EXPECT_FALSE(socket.expandPktBuffer(UINT_MAX)) << "no size that large: nothing may wrap";
    EXPECT_EQ(socket.pktBufferSize, 160000u);
}

TEST_F(TcpReceive, growingInsideAPacketKeepsItsBytes) {
    Connection connection;
    const std::string whole = packet(kDefault, 1000, 6);
    connection.feed(whole.substr(0, 700));
    EXPECT_EQ(connection.take(), nothing());
    EXPECT_TRUE(connection.socket.expandPktBuffer(20000));
    connection.feed(whole.substr(700));
    EXPECT_EQ(connection.take(), delivered(whole));
}

TEST_F(TcpReceive, packetLongerThanAnyKernelBufferComesWhole) {
    const Format wide = {4, 0};
    Connection connection(wide);
    const std::string large = packet(wide, 5000000, 2);
    std::size_t sent = 0;
    Received received = nothing();
    while (received.result == 0) {
        const std::size_t n = connection.peer.sendSome(large.substr(sent, 200000));
        sent += n;
        if (n == 0) {
            ASSERT_TRUE(waitReadable(connection.socket.readFd())) << sent;
        }
        received = connection.take();
        ASSERT_TRUE(connection.socket.isOk());
    }
    EXPECT_TRUE(received == delivered(large));
    EXPECT_EQ(connection.socket.pktBufferSize, 5020000u);
}

// --- bad lengths and offsets -----------------------------------------------------------------------------

TEST_F(TcpReceive, badLengthEndsTheConnectionWithOneWarning) {
    Connection connection(kDis);
    messages.all();
    connection.feed(header(kDis, 9) + pdu(144));
    EXPECT_EQ(connection.take(), nothing());
    EXPECT_FALSE(connection.socket.isOk());
    EXPECT_EQ(messages.all(), badLength(9));
    const std::size_t left = connection.unread();
    EXPECT_EQ(left, 144u) << "nothing behind it is read";
    for (int i = 0; i < 5; ++i) EXPECT_EQ(connection.take(), nothing());
    char room[200] = {};
    EXPECT_EQ(connection.socket.NwRecv(room, sizeof room), 0);
    EXPECT_EQ(connection.unread(), left) << "ever";
    EXPECT_FALSE(connection.socket.isOk());
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpReceive, badLengthWithoutStatusOrWarning) {
    const Quiet quiet;
    Connection connection({1, 0});
    connection.feed("\x80");
    EXPECT_EQ(connection.takeWithoutStatus(), nothing());
    EXPECT_FALSE(connection.socket.isOk());
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpReceive, badLengthBehindGoodPackets) {
    Connection connection;
    connection.feed(packet(kDefault, 40) + field(2, 2) + field(2, 1));
    EXPECT_EQ(connection.take(), delivered(packet(kDefault, 40)));
    EXPECT_EQ(connection.take(), untouched());
    messages.all();
    EXPECT_EQ(connection.take(), nothing());
    EXPECT_EQ(messages.all(), badLength(1));
    EXPECT_FALSE(connection.socket.isOk());
}

TEST_F(TcpReceive, offsetThatNoPacketCanHaveEndsTheConnection) {
    for (int offset : {-1, -2, -3, -100, INT_MIN, INT_MAX, INT_MAX - 1}) {
        for (int width : {1, 2, 4}) {
            if (width == 1 && offset == INT_MAX - 1) continue;  // its header could be
            SCOPED_TRACE(std::to_string(offset) + ", " + std::to_string(width));
            Connection connection({width, offset});
            messages.all();
            connection.feed("aaaaaaaaaaaaaaaa");
            EXPECT_EQ(connection.take(), nothing());
            EXPECT_FALSE(connection.socket.isOk());
            EXPECT_EQ(messages.all(),
                      badLength(static_cast<unsigned int>(offset) + static_cast<unsigned int>(width)));
            EXPECT_EQ(connection.take(), nothing());
            EXPECT_EQ(connection.unread(), 16u);
            EXPECT_EQ(messages.all(), "");
        }
    }
}

TEST_F(TcpReceive, noFormatBringsARefusedConnectionBack) {
    for (const Format& format : {Format{2, -1}, Format{2, 0}, Format{4, INT_MAX}}) {
        SCOPED_TRACE(testing::Message() << format);
        Connection connection(format);
        connection.feed(std::string(1, '\0') + std::string(9, '\1'));  // a length of 1 where there is one
        EXPECT_EQ(connection.take(), nothing());
        EXPECT_FALSE(connection.socket.isOk());
        const std::size_t left = connection.unread();
        messages.all();
        watch(connection);
        connection.socket.setSizeOffset(0);
        connection.socket.setSizeLength(2);
        connection.feed(packet(kDefault, 40));
        for (int i = 0; i < 3; ++i) EXPECT_EQ(connection.take(), nothing());
        EXPECT_TRUE(requests.empty()) << "the system is not even asked";
        EXPECT_EQ(connection.unread(), left + 40);
        EXPECT_FALSE(connection.socket.isOk());
        EXPECT_EQ(messages.all(), "");
    }
}

TEST_F(TcpReceive, offsetFarIntoThePacketIsReadWhereItIs) {
    const Format far = {2, 50000};
    Connection connection(far);
    connection.feed(packet(far, 50010));
    EXPECT_EQ(connection.take(), delivered(packet(far, 50010)));
    connection.feed(packet(far, 50002));
    EXPECT_EQ(connection.take(), untouched());
}

TEST_F(TcpReceive, hugeOffsetCommitsNoMemory) {
    const int offset = *CVNC_SANITIZER ? 100000000 : INT_MAX - 4;
    Connection connection({4, offset});
    const std::size_t before = residentBytes();
    connection.feed("start");
    EXPECT_EQ(connection.take(), nothing());
    EXPECT_TRUE(connection.socket.isOk());
    EXPECT_EQ(connection.unread(), 0u);
    EXPECT_LT(residentBytes(), before + (32u << 20));
}

TEST_F(TcpReceive, announcedPacketsCommitNoMemory) {
    const bool isSanitized = *CVNC_SANITIZER;  // shadow memory takes its part
    const int count = isSanitized ? 50 : 1000;
    const unsigned int length = isSanitized ? 10000000 : INT_MAX;
    rlimit limit = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < 2200) GTEST_SKIP() << "needs two descriptors for each of 1000 connections";

    const Quiet quiet;
    std::vector<std::unique_ptr<Connection>> connections;
    const std::size_t before = residentBytes();
    for (int i = 0; i < count; ++i) {
        connections.emplace_back(new Connection({4, 0}));
        connections.back()->feed(field(4, length) + "start");
        ASSERT_EQ(connections.back()->take(), nothing());
        ASSERT_TRUE(connections.back()->socket.isOk());
        ASSERT_GT(connections.back()->socket.pktBufferSize, length);
        ASSERT_LT(residentBytes(), before + (64u << 20)) << "after connection " << i;
    }
}

// --- formats that change ---------------------------------------------------------------------------------

TEST_F(TcpReceive, formatChangedInsideAHeaderHoldsFromTheNextPacketOn) {
    struct {
        Format before, after;
    } const table[] = {{{2, 0}, {4, 8}}, {{4, 8}, {1, 0}},  {{4, 0}, {1, 0}},      {{2, 8}, {2, 0}},
                       {{1, 3}, {4, 0}}, {{4, 0}, {2, -5}}, {{2, 8}, {4, INT_MAX}}};
    for (const auto& row : table) {
        const std::string old = packet(row.before, 40, 1);
        for (std::size_t cut = 1; cut < old.size(); ++cut) {
            SCOPED_TRACE(testing::Message() << row.before << " to " << row.after << " at " << cut);
            Connection connection(row.before);
            connection.feed(old.substr(0, cut));
            EXPECT_EQ(connection.take(), nothing());
            const unsigned int wanted = connection.socket.bytesToRead;
            connection.socket.setSizeOffset(row.after.offset);
            connection.socket.setSizeLength(row.after.width);
            EXPECT_EQ(connection.socket.bytesToRead, wanted);
            EXPECT_EQ(connection.socket.sizeOffset, row.after.offset);
            EXPECT_EQ(connection.socket.sizeLength, row.after.width);
            connection.feed(old.substr(cut));
            EXPECT_EQ(connection.take(), delivered(old));
            if (row.after.offset < 0 || row.after.offset == INT_MAX) {
                EXPECT_EQ(connection.take(), nothing());
                EXPECT_FALSE(connection.socket.isOk());
                continue;
            }
            connection.feed(packet(row.after, 50, 2));
            EXPECT_EQ(connection.take(), delivered(packet(row.after, 50, 2)));
        }
    }
}

TEST_F(TcpReceive, formatChangedInsideAConnectionTestHoldsBehindIt) {
    Connection connection({4, 0});
    connection.feed(field(4, 4).substr(0, 3));
    EXPECT_EQ(connection.take(), nothing());
    connection.socket.setSizeLength(1);
    connection.feed(field(4, 4).substr(3) + "\x03yz");
    EXPECT_EQ(connection.take(), untouched());
    EXPECT_EQ(connection.take(), delivered("\x03yz"));
}

TEST_F(TcpReceive, formatChangedBetweenPacketsHoldsAtOnce) {
    Connection connection;
    connection.feed(packet(kDefault, 20));
    EXPECT_EQ(connection.take(), delivered(packet(kDefault, 20)));
    connection.socket.setSizeOffset(8);
    connection.feed(pdu(144));
    EXPECT_EQ(connection.take(), delivered(pdu(144)));
}

// --- the copying form ------------------------------------------------------------------------------------

TEST_F(TcpReceive, copyTellsTheFullLengthAndCopiesWhatFits) {
    Connection connection(kDis);
    for (std::size_t room : {0u, 1u, 10u, 143u, 144u, 145u, 200u}) {
        connection.feed(pdu(144, 5));
        std::string copy(201, '~');
        EXPECT_EQ(connection.socket.NwRecv(&copy[0], static_cast<unsigned long>(room)), 144) << room;
        const std::size_t copied = room < 144 ? room : 144;
        EXPECT_EQ(copy, pdu(144, 5).substr(0, copied) + std::string(201 - copied, '~')) << room;
    }
    EXPECT_EQ(connection.take(), nothing()) << "what did not fit is lost";
}

TEST_F(TcpReceive, copyOfNothingLeavesTheRoomAlone) {
    Connection connection;
    connection.feed(field(2, 2) + packet(kDefault, 100).substr(0, 60));
    std::string room(100, '~');
    EXPECT_EQ(connection.socket.NwRecv(&room[0], room.size()), 0) << "a connection test";
    EXPECT_EQ(connection.socket.NwRecv(&room[0], room.size()), 0) << "part of a packet";
    EXPECT_EQ(connection.socket.NwRecv(&room[0], room.size()), 0) << "nothing";
    EXPECT_EQ(room, std::string(100, '~'));
    connection.feed(packet(kDefault, 100).substr(60));
    EXPECT_EQ(connection.socket.NwRecv(&room[0], room.size()), 100);
    EXPECT_EQ(room, packet(kDefault, 100));
}

TEST_F(TcpReceive, allFormsShareOneState) {
    Connection connection;
    const std::string whole = packet(kDefault, 30, 8);
    std::string room(30, '~');
    char* lent = nullptr;
    int status = 7;
    connection.feed(whole.substr(0, 1));
    EXPECT_EQ(connection.socket.NwRecv(&room[0], room.size()), 0);
    connection.feed(whole.substr(1, 10));
    EXPECT_EQ(connection.take(), nothing());
    connection.feed(whole.substr(11));
    EXPECT_EQ(connection.socket.recvWithStatus(&lent, &status), 30);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(std::string(lent, 30), whole);
}

// --- the end of a connection -----------------------------------------------------------------------------

TEST_F(TcpReceive, endOfTheStreamIsSilentWhereverItComes) {
    const std::string whole = pdu(144);
    for (std::size_t cut : {0u, 1u, 5u, 9u, 10u, 11u, 143u}) {
        SCOPED_TRACE(cut);
        Connection connection(kDis);
        messages.all();
        connection.feed(whole.substr(0, cut));
        EXPECT_EQ(connection.take(), nothing());
        EXPECT_TRUE(connection.socket.isOk());
        const int phase = connection.socket.waitingForSize;
        const unsigned int read = connection.socket.bytesRead, wanted = connection.socket.bytesToRead;
        connection.peer.close();
        connection.waitForEnd();
        EXPECT_EQ(cut % 2 ? connection.takeWithoutStatus() : connection.take(), nothing());
        EXPECT_FALSE(connection.socket.isOk());
        EXPECT_EQ(connection.socket.waitingForSize, phase) << "the state stays where it was";
        EXPECT_EQ(connection.socket.bytesRead, read);
        EXPECT_EQ(connection.socket.bytesToRead, wanted);
        EXPECT_EQ(phase, cut < 10 ? 1 : 0);
        EXPECT_EQ(read, cut);
        EXPECT_EQ(wanted, cut < 10 ? 10 - cut : 144 - cut);
        EXPECT_EQ(connection.take(), nothing());
        EXPECT_EQ(messages.all(), "");
    }
}

TEST_F(TcpReceive, packetsBeforeTheEndAreDeliveredFirst) {
    Connection connection;
    connection.feed(packet(kDefault, 50, 1) + packet(kDefault, 60, 2));
    connection.peer.close();
    connection.waitForEnd();
    EXPECT_EQ(connection.take(), delivered(packet(kDefault, 50, 1)));
    EXPECT_TRUE(connection.socket.isOk());
    EXPECT_EQ(connection.take(), delivered(packet(kDefault, 60, 2)));
    EXPECT_TRUE(connection.socket.isOk());
    EXPECT_EQ(connection.take(), nothing());
    EXPECT_FALSE(connection.socket.isOk());
}

TEST_F(TcpReceive, headerWithTheEndRightBehindItEndsInTheSameCall) {
    Connection connection;
    connection.feed(field(2, 50));
    connection.peer.shutdownWrite();
    connection.waitForEnd();
    EXPECT_EQ(connection.take(), nothing());
    EXPECT_FALSE(connection.socket.isOk());
}

TEST_F(TcpReceive, halfClosedPeerCanStillBeSentTo) {
    Connection connection;
    connection.peer.shutdownWrite();
    connection.waitForEnd();
    EXPECT_EQ(connection.take(), nothing());
    EXPECT_FALSE(connection.socket.isOk());
    char text[] = "abc";
    EXPECT_EQ(connection.socket.sendTo(text, 3, 0), 3);
    EXPECT_EQ(connection.peer.receive(3), "abc");
}

TEST_F(TcpReceive, resetIsReportedWithTheSystemsWordsAndAnEmptyLine) {
    for (std::size_t cut : {0u, 1u, 30u}) {
        SCOPED_TRACE(cut);
        Connection connection;
        messages.all();
        connection.feed(packet(kDefault, 50).substr(0, cut));
        EXPECT_EQ(connection.take(), nothing());
        connection.peer.reset();
        connection.waitForEnd();
        EXPECT_EQ(connection.take(), nothing());
        EXPECT_FALSE(connection.socket.isOk());
        EXPECT_EQ(connection.socket.bytesRead, cut);
        EXPECT_EQ(messages.all(), systemReport("Network read error: ", ECONNRESET) + "\n");
        EXPECT_EQ(connection.take(), nothing()) << "and then it is an ordinary end";
        EXPECT_EQ(messages.all(), "");
    }
}

TEST_F(TcpReceive, resetIsSilentWhileQuiet) {
    const Quiet quiet;
    Connection connection;
    connection.peer.reset();
    connection.waitForEnd();
    EXPECT_EQ(connection.takeWithoutStatus(), nothing());
    EXPECT_FALSE(connection.socket.isOk());
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpReceive, everyErrorButNothingYetEndsTheConnection) {
    for (int error : {EINTR, EBADF, ENOMEM, ETIMEDOUT, EHOSTUNREACH}) {
        Connection connection;
        connection.feed(packet(kDefault, 50));
        messages.all();
        watch(connection);
        recvError = error;
        EXPECT_EQ(connection.take(), nothing());
        EXPECT_FALSE(connection.socket.isOk());
        EXPECT_EQ(requests.size(), 1u) << "one call, not repeated";
        EXPECT_EQ(messages.all(), systemReport("Network read error: ", error) + "\n");
    }
    Connection connection;
    connection.feed(packet(kDefault, 50));
    watch(connection);
    recvError = EAGAIN;
    messages.all();
    EXPECT_EQ(connection.take(), nothing());
    EXPECT_TRUE(connection.socket.isOk());
    EXPECT_EQ(connection.take(), delivered(packet(kDefault, 50)));
    EXPECT_EQ(messages.all(), "");
}

TEST_F(TcpReceive, nothingYetChangesNothing) {
    Connection connection(kDis);
    for (std::size_t fed : {0u, 4u, 50u}) {
        if (fed) connection.feed(pdu(144).substr(fed == 4 ? 0 : 4, fed == 4 ? 4 : 46));
        EXPECT_EQ(connection.take(), nothing());
        EXPECT_EQ(connection.socket.bytesRead, fed);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(i ? connection.take() : connection.takeWithoutStatus(), nothing());
        EXPECT_EQ(connection.socket.bytesRead, fed);
        EXPECT_TRUE(connection.socket.isOk());
    }
    connection.feed(pdu(144).substr(50));
    EXPECT_EQ(connection.takeWithoutStatus(), delivered(pdu(144)));
}

// --- the judgement of one recv() -------------------------------------------------------------------------

namespace {

struct Verdict {
    int result, status;
    bool isNull, isOk;
};

bool operator==(const Verdict& a, const Verdict& b) {
    return a.result == b.result && a.status == b.status && a.isNull == b.isNull && a.isOk == b.isOk;
}

std::ostream& operator<<(std::ostream& out, const Verdict& verdict) {
    return out << verdict.result << ", status " << verdict.status << (verdict.isNull ? ", null" : "")
               << (verdict.isOk ? ", ok" : ", not ok");
}

Verdict judge(NwTcpSocket& socket, int n, int error) {
    char mark = 0;
    char* lent = &mark;
    int status = 7;
    errno = error;
    const int result = socket.checkSize(n, &lent, &status);
    return {result, status, lent == nullptr, socket.isOk()};
}

}  // namespace

TEST_F(TcpReceive, judgementOfOneRead) {
    const Verdict goOn = {1, 7, false, true}, wait = {0, 0, true, true}, ended = {0, 0, true, false};
    {
        Connection connection;
        messages.all();
        EXPECT_EQ(judge(connection.socket, 1, EBADF), goOn) << "errno is no matter then";
        EXPECT_EQ(judge(connection.socket, INT_MAX, 0), goOn);
        EXPECT_EQ(judge(connection.socket, -1, EAGAIN), wait);
        EXPECT_EQ(judge(connection.socket, -1, EWOULDBLOCK), wait);
        EXPECT_EQ(messages.all(), "");
        EXPECT_EQ(judge(connection.socket, 0, EAGAIN), ended);
        EXPECT_EQ(messages.all(), "");
    }
    Connection connection;
    messages.all();
    EXPECT_EQ(judge(connection.socket, -1, EPIPE), ended);
    EXPECT_EQ(messages.warn(), systemReport("Network read error: ", EPIPE) + "\n");
    const Quiet quiet;
    EXPECT_EQ(judge(connection.socket, -1, EPIPE), ended);
    EXPECT_EQ(messages.all(), "");
    char* lent = nullptr;
    EXPECT_EQ(connection.socket.checkSize(5, &lent, nullptr), 1);
    EXPECT_EQ(connection.socket.checkSize(0, &lent, nullptr), 0);
    errno = EAGAIN;
    EXPECT_EQ(connection.socket.checkSize(-1, &lent, nullptr), 0);
}

// SPDX-License-Identifier: BSD-3-Clause
// Fuzz target for the receive path of the TCP socket: a stream cut anywhere and a format in, packets out,
// through a real descriptor. What comes out is held against a model that knows the stream format and shares
// no code with the library; and never a byte behind the current packet leaves the kernel. An input is
//
//     byte  0  flags: 1 network byte order, 2 quiet, 4 packets copied to the caller, 8 no status wanted,
//                     16 the stream ends with the input, 32 traces on, 64 the format is set before the first
//                     receive, 128 unused
//           1  setSizeLength (signed)
//           2  setSizeOffset, 4 bytes, least significant first, as all numbers here
//           6  setPacketBufferSize, 2 bytes (65535: a negative one; else the lower 14 bits)
//           8  room of the caller for a copy, in units of 16 bytes
//           9  steps: a number of 2 bytes, and what it says:
//                0xFFFF setSizeOffset, 4 bytes; 0xFFFE setSizeLength, 1 byte; 0xFFFD one receive more;
//                else the next piece of the stream: so many bytes (the lower 12 bits), or as many as there
//                are
//
// Behind each piece comes one receive, or more until there is nothing: bit 12 of its number says which. An
// input shorter than its settings ends in zeros.
#include <cvNetworkCompatibility/cvTcpSocket.h>

#include <cvutil/cvByteOrder.h>
#include <cvutil/cvOutput.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <sstream>
#include <string>

#include "input.h"
#include "little_memory.h"

namespace {

// --- input -----------------------------------------------------------------------------------------------

struct Settings {
    explicit Settings(Input& input) {
        const unsigned int flags = input.number(1);
        networkOrder = flags & 1;
        quiet = flags & 2;
        copied = flags & 4;
        noStatus = flags & 8;
        ends = flags & 16;
        traced = flags & 32;
        formatFirst = flags & 64;
        width = static_cast<signed char>(input.number(1));
        offset = input.signedNumber();
        const unsigned int size = input.number(2);
        bufferSize = size == 0xFFFF ? -1 : static_cast<int>(size & 0x3FFF);
        copyRoom = 16 * input.number(1);
    }

    bool networkOrder, quiet, copied, noStatus, ends, traced, formatFirst;
    int width, offset, bufferSize;
    std::size_t copyRoom;
};

// --- what must come out ----------------------------------------------------------------------------------

// The stream format, worked out in the plainest way: a string of what has arrived, and where the packet under
// way begins in it. Arithmetic is in 64 bits, so that nothing can wrap.
class Model {
public:
    // Untouched: pointer and status are as the caller set them.
    enum Kind { kNothing, kUntouched, kPacket };
    struct Outcome {
        Kind kind = kNothing;
        std::string packet;
        std::string warning;
    };

    explicit Model(const Settings& settings)
        : myNetworkOrder(settings.networkOrder),
          myBufferSize(static_cast<std::uint64_t>(std::max(settings.bufferSize, 0))) {}

    void setOffset(int offset) {
        myOffset = offset;
        if (myTaken.empty()) adoptFormat();
    }
    // True if the width is none and a warning says so.
    bool setWidth(int width) {
        const bool isNone = width != 1 && width != 2 && width != 4;
        myWidth = isNone ? 2 : width;
        if (myTaken.empty()) adoptFormat();
        return isNone;
    }

    void arrive(const std::string& bytes) { myKernel += bytes; }
    void endStream() { myStreamEnds = true; }
    std::size_t inKernel() const { return myKernel.size(); }
    bool isOk() const { return myIsOk; }
    // What has arrived of the packet under way.
    std::size_t taken() const { return myTaken.size(); }

    Outcome receive() {
        Outcome outcome;
        if (myIsRefused) return outcome;
        const std::int64_t header = std::int64_t(myFormatOffset) + myFormatWidth;
        if (myFormatOffset < 0 || header > INT_MAX) return refuse(header, outcome);
        if (std::int64_t(myTaken.size()) < header) {
            if (!take(header, outcome) || std::int64_t(myTaken.size()) < header) return outcome;
            const std::int64_t length = announced();
            if (length == header) {
                startPacket();
                outcome.kind = kUntouched;
                return outcome;
            }
            if (length < header || length > (myFormatWidth == 1 ? 127 : INT_MAX))
                return refuse(length, outcome);
            myLength = length;
        }
        if (!take(myLength, outcome) || std::int64_t(myTaken.size()) < myLength) return outcome;
        outcome.kind = kPacket;
        outcome.packet = myTaken;
        startPacket();
        return outcome;
    }

private:
    void adoptFormat() {
        myFormatOffset = myOffset;
        myFormatWidth = myWidth;
    }
    void startPacket() {
        myTaken.clear();
        adoptFormat();
    }
    // One read up to `end` of the packet. False when there is nothing to read.
    bool take(std::int64_t end, Outcome& outcome) {
        if (!makeRoom(static_cast<std::uint64_t>(end))) {
            refuse(end, outcome);
            return false;
        }
        if (myKernel.empty()) {
            if (myStreamEnds) myIsOk = false;
            return false;
        }
        const std::size_t count = std::min(myKernel.size(), static_cast<std::size_t>(end) - myTaken.size());
        myTaken += myKernel.substr(0, count);
        myKernel.erase(0, count);
        return true;
    }
    // The buffer holds a packet and a zero byte, and grows in multiples of its size while memory holds out.
    bool makeRoom(std::uint64_t length) {
        if (myBufferSize > length) return true;
        const std::uint64_t unit = std::max<std::uint64_t>(myBufferSize, 1);
        const std::uint64_t size = (length / unit + 1) * unit;
        if (size > kMostMemory) return false;
        myBufferSize = size;
        return true;
    }
    Outcome refuse(std::int64_t length, Outcome& outcome) {
        if (myIsOk)
            outcome.warning =
                "NwTcpSocket: bad packet length " + std::to_string(static_cast<std::uint32_t>(length)) + "\n";
        myIsOk = false;
        myIsRefused = true;
        return outcome;
    }
    std::int64_t announced() const {
        const bool bigEndian = myNetworkOrder || __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;
        std::int64_t value = 0;
        for (int i = 0; i < myFormatWidth; ++i) {
            const int place = myFormatOffset + (bigEndian ? i : myFormatWidth - 1 - i);
            value = value << 8 | static_cast<unsigned char>(myTaken[static_cast<std::size_t>(place)]);
        }
        return value;
    }

    bool myNetworkOrder;
    std::uint64_t myBufferSize;
    int myOffset = 0, myWidth = 2;              // of packets to come
    int myFormatOffset = 0, myFormatWidth = 2;  // of the packet under way
    std::string myKernel;                       // arrived, not read
    std::string myTaken;                        // of the packet under way
    std::int64_t myLength = 0;                  // of it, once its header is complete
    bool myStreamEnds = false;
    bool myIsOk = true;
    bool myIsRefused = false;
};

// --- a run -----------------------------------------------------------------------------------------------

std::ostringstream theWarnings;

std::string takeWarnings() {
    const std::string text = theWarnings.str();
    theWarnings.str(std::string());
    return text;
}

class Run {
public:
    explicit Run(Input& input) : mySettings(input), myModel(mySettings) {
        makeSocket();
        if (mySettings.formatFirst) {
            setWidth(mySettings.width);
            setOffset(mySettings.offset);
        }
        while (!input.isAtEnd()) step(input);
        if (mySettings.ends) {
            ::close(myPeer);
            myPeer = -1;
            myModel.endStream();
        }
        receiveAll();
        // An end is one for good.
        for (int i = 0; i < 2; ++i) receive();
        expectEqual("a stream that ended is read to its end, or refused", mySettings.ends && mySocket->isOk(),
                    0);
    }
    ~Run() {
        mySocket.reset();
        if (myPeer >= 0) ::close(myPeer);
    }

private:
    void makeSocket() {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
        myPeer = ends[1];
        NwSocket::setQuietSockets(true);  // the options of TCP are none of this descriptor's
        NwTcpSocket::setPacketBufferSize(mySettings.bufferSize);
        mySocket.reset(new NwTcpSocket(ends[0], 0u, 0));
        expectEqual("isOk", mySocket->isOk(), true);
        NwSocket::setQuietSockets(mySettings.quiet);
        NwNetDebugOn = mySettings.traced;
    }

    void setOffset(int offset) {
        mySocket->setSizeOffset(offset);
        myModel.setOffset(offset);
    }
    void setWidth(int width) {
        mySocket->setSizeLength(width);
        const bool isWarned = myModel.setWidth(width) && !mySettings.quiet;
        expectEqual("warning of a width",
                    takeWarnings() == (isWarned ? "Invalid value for size, using default value\n" : ""),
                    true);
    }

    void step(Input& input) {
        const unsigned int what = input.number(2);
        if (what == 0xFFFF) return setOffset(input.signedNumber());
        if (what == 0xFFFE) return setWidth(static_cast<signed char>(input.number(1)));
        if (what != 0xFFFD) send(input.bytes(what & 0x0FFF));
        if (what & 0x1000)
            receive();
        else
            receiveAll();
    }
    void send(const std::string& bytes) {
        if (bytes.empty()) return;
        if (::send(myPeer, bytes.data(), bytes.size(), MSG_DONTWAIT) != static_cast<ssize_t>(bytes.size())) {
            std::perror("send");
            std::abort();
        }
        myModel.arrive(bytes);
    }

    // Until a receive changes nothing any more.
    void receiveAll() {
        std::size_t inKernel, taken;
        do {
            inKernel = myModel.inKernel();
            taken = myModel.taken();
            receive();
        } while (myModel.inKernel() != inKernel || myModel.taken() != taken);
    }

    // One receive on both sides.
    void receive() {
        const Model::Outcome wanted = myModel.receive();
        if (mySettings.copied)
            receiveCopied(wanted);
        else
            receiveLent(wanted);
        expectEqual("isOk", mySocket->isOk(), myModel.isOk());
        expectEqual("warning", takeWarnings() == (mySettings.quiet ? std::string() : wanted.warning), true);
        int inKernel = 0;
        if (::ioctl(mySocket->readFd(), FIONREAD, &inKernel) != 0) std::abort();
        expectEqual("bytes left in the kernel", inKernel, static_cast<long>(myModel.inKernel()));
    }

    void receiveLent(const Model::Outcome& wanted) {
        char untouched = 0;
        char* place = &untouched;
        int status = 77;
        const int length = mySocket->NwRecv(&place, mySettings.noStatus ? nullptr : &status);
        expectEqual("length", length, static_cast<long>(wanted.packet.size()));
        const bool keepsStatus = mySettings.noStatus || wanted.kind == Model::kUntouched;
        expectEqual("status", status, keepsStatus ? 77 : wanted.kind == Model::kPacket);
        if (wanted.kind == Model::kUntouched) expectEqual("pointer untouched", place == &untouched, true);
        if (wanted.kind == Model::kNothing) expectEqual("pointer null", place == nullptr, true);
        if (wanted.kind != Model::kPacket) return;
        expectEqual("bytes of the packet", std::memcmp(place, wanted.packet.data(), wanted.packet.size()), 0);
        expectEqual("zero behind the packet", place[length], 0);
    }

    // Into storage of just its size, so that a byte too many is noticed.
    void receiveCopied(const Model::Outcome& wanted) {
        const std::size_t room = mySettings.copyRoom;
        const std::unique_ptr<char[]> storage(new char[room]);
        std::memset(storage.get(), 0x5A, room);
        const int length = mySocket->NwRecv(storage.get(), room);
        expectEqual("length", length, static_cast<long>(wanted.packet.size()));
        const std::size_t copied = std::min(wanted.packet.size(), room);
        expectEqual("bytes of the packet", std::memcmp(storage.get(), wanted.packet.data(), copied), 0);
        for (std::size_t i = copied; i < room; ++i)
            expectEqual("storage behind the packet", storage[i], 0x5A);
    }

    Settings mySettings;
    Model myModel;
    std::unique_ptr<NwTcpSocket> mySocket;
    int myPeer = -1;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static std::ostringstream traces;
    traces.str(std::string());
    NwInfo.rdbuf(traces.rdbuf());
    NwWarn.rdbuf(theWarnings.rdbuf());
    theWarnings.str(std::string());
    NwSetNetworkByteOrdering(size > 0 && (data[0] & 1) ? 1 : 0);
    Input input(data, size);
    Run run(input);
    return 0;
}

// SPDX-License-Identifier: BSD-3-Clause
// Fuzz target for the receive path of the UDP socket: datagrams and settings in, packets out, through a real
// descriptor. What comes out is held against the model of tests/support and against a ledger of bytes: each
// delivered at most once, in order, never from outside the datagram. An input is
//
//     byte  0  flags: 1 a derived class, 2 DIS header test, 4 network byte order, 8 quiet, 16 unbundling at
//     the start,
//                     32 every other burst is the host's own, 64 packets in place, 128 packets copied to the
//                     caller
//           1  setSizeLength (signed)
//           2  filter: 0 none, 1 to 4 include, 5 to 8 exclude a version, exercise, type, sender (modulo 9)
//           3  the filter's value
//           4  setSizeOffset, 4 bytes, least significant first, as all numbers here
//           8  setMinPacketSize, 4 bytes
//          12  room of the receive buffer, 2 bytes (65535: a negative one; else the lower 14 bits)
//          14  toggles: before receive n unbundling is switched over if bit n modulo 8 is set
//          15  datagrams that wait before the first receive, and again when all are read: modulo 8, plus one
//          16  datagrams: length, 2 bytes, and as many bytes as there are
//
// An input shorter than its settings ends in zeros.
#include <cvNetworkCompatibility/cvNetSocket.h>

#include <cvutil/cvByteOrder.h>
#include <cvutil/cvOutput.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "input.h"
#include "split_model.h"

namespace {

struct Settings {
    explicit Settings(Input& input) {
        const unsigned int flags = input.number(1);
        isDerived = flags & 1;
        headerTest = flags & 2;
        networkOrder = flags & 4;
        quiet = flags & 8;
        unbundling = flags & 16;
        hasOwn = flags & 32;
        inPlace = flags & 64;
        copied = flags & 128;
        width = static_cast<signed char>(input.number(1));
        filter = input.number(1) % 9;
        filterValue = input.number(1);
        offset = input.signedNumber();
        minSize = input.signedNumber();
        const unsigned int size = input.number(2);
        room = size == 0xFFFF ? -1 : static_cast<int>(size & 0x3FFF);
        toggles = input.number(1);
        burst = 1 + input.number(1) % 8;
    }

    bool isDerived, headerTest, networkOrder, quiet, unbundling, hasOwn, inPlace, copied;
    int width, offset, minSize, room;
    unsigned int filter, filterValue, toggles, burst;
};

// Both ends of a datagram descriptor; a queue of the kernel holds at least the ten datagrams of the smallest
// default.
struct Pair {
    Pair() {
        if (::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
    }
    void send(const std::string& bytes) {
        const ssize_t sent = ::send(ends[1], bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (sent != static_cast<ssize_t>(bytes.size())) {
            std::perror("send");
            std::abort();
        }
    }
    int ends[2];
};

Pair& pair() {
    static Pair theOne;
    return theOne;
}

// The bytes of each datagram as they were read, and how far they are used up.
struct Ledger {
    void open(const char* bytes, int length) {
        expectEqual("a datagram is read while another is pending", static_cast<long>(left()), 0);
        datagram.assign(bytes, static_cast<std::size_t>(length));
        used = 0;
    }
    std::size_t left() const { return datagram.size() - used; }
    void discard() { used = datagram.size(); }
    void deliver(const std::string& packet) {
        if (packet.size() > left())
            finding("bytes delivered of a datagram", static_cast<long>(packet.size()),
                    static_cast<long>(left()));
        expectEqual("bytes delivered in order", datagram.compare(used, packet.size(), packet), 0);
        used += packet.size();
    }

    std::string datagram;
    std::size_t used = 0;
};

// Reads like its base, and names a sender of its own for each datagram.
class Derived : public NwNetSocket {
public:
    Derived(int fd, Ledger& ledger)
        : NwNetSocket(nullptr, fd, (unsigned char)(NwNetSocketRead | NwNetSocketQuietStart)),
          myLedger(ledger) {}

    int recvFromNet(char** buf) override {
        const int length = NwNetSocket::recvFromNet(buf);
        if (length == 0 && !*buf) return 0;
        sourceSockAddr->sin_addr.s_addr = htonl(++myReads);
        if (length > 0 && isUnbundling()) {
            myLedger.discard();  // a short rest
            myLedger.open(*buf, length);
        }
        return length;
    }

private:
    Ledger& myLedger;
    unsigned int myReads = 0;
};

// The protected fields of a socket of either class.
struct Names : NwNetSocket {
    static char* recvBufferOf(NwNetSocket& s) { return (s.*&Names::recvBuffer).get(); }
    static char* copyBufferOf(NwNetSocket& s) { return (s.*&Names::copyBuffer).get(); }
    static int bytesLeft(NwNetSocket& s) { return s.*&Names::bytesLeftInBundle; }
};

std::unique_ptr<NwNetSocket> makeSocket(const Settings& settings, Ledger& ledger) {
    theMaxPacketSize = settings.room;
    NwNetSocket::initErrorAction = 1;
    const int fd = pair().ends[0];
    std::unique_ptr<NwNetSocket> socket;
    if (settings.isDerived)
        socket.reset(new Derived(fd, ledger));
    else
        socket.reset(new NwNetSocket(nullptr, fd, (unsigned char)(NwNetSocketRead | NwNetSocketQuietStart)));
    expectEqual("isOk", socket->isOk(), true);
    socket->NwBecomeNonBlocking();
    socket->enableDisHeaderTest(settings.headerTest);
    socket->setSizeLength(settings.width);
    socket->setSizeOffset(settings.offset);
    socket->setMinPacketSize(settings.minSize);
    socket->setUnbundling(settings.unbundling);
    socket->setMcastDevice(0);  // the address that every datagram of this descriptor comes from
    if (settings.filter) {
        NwFilterTest* const tests[] = {&socket->protocolVersion(), &socket->exerciseId(), &socket->pduKind(),
                                       &socket->ipAddr()};
        unsigned int value = settings.filterValue;
        tests[(settings.filter - 1) % 4]->setTest(settings.filter <= 4 ? NwTestInclude : NwTestExclude, 1,
                                                  &value);
    }
    return socket;
}

SplitModel makeModel(const Settings& settings) {
    SplitModel model;
    model.unbundling = settings.unbundling;
    model.headerTest = settings.headerTest;
    model.networkOrder = settings.networkOrder;
    model.minSize = settings.minSize;
    model.offset = settings.offset;
    model.width = settings.width;
    model.room = static_cast<std::size_t>(std::max(settings.room, 0));
    model.accepts = [settings](const std::string& packet, unsigned int source) {
        if (!settings.filter) return true;
        const unsigned int field = (settings.filter - 1) % 4;
        const unsigned int value = field == 3 ? source : static_cast<unsigned char>(packet[field]);
        return (value == settings.filterValue) == (settings.filter <= 4);
    };
    return model;
}

class Run {
public:
    explicit Run(Input& input)
        : mySettings(input), mySocket(makeSocket(mySettings, myLedger)), myModel(makeModel(mySettings)) {
        myWarnings.str(std::string());
        while (!input.isAtEnd()) burst(input);
        // Whatever was kept comes out in the end.
        setUnbundling(true);
        for (long left = 100000; !receive(); --left) expectEqual("receives end", left > 0, true);
        expectEqual("data left at the end", mySocket->dataLeftInCurrentBundle(), false);
        expectEqual("datagrams counted", mySocket->NwReportPktsRcvd(), myModel.received);
    }

private:
    void burst(Input& input) {
        const bool own = mySettings.hasOwn && myBursts++ % 2 == 0;
        mySocket->setFilterPort(own ? 0 : -1);
        long mostReceives = static_cast<long>(myModel.rest.size()) + 2;
        for (unsigned int i = 0; i < mySettings.burst && !input.isAtEnd(); ++i) {
            const std::string bytes = input.bytes(input.number(2));
            pair().send(bytes);
            myModel.queue.push_back({bytes, mySettings.isDerived ? ++myDatagrams : 0, own});
            mostReceives += static_cast<long>(bytes.size()) + 2;
        }
        do {
            if (mySettings.toggles >> (myReceives++ % 8) & 1) setUnbundling(!myModel.unbundling);
            expectEqual("receives end", mostReceives-- > 0, true);
        } while (!receive());
    }

    void setUnbundling(bool on) {
        mySocket->setUnbundling(on);
        myModel.unbundling = on;
    }

    // One receive on both sides. True when the descriptor was found empty.
    bool receive() {
        const SplitModel::Outcome wanted = myModel.receive();
        const bool isPending = !myModel.rest.empty();
        std::string got;
        if (mySettings.copied)
            got = receiveCopied(wanted);
        else
            got = receiveLent(wanted);
        expectEqual("bytes of the packet", got.compare(wanted.bytes.substr(0, got.size())), 0);
        expectEqual("data left", mySocket->dataLeftInCurrentBundle(), isPending);
        if (isPending)
            expectEqual("bytes left", Names::bytesLeft(*mySocket), static_cast<long>(myModel.rest.size()));
        expectEqual("sender", mySocket->lastSourceInetAddr(), myModel.lastSource);
        expectEqual("warnings", myWarnings.str() == (mySettings.quiet ? std::string() : wanted.warnings),
                    true);
        myWarnings.str(std::string());
        return wanted.readNothing;
    }

    std::string receiveLent(const SplitModel::Outcome& wanted) {
        char untouched = 0;
        char* place = &untouched;
        int status = 77;
        const int length = mySettings.inPlace ? mySocket->recvWithStatus(&place, &status)
                                              : mySocket->NwRecv(&place, &status);
        expectEqual("status", status, wanted.status);
        expectEqual("length", length, wanted.length);
        expectEqual("length and status agree", length > 0, status == 1);
        if (status == -3) expectEqual("pointer untouched by an own datagram", place == &untouched, true);
        if (status == -2) expectEqual("pointer of a refused packet", place == nullptr, true);
        if (status == 0 && myModel.unbundling)
            expectEqual("pointer when there is nothing", place == nullptr, true);
        if (length <= 0) {
            settle();
            return std::string();
        }
        if (!mySettings.inPlace)
            expectEqual("packet starts a buffer",
                        place == Names::recvBufferOf(*mySocket) || place == Names::copyBufferOf(*mySocket),
                        true);
        const std::string packet(place, static_cast<std::size_t>(length));
        enter(packet);
        return packet;
    }

    // Into storage of just its size, so that a byte too many is noticed.
    std::string receiveCopied(const SplitModel::Outcome& wanted) {
        const std::size_t room = mySettings.filterValue * 8;
        std::unique_ptr<char[]> storage(new char[room]);
        std::memset(storage.get(), 0x5A, room);
        const int length = mySocket->NwRecv(storage.get(), room);
        expectEqual("length", length, wanted.length);
        const std::size_t copied = std::min(static_cast<std::size_t>(length), room);
        for (std::size_t i = copied; i < room; ++i)
            expectEqual("storage behind the packet", storage[i], 0x5A);
        if (length > 0 && copied == static_cast<std::size_t>(length))
            enter(std::string(storage.get(), copied));
        else
            settle();
        return std::string(storage.get(), copied);
    }

    // Enters a delivered packet into the ledger (which the derived class keeps).
    void enter(const std::string& packet) {
        if (!mySettings.isDerived || !myModel.unbundling) return;
        myLedger.deliver(packet);
        expectEqual("rest in the ledger", static_cast<long>(myLedger.left()),
                    static_cast<long>(myModel.rest.size()));
    }
    // What was refused, discarded or cut in copying.
    void settle() {
        if (mySettings.isDerived && myModel.unbundling)
            myLedger.used = myLedger.datagram.size() - std::min(myLedger.left(), myModel.rest.size());
    }

    Settings mySettings;
    Ledger myLedger;
    std::unique_ptr<NwNetSocket> mySocket;
    SplitModel myModel;
    unsigned int myDatagrams = 0;
    unsigned int myReceives = 0;
    unsigned int myBursts = 0;

public:
    static std::ostringstream myWarnings;
};

std::ostringstream Run::myWarnings;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    NwWarn.rdbuf(Run::myWarnings.rdbuf());
    const bool quiet = size > 0 && (data[0] & 8);
    NwSocket::setQuietSockets(quiet);
    NwSetNetworkByteOrdering(size > 0 && (data[0] & 4) ? 1 : 0);
    Input input(data, size);
    Run run(input);
    return 0;
}

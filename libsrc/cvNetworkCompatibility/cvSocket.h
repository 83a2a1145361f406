// SPDX-License-Identifier: BSD-3-Clause
// The one interface of every socket: packets out (with bundling), packets in, header filters, and the
// settings that hold for the whole process.
#ifndef CVNETWORKCOMPATIBILITY_CVSOCKET_H
#define CVNETWORKCOMPATIBILITY_CVSOCKET_H

#include <cvNetworkCompatibility/cvExport.h>
#include <cvutil/cvInetAddr.h>
#include <cvutil/cvList.h>

#include <map>
#include <memory>
#include <vector>

struct ifconf;

// Address constants, in host byte order like every NwIpv4Addr.
static const NwIpv4Addr NwInetAddrAny = 0;  // any local address
static const NwIpv4Addr NwUSE_DEFAULT_IP_ADDR =
    0;  // the socket's own destination, the host's first interface
static const NwIpv4Addr loopbackAddr = 0x7F000001u;  // 127.0.0.1

// The largest packet in bytes, 15000 at the start. It sizes the receive buffers of each UDP socket when
// the socket is constructed, and limits outgoing bundles. Plain process-wide state: set it first.
extern CVNC_API int theMaxPacketSize;

// Returns theMaxPacketSize.
CVNC_API int NwMaxPacketSize();

// Stores size, whatever its value, after printing "Setting max UDP packet size to %d bytes\n" on NwInfo
// (also while sockets are quiet). Sockets that exist keep the buffers they were built with.
CVNC_API void NwSetMaxPacketSize(int size);

// How a filter test uses its list. Every value but NwTestExclude behaves as NwTestInclude.
enum NwTestOperator : int {
    NwTestInclude = 0,  // a packet passes only when its field value is in the list
    NwTestExclude = 1   // a packet passes when its field value is not in the list
};

// How a filter test reads its field. Any other value makes the field value 0.
enum NwFilterType : int {
    NwFilterInt32 = 0,  // four bytes as an unsigned integer in the host's byte order, never swapped
    NwFilterByte = 1    // one byte, zero-extended
};

// Decides whether one field of a received packet is acceptable: a list of 32-bit values, and an operator
// that says whether the list names what to let through or what to refuse.
//
//     unsigned int wanted[] = {1, 2};                            // Entity State and Fire
//     socket.pduKind().setTest(NwTestInclude, 2, wanted);        // nothing else comes through
//     unsigned int more[] = {3};
//     socket.pduKind().extendTest(1, more);                      // Detonation too
//     socket.pduKind().disableTest();                            // everything again
//
// Every socket owns four of them, which NwSocket::accept runs on each received PDU. Values are ordinary
// numbers, 0 included; duplicates are kept. Used by the socket's thread only. Nothing is printed.
// Not copyable. The order of the virtual operations is part of the binary interface.
class CVNC_API NwFilterTest {
public:
    // A new test excludes an empty list: everything passes.
    NwFilterTest();
    virtual ~NwFilterTest();
    NwFilterTest(const NwFilterTest&) = delete;
    NwFilterTest& operator=(const NwFilterTest&) = delete;

    // Empties the list (through clearList), then stores the operator. To set both, use setTest.
    virtual void setOperator(NwTestOperator newOperator);
    // setOperator, then extendTest. An inclusion of nothing refuses every packet.
    virtual void setTest(NwTestOperator newOperator, int count, unsigned int* newValues);
    // Appends count values in order; the array is read only during the call. A count of 0 or less does
    // nothing; a value that memory cannot hold is left out.
    virtual void extendTest(int count, unsigned int* newValues);
    // Removes, for each given value, the first one in the list that equals it; others stay.
    virtual void reduceTest(int count, unsigned int* oldValues);
    // Whether the field at pkt + offset passes. pkt must have the bytes that type reads there.
    virtual bool evalTest(char* pkt, int offset, NwFilterType type);
    // Removes every value; the operator stays.
    virtual void clearList();

    // Lets everything pass: setTest(NwTestExclude, 0, nullptr), through the virtual table.
    void disableTest();

protected:
    NwTestOperator op;
    NwList values;  // each value stands in its item's data pointer

private:
    friend class NwSocket;
    // The state of a new test, in which evalTest of this very class lets everything pass.
    bool excludesNothing() const { return op == NwTestExclude && !values.first(); }
};

// A socket: sends packets to IPv4 destinations and receives whole packets, one a call. The class decides
// the transport; an application holds any of them through an NwSocket pointer.
//
//     NwSocket* socket = new NwNetSocket(3000, loopbackAddr, (unsigned char)3, loopbackAddr);
//     socket->NwBecomeNonBlocking();
//     socket->NwSend(pdu, 144, NwUSE_DEFAULT_IP_ADDR);
//     char* packet = nullptr;
//     while (int length = socket->NwRecv(&packet, nullptr)) use(packet, length);
//
// (With filters set, look at the status too: a refused packet gives length 0, and there may be more behind
// it.)
//
// Bundling: with setBundling(1400), NwSend collects packets per destination and hands them to the network
// as one larger datagram when the next packet would not fit beside them, or at flush(). Nothing is sent on
// a timer: flush at least once a frame. Packets lie end to end in a bundle; a receiver separates them by
// the length field in each (IEEE 1278.1: bytes 8 and 9 of a PDU header).
//
// Failure is reported by result; no exception leaves a socket. One thread uses a socket at a time, except
// where a class says otherwise. Not copyable. The order of the virtual operations is part of the binary
// interface, and so is the order of the fields.
class CVNC_API NwSocket {
public:
    // Opens nothing; a derived class creates the descriptor.
    NwSocket();
    // Neither flushes nor closes: pending bundles are discarded, unless a derived destructor flushes while
    // its sendTo is still usable (the UDP socket does).
    virtual ~NwSocket();
    NwSocket(const NwSocket&) = delete;
    NwSocket& operator=(const NwSocket&) = delete;

    // Sends the len bytes at buf to destAddr (host byte order; 0 is the socket's own destination), or puts
    // them into that destination's bundle. buf is copied or sent before the call returns.
    //   Bundling off: sendTo, with its result.
    //   Bundling on: the number of bytes that had to leave the host to make room, often 0; -1 when that
    //   flush failed or memory ended, and then the packet was neither kept nor sent. A packet of the bundle
    //   size or more goes out at once through sendTo, with its result, after whatever waits for the same
    //   destination.
    // When the destination's own bundle is not empty and the packet does not fit beside it, the bundles of
    // all destinations are flushed, in ascending order of address; one that cannot be sent holds back
    // those after it, and the packet.
    // Each destination address, 0 too, has a bundle of its own for the life of the socket.
    virtual int NwSend(char* buf, unsigned long len, unsigned int destAddr);

    // The transport: sends one datagram or message now. Returns the bytes sent, 0 when nothing was sent, a
    // negative value on failure. An implementer reports its own errors; buf is the caller's, or during a
    // flush the bundle itself: do not call NwSend from here.
    virtual int sendTo(char* buf, unsigned long len, unsigned int destAddr) = 0;

    // Receives one packet and points *buf at it: storage of the socket, lent until the next receive on this
    // socket. Returns its length, or 0 when there is none. status may be null; else it becomes
    //    1  a packet was delivered
    //    0  nothing was delivered
    //   -1  a control message was consumed or the queue read failed (packet-server client)
    //   -2  a packet was read and refused by the filter tests; there may be more
    //   -3  the datagram was this host's own and was dropped (UDP, unbundling off)
    virtual int NwRecv(char** buf, int* status) = 0;

    // Receives one packet into the caller's storage, at most len bytes of it. Returns the packet's full
    // length, so that a result above len tells of truncation (the pair socket returns what it copied); 0
    // when nothing was delivered. What does not fit is lost.
    virtual int NwRecv(char* buf, unsigned long len) = 0;

    // Sends every bundle that waits, in ascending order of destination. Returns 1, or -1 when a send
    // failed: that bundle and those after it stay and leave with a later flush. Prints nothing itself.
    virtual int flush();
    // The same; bytesSent becomes the bytes that this call sent (also when it fails).
    virtual int flush(long& bytesSent);

    // SO_RCVBUF of readFd() and SO_SNDBUF of writeFd(), size in bytes. Return what setsockopt returns: 0, or
    // -1 with errno. Nothing is printed. The kernel caps the size (net.core.rmem_max, wmem_max).
    virtual int setReceiveBufferSize(int size);
    virtual int setSendBufferSize(int size);

    // Flushes (the result is ignored), then bundles packets up to size bytes, at most NwMaxPacketSize(); 0
    // switches bundling off. After a failed flush data stay pending, and a later flush() sends them. With a
    // negative size every packet is sent by itself. Over UDP choose at most 65507, the largest datagram: a
    // larger bundle can never leave, and holds back every destination after it.
    virtual void setBundling(int size);
    // The bundle size in bytes, 0 while bundling is off.
    virtual int isBundling();
    // Whether received bundles are split into packets (on unless 0). The base class does nothing.
    virtual void setUnbundling(int on);

    // The sender of the last datagram received, in host byte order; 0 where a transport has none.
    virtual NwIpv4Addr lastSourceInetAddr();
    // How many packets were received. UDP counts datagrams, refused ones included; the pair socket counts the
    // packets that pass the filters; the queue socket does not count.
    virtual int NwReportPktsRcvd();
    // Makes receives (and sends) return at once instead of waiting; sockets block by default. Always 0. Only
    // for a socket that has a descriptor: a failure is NwFatalPerror("non-blocking"), which ends the process;
    // if the application's fatal handler returns, the socket stays blocking.
    virtual int NwBecomeNonBlocking();
    // Asks for a wake-up when packets wait; only the packet-server client has one.
    virtual void notifyMe();

    // Multicast; addresses in host byte order, 1 for success, 0 for failure or where a transport has none.
    // See NwNetSocket.
    virtual int listenToMulticastGroup(unsigned int group, unsigned int device);
    virtual int dropMulticastGroup(unsigned int group, unsigned int device);
    virtual int setMcastTtl(int ttl);
    virtual void setMcastDevice(unsigned int device);

    // The four filter tests, to be configured in place; they live as long as the socket. They look at the
    // exercise (byte 1 of the PDU header), the protocol version (byte 0), the PDU type (byte 2), and the
    // sender's address (host byte order).
    virtual NwFilterTest& exerciseId();
    virtual NwFilterTest& protocolVersion();
    virtual NwFilterTest& pduKind();
    virtual NwFilterTest& ipAddr();

    // The descriptors to wait on (select, poll) for reading and writing; -1 where there is none.
    virtual int readFd();
    virtual int writeFd();
    // Whether everything that was asked for at construction works. Never turns true again.
    virtual bool isOk() const;

    // Whether a received PDU passes the filters: version, exercise, type, address, in this order, stopping
    // at the first that refuses. pdu must have three bytes; srcAddr is in host byte order.
    virtual bool accept(char* pdu, unsigned int srcAddr);

    // Process-wide: while true, sockets keep their informational lines and warnings to themselves. Not
    // silenced: the size message, getConfig's report, and fatal endings.
    static void setQuietSockets(bool quiet);
    static bool areQuietSockets();
    // Does nothing here; the one call to make before creating sockets, for platforms that need one.
    static void initializeNetwork();
    // ioctl(fd, SIOCGIFCONF, conf), with buffer and length set by the caller. Returns 1, or 0 after
    // reporting "getConfig failed to get host network config" on NwWarn, also while quiet. device is unused.
    static int getConfig(const char* device, int fd, ifconf* conf);

    static bool theAreQuietSockets;

protected:
    typedef std::map<NwIpv4Addr, std::vector<char>> BundleMap;

    // Adds one to packetsReceived; past INT_MAX it goes on at INT_MIN instead of overflowing.
    void countPacket() {
        packetsReceived = static_cast<int>(static_cast<unsigned int>(packetsReceived) + 1u);
    }

    int blocking;         // 1 while the descriptor is in blocking mode
    int packetsReceived;  // for NwReportPktsRcvd
    BundleMap bundles;    // entries are cleared, never removed: lastBundle points at one
    int bundling;         // 1 while bundling is on
    int bundleSize;       // bytes; 0 while bundling is off
    int socketFd;         // -1 until a derived class opens it
    NwFilterTest exerciseIdTest;
    NwFilterTest protocolVersionTest;
    NwFilterTest pduKindTest;
    NwFilterTest ipAddrTest;

private:
    friend class NwNetSocket;
    // What accept comes to on a socket that overrides neither it nor the accessors; and a glance that is
    // enough while nobody set a filter.
    CVNC_LOCAL bool ownTestsAccept(char* pdu, unsigned int srcAddr);
    bool ownTestsPassAll() const {
        return protocolVersionTest.excludesNothing() && exerciseIdTest.excludesNothing() &&
               pduKindTest.excludesNothing() && ipAddrTest.excludesNothing();
    }
    CVNC_LOCAL int sendBundled(char* buf, unsigned long len, unsigned int destAddr);
    CVNC_LOCAL std::vector<char>& bundleOf(NwIpv4Addr destAddr);
    CVNC_LOCAL BundleMap::value_type* findBundle(NwIpv4Addr destAddr);

    // The bundle that NwSend used last: most senders have one destination.
    BundleMap::value_type* lastBundle;
};

// One packet of a queue socket.
struct NwQueuedPacket {
    int size;    // bytes
    char* data;  // its own copy, from malloc
};

// An in-process loopback: what is sent comes back out, in order. For running packet paths with no network.
//
//     NwQueueSocket socket;
//     socket.NwSend(pdu, 144, NwUSE_DEFAULT_IP_ADDR);
//     char* packet = nullptr;
//     int length = socket.NwRecv(&packet, nullptr);    // 144
//     length = socket.NwRecv(&packet, nullptr);        // 0: empty
//
// Destinations are ignored, filters do not apply, packets are not counted. With bundling on a bundle is
// queued, and comes back, as one packet. The queue has no limit and no lock. Packets that are still queued
// when the socket is destroyed are not freed, as documented: receive them first. Prints nothing.
class CVNC_API NwQueueSocket : public NwSocket {
public:
    NwQueueSocket();
    ~NwQueueSocket() override;

    // Appends a copy. Returns len, or -1 when memory does not hold the copy or len is above INT_MAX.
    int sendTo(char* buf, unsigned long len, unsigned int addr) override;
    // Lends the oldest packet, and returns its full length even when the buffer, of the NwMaxPacketSize()
    // that held at construction, is shorter: bytes beyond it are not there. Status 1; 0 for an empty queue
    // or, indistinguishable, a packet of no bytes.
    int NwRecv(char** buf, int* status) override;
    // Removes the oldest packet, copies at most maxLen bytes of it and returns its full length: a result
    // above maxLen tells of truncation, and the excess is lost.
    int NwRecv(char* buf, unsigned long maxLen) override;

protected:
    NwList queue;  // of NwQueuedPacket*, oldest first
    std::unique_ptr<char[]> recvBuffer;
    int recvBufferSize;  // NwMaxPacketSize() at construction, as given
};

// The socket for a port, whatever carries it: a packet-server client (NwClientSocket) when a packet server
// runs for the port on this host, else a UDP socket that opens the port itself, asynchronous
// (NwAsyncNetSocket) if asked for.
//
//     NwSocket* socket = NwNewDfltSocket(3000, NwUSE_DEFAULT_IP_ADDR, false);
//
// addr is the destination, and the group to listen to if it is multicast (host byte order; 0: the broadcast
// address of the host's first interface). The caller deletes the socket. Never null: look at isOk(), unless
// the process has ended by then: for a UDP socket as NwNetSocket::initErrorAction says, for a client that the
// server does not take (no place left, not allowed, no answer) always, see NwClientSocket. A server too old
// to be used is reported on NwWarn and counts as none.
CVNC_API NwSocket* NwNewDfltSocket(int port, unsigned int addr, bool async);

#endif

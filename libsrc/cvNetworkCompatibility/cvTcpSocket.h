// SPDX-License-Identifier: BSD-3-Clause
// A TCP connection that carries whole packets: each packet's own length field finds its end in the stream.
#ifndef CVNETWORKCOMPATIBILITY_CVTCPSOCKET_H
#define CVNETWORKCOMPATIBILITY_CVTCPSOCKET_H

#include <cvNetworkCompatibility/cvExport.h>
#include <cvNetworkCompatibility/cvSocket.h>
#include <cvutil/cvInetAddr.h>
#include <cvutil/cvList.h>

#include <memory>
#include <utility>

// A piece of the outgoing stream that waits for room in the kernel: a packet, the rest of one, or a bundle.
struct CVNC_API NwTcpMessage {
    // Copies buf[0 .. size), or buf[offset .. offset + size); a negative size counts as 0. When memory does
    // not hold the copy, data is null and size 0.
    NwTcpMessage(const char* buf, int size);
    NwTcpMessage(const char* buf, int offset, int size);
    ~NwTcpMessage();

    std::unique_ptr<char[]> data;
    int size;  // bytes
};

// One TCP connection, as a client or around an accepted descriptor. Always non-blocking: every call returns
// at once, and the application polls.
//
//     NwTcpSocket socket(loopbackAddr, 3000, 0);             // connects; see isOk()
//     socket.setSizeOffset(8);                               // DIS: the length is in bytes 8 and 9
//     socket.NwSend(pdu, 144, NwUSE_DEFAULT_IP_ADDR);
//     char* packet = nullptr;
//     while (int length = socket.NwRecv(&packet, nullptr)) use(packet, length);
//     if (!socket.isOk()) ...                                // the connection has ended
//
// (A result of 0 is no promise that nothing waits: a connection test gives it too. Poll again.)
//
// The stream is packets laid end to end with nothing between them. Each has a length field, of setSizeLength
// bytes (1, 2 or 4; 2 at the start) at byte setSizeOffset (0 at the start), that holds the length of the
// whole packet, field included. Widths 2 and 4 are in network byte order unless NwSetNetworkByteOrdering(0)
// was called. Both ends must be given the same offset and width; nothing is negotiated. A packet that ends
// with its length field is a connection test: the receiver swallows it.
//
// Sending never waits. What the kernel does not take is queued, and each later send or flush tries the queue
// first, oldest first. A packet never enters the stream inside a half-sent one, so the framing holds. Two
// things to know:
//   - A whole packet may overtake whole queued ones: when the queue could not move but the kernel has room by
//     the time the new packet is offered.
//   - A cap (setMaxForwarderQueue) drops what it refuses, without a word. When it refuses the rest of a
//     packet of which the kernel took the start, the stream is torn and the peer misreads every length behind
//     it. A cap of 0 tears as soon as the kernel takes part of a packet; with a cap, be ready to drop the
//     connection. Bundles that a flush queues, and the rest of a piece that was queued already, are not
//     subject to the cap.
// Behind a half-sent packet whose rest the kernel refused for good, packets are dropped.
// With bundling on (NwSocket::setBundling), packets leave only through flush: a bundle enters the queue
// there, whatever its destination was, for a connection has one. Flush at least once a frame. NwSend then
// gives -1, and the packet is neither kept nor sent, when its bundle is full and the flush could not send it;
// the full bundle is in the queue by then, so sending the packet once more keeps it.
//
// What ends a connection (isOk() turns false, for good): the peer closed it (silent); a read or hard send
// error ("Network read error: ", "TCP Socket sendTo error: ", each with the system's words and an empty line
// behind); a packet length that is below the field's end, above INT_MAX, 0x80 or more in a field of one byte,
// or more than memory holds ("NwTcpSocket: bad packet length %u\n"); no memory for what has to be queued
// ("NwTcpSocket: no memory to queue %d bytes\n") or, at construction, to receive ("NwTcpSocket: no memory for
// packets of %d bytes\n"); shutDown(). Delete the socket then; what is queued goes with it.
//
// Messages go to NwWarn and, at construction, to NwInfo, and are not printed while sockets are quiet. With
// NwNetDebugOn every send, flush and receive traces itself on NwInfo. A constructor that gets a
// connection ignores SIGPIPE for the process. The header filters of NwSocket do not apply: packets are not
// looked into. One thread uses a socket at a time. Not copyable. The order of the virtual operations is part
// of the binary interface, and so is the order of the fields.
class CVNC_API NwTcpSocket : public NwSocket {
public:
    // A client: connects to addr (host byte order) and port, and prints what it does. nonBlockingConnect 0
    // waits for the outcome; else the connect goes on by itself, isOk() is true meanwhile, and
    // isConnectionEstablished() or a send tells later. (Addresses are unsigned: a literal 0 is ambiguous.)
    // "TCP Socket connecting to %s.\n", then "Using TCP Socket with %d byte buffer (Client).\n", where the
    // number is setPacketBufferSize's; or isOk() is false after "Failed to open socket: " or "TCP Socket
    // connect failed: " with the system's words. A failed connect keeps its descriptor until the destructor.
    NwTcpSocket(unsigned int addr, int port, int nonBlockingConnect);
    // The server's side: takes over fd, a connected descriptor from accept(), and addr, the peer's address.
    // port counts only when the system does not tell the peer's. "Using TCP Socket with %d byte buffer
    // (Server).\n"
    NwTcpSocket(int fd, unsigned int addr, int port);
    // Drops what is queued, unsent, and closes the descriptor.
    ~NwTcpSocket() override;

    // --- sending ----------------------------------------------------------------------------------------

    // Flushes, then sends the len bytes at buf or queues them. The caller's buffer is free on return. Returns
    // the bytes that left in this call, those of the flush included; what was queued counts 0. A len of 0
    // flushes only; one above INT_MAX is refused with -1. A hard error on a connection test (a packet that
    // ends with its length field) is silent and harmless unless markBroken is true.
    int sendTo(char* buf, unsigned long len, bool markBroken);
    // sendTo(buf, len, false): a connection has one peer, so destAddr is ignored.
    int sendTo(char* buf, unsigned long len, unsigned int destAddr) override;
    // The same, for literals.
    int sendTo(char* buf, unsigned long len, int destAddr) {
        return sendTo(buf, len, static_cast<unsigned int>(destAddr));
    }

    // Moves bundles into the queue and sends the queue until it is empty (1), a piece was sent in part (0),
    // or the kernel has no room or refuses (-1). bytesSent becomes the bytes sent by this call. A connection
    // test that the kernel refuses stays queued, silently, and those behind it are still tried: -1. Any other
    // piece that it refuses for good stays queued too, and isOk() turns false. -1 also when memory did not
    // hold a bundle: it stays a bundle.
    int flush(long& bytesSent) override;
    int flush() override;

    // What the queue holds: the number of pieces, and the cap.
    std::pair<int, int> getQueueStatus() const;
    // The cap on pieces in the queue: -1, none, at the start; 0 queues nothing; other negative numbers are
    // very large. Not checked; see above for what a cap drops.
    int maxForwarderQueue() const;
    void setMaxForwarderQueue(int n);

    // --- receiving --------------------------------------------------------------------------------------

    // Lends the next packet, if all of it has arrived: *pkt points to its bytes, with a zero byte behind
    // them, until the next receive on this socket. Returns its length, status 1; else 0 with *pkt null and
    // status 0: nothing yet, part of a packet, or the end of the connection (see isOk()). A connection test
    // gives 0 and leaves *pkt and *status as they were. status may be null. At most two recv() calls, and
    // never a byte behind the packet.
    int NwRecv(char** pkt, int* status) override;
    // Copies at most len bytes of the next packet to buf. Returns its full length, 0 when there is none; what
    // does not fit is lost.
    int NwRecv(char* buf, unsigned long len) override;

    // The steps of a receive. recvWithStatus is what NwRecv(char**, int*) does. checkSize judges one result
    // of recv(), with errno as recv() left it: 1 to go on, 0 with *pkt and *status cleared and, for an end or
    // an error, isOk() false. expandPktBuffer makes the buffer larger than needed, in multiples of its size,
    // keeping what has arrived of the packet under way: true when it grew, false when it need not or memory
    // ended.
    int recvWithStatus(char** pkt, int* status);
    int checkSize(int n, char** pkt, int* status);
    bool expandPktBuffer(unsigned int needed);

    // Where packets have their length, and how wide it is: 1, 2 or 4 bytes (others: "Invalid value for size,
    // using default value\n" and 2). Set both before the first packet; inside a header the change holds from
    // the next packet on. A connection with an offset that no packet can have ends at the first receive.
    void setSizeOffset(int off);
    void setSizeLength(int len);
    // The bytes of the receive buffer that later sockets start with, 20000 at first; packets of that size and
    // more make it grow. Stored as given.
    static void setPacketBufferSize(int size);

    // --- the connection ---------------------------------------------------------------------------------

    // False once the connection has ended or never came about; see above.
    bool isOk() const override;
    // Switches the descriptor between waiting and not. The rest of this class expects one that does not wait,
    // as constructors leave it. Return 0. Failures are NwFatalPerror("non-blocking") and ("blocking").
    int NwBecomeNonBlocking() override;
    virtual int NwBecomeBlocking();
    // Whether a connection test goes out at once: a connect under way has then succeeded. False too while
    // data wait in the queue, and once more after a connect for the tests that were queued meanwhile. A
    // refused test changes nothing; other queued data that the kernel refuses for good end the connection, as
    // in flush().
    virtual bool isConnectionEstablished();
    // Sends a connection test and returns isOk(): a connection that the system knows to be broken is reported
    // as a send error and ends.
    virtual bool testConnectionStatus();
    // Sends a connection test: sizeOffset + sizeLength bytes of 'x' with that length in the field. Returns
    // what sendTo returned; 0, and nothing is sent, for an offset that no packet can have, without memory, or
    // for a width that is none ("NwTcpSocket::isConnectionEstablished: Invalid Size length!\n"). A deliberate
    // oddity: fields of 2 and 4 bytes are written at byte offset times width, so with an offset other than 0
    // the peer reads a length of 'x' bytes or of its neighbours. Use connection tests with offset 0, or a
    // width of 1, only.
    int sendMinimumSizePkt(bool markBroken);

    // Ends the connection from this side, in both directions: isOk() is false from here on. The descriptor
    // stays open until the destructor. Silent.
    void shutDown();

    // Sends small packets without delay (TCP_NODELAY; on at the start). Whatever `on` says, the type of
    // service becomes low delay. Failures are reported, unless quiet, as "NwTcpSocket::setNoDelay\n" and
    // "NwTcpSocket::set IPTOS_LOWDELAY\n" with the system's words, and change nothing else.
    virtual void setNoDelay(bool on);
    static void setNoDelay(int fd, bool on);
    // The ports of both ends. The local one is 0 on the server's side, -1 for a client that did not connect.
    virtual int peerPort() const;
    virtual int localPort() const;

    static int thePktBuffSize;  // see setPacketBufferSize

protected:
    std::unique_ptr<char[]> pktBuffer;  // the packet under way, from its first byte
    unsigned int pktBufferSize;
    NwIpv4Addr peerAddr;
    int peerPortNumber;
    int localPortNumber;
    bool ok;
    int waitingForSize;  // 1: up to the end of the length field; 0: in the rest of the packet
    int sizeOffset;      // the format of later packets; for the one under way, see headerOffset
    int sizeLength;
    unsigned int bytesToRead;  // what the current phase still wants
    unsigned int bytesRead;    // what of the packet is in pktBuffer
    NwList sendQueue;          // of NwTcpMessage*, next to send first
    int maxQueue;              // compared as unsigned; -1: no cap
    int headerOffset;          // the format of the packet under way
    int headerWidth;           // 0: a length was refused, and nothing is read any more
    bool headIsRemainder;  // the head of the queue is the rest of a packet that the peer has begun to read
    bool sendFailed;       // the latest flush ended with a hard error, or a send behind it did

private:
    CVNC_LOCAL void initFields(NwIpv4Addr addr, int port);
    CVNC_LOCAL void printReady(const char* side) const;

    CVNC_LOCAL void startPacket();
    CVNC_LOCAL int readSize(char** pkt, int* status);
    CVNC_LOCAL int readBody(char** pkt, int* status);
    CVNC_LOCAL int readWanted(char** pkt, int* status);
    CVNC_LOCAL int refuseLength(unsigned int length, char** pkt, int* status);
    CVNC_LOCAL bool isRefused() const { return headerWidth == 0; }
    CVNC_LOCAL unsigned int announcedLength() const;

    CVNC_LOCAL long headerSize() const { return static_cast<long>(sizeOffset) + sizeLength; }
    CVNC_LOCAL bool queueBundles();
    CVNC_LOCAL bool isConnectionTest(const NwListItem* item) const;
    CVNC_LOCAL void keepRemainder(NwListItem* item, int sent);
    CVNC_LOCAL int endSend(char* buf, int len, long n, long sent, bool markBroken);
    CVNC_LOCAL int sendLater(const char* buf, int len, long sent, const char* why);
    CVNC_LOCAL int sendQueued(int result, long& bytesSent);
    CVNC_LOCAL bool isQueueFull() const;
    CVNC_LOCAL bool addPiece(const char* buf, int offset, int size, NwListItem* (NwList::*add)(void*));
    CVNC_LOCAL void queue(const char* buf, int size);
    CVNC_LOCAL void queueRest(const char* buf, int sent, int len);
    CVNC_LOCAL void loseRest(int size);
    CVNC_LOCAL void reportNoMemory(int size);
    CVNC_LOCAL void reportSendError();
};

#endif

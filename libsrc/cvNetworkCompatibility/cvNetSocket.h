// SPDX-License-Identifier: BSD-3-Clause
// The UDP socket, and what the library knows of the host's network interfaces.
#ifndef CVNETWORKCOMPATIBILITY_CVNETSOCKET_H
#define CVNETWORKCOMPATIBILITY_CVNETSOCKET_H

#include <cvNetworkCompatibility/cvExport.h>
#include <cvNetworkCompatibility/cvSocket.h>
#include <cvutil/cvInetAddr.h>

#include <memory>

struct ifconf;
struct ifreq;
struct sockaddr_in;

// Mode bits of the UDP sockets' constructors.
enum NwNetSocketMode : int {
    NwNetSocketRead = 1,        // bind to the port, and join the group when the address is one
    NwNetSocketWrite = 2,       // compute the default destination, enable broadcast
    NwNetSocketBindToDest = 8,  // when reading: bind to the address argument instead of any address
    NwNetSocketQuietStart = 16  // print no construction line; a mode of just 16 opens nothing
};

// One UDP port: sends datagrams (broadcast, multicast or unicast) and receives packets one a call,
// splitting received bundles.
//
//     NwNetSocket::initErrorAction = 1;                           // else a failure to open ends the process
//     NwNetSocket socket(3000, 0x7F000001u, (unsigned char)3, 0x7F000001u);   // 127.0.0.1, read and write
//     if (!socket.isOk()) return 1;
//     socket.setBundling(1400);
//     socket.NwSend(pdu, 144, NwUSE_DEFAULT_IP_ADDR); socket.flush();
//
// A socket blocks until NwBecomeNonBlocking(). Ports are in host byte order, addresses too. Several sockets
// of a host can open one port; a broadcast or multicast datagram then reaches all of them, a unicast one
// only one.
//
// Bundles on the wire: packets laid end to end, nothing before, between or after them, each with its own
// total length (IEEE 1278.1: 16 bits in network byte order at bytes 8 and 9 of the PDU header). With the DIS
// header test on (the default) that is where the length is read, and every packet must have the protocol
// version (byte 0) and exercise (byte 1) of the first; with it off, the length field is where setSizeOffset
// and setSizeLength say. What cannot be split (a length of 0, one that reaches beyond the datagram, a header
// unlike the first) is delivered whole, as one rest: a receiver sees a packet longer than its length field
// says. What is left of a datagram and shorter than minPacketSize() is discarded with a warning.
//
// One thread uses a socket at a time. Unless stated otherwise a message is kept back while
// NwSocket::areQuietSockets(). The order of virtual operations and of fields is part of the binary interface.
class CVNC_API NwNetSocket : public NwSocket {
public:
    // Opens a port. mode is a sum of NwNetSocketMode bits; device is the address of the local interface for
    // multicast and for recognising own packets (0: the first one that can broadcast). addr is the default
    // destination when writing, and when reading the group to join; 0, and the form without addr, mean the
    // broadcast address of the first interface that can broadcast. On a host that has none, a writing
    // socket needs an addr, and one that joins groups needs a device.
    //
    // Prints on NwInfo "NetSocket ok to read port %d" or "NetSocket ok for port %d to %s", then
    // " (bound to %s)" when bound to addr, and an end of line. A side that fails to open is left out: its
    // descriptor reads -1, isOk() is false, and with initErrorAction 0, the default, the process is
    // aborted. Reports: "open socket", "NetSocket: bind %s %d", "Couldn't set SO_BROADCAST option",
    // "Couldn't set SO_REUSEPORT option" with the system's description;
    // "NetSocket: no memory for packets of %d bytes\n". An adopted descriptor that has no address fails
    // silently. Typed arguments keep the first two forms apart: NwNetSocket(3000, (unsigned char)3, 0u).
    NwNetSocket(int port, unsigned char mode, unsigned int device);
    NwNetSocket(int port, unsigned int addr, unsigned char mode, unsigned int device);
    // Adopts an open UDP descriptor, which stays the caller's to close; name is not used. port() and
    // destination come from its local address: the port, and the directed broadcast of its subnet (with the
    // default interface's mask). The socket counts it as blocking until NwBecomeNonBlocking().
    NwNetSocket(char* name, int fd, unsigned char mode);

    // Flushes pending bundles, then closes the descriptor unless it was adopted.
    ~NwNetSocket() override;

    // Sends one datagram, by one system call. destAddr 0 is the default destination; the port is that of
    // setSendPort, else the socket's own. Returns the bytes sent, 0 for an empty packet (no call is made),
    // or -1: after the retries of setRetryOnSend, with "NetSocket::sendTo" and the system's description;
    // or, on a socket without the write side, with "NetSocket not initialized for sending\n".
    int sendTo(char* buf, unsigned long len, unsigned int destAddr) override;

    // As NwSocket says. The packet lies at the start of the socket's receive buffer or, for a later packet
    // of a bundle, of its copy buffer. 0 with status 0 stands for no data, a read error, an empty datagram,
    // and an own datagram while unbundling. While unbundling is off an own datagram (status -3) leaves *buf
    // as it was. Messages: "Network read error" (but not for EAGAIN on a non-blocking socket),
    // "0 bytes read from net\n", "NetSocket not initialized for receiving\n", and those of unbundling.
    int NwRecv(char** buf, int* status) override;
    int NwRecv(char* buf, unsigned long len) override;

    // NwSocket's, unchanged.
    void setBundling(int size) override;
    // On by default. Switched off while packets of a datagram are pending, these wait, unharmed by what is
    // received meanwhile, until it is switched on again.
    void setUnbundling(int on) override;
    NwIpv4Addr lastSourceInetAddr() override;
    int NwBecomeNonBlocking() override;

    // Joins a group on the interface with the given address; 0 is mcastDevice(). Also makes that interface
    // the one for outgoing multicast. Returns 1; 0 after "%s is not a multicast address: Can't subscribe\n",
    // a refused option ("NetSocket: setsockopt IP_MULTICAST_IF failed", "... IP_ADD_MEMBERSHIP failed"), or,
    // although the group was joined, on a socket bound to its destination ("listenToMulticastGroup
    // ineffective while bound to destAddr\n": only that address gets through). On a socket whose
    // mcastDevice() is 0 nothing is joined, silently, and the result is 1: give a device at construction.
    int listenToMulticastGroup(unsigned int group, unsigned int device) override;
    // Leaves a group. Returns 1, or 0 after "%s is not a multicast address: Can't drop\n" or
    // "NetSocket: setsockopt IP_DROP_MEMBERSHIP failed".
    int dropMulticastGroup(unsigned int group, unsigned int device) override;
    // The time-to-live of outgoing multicast: the low byte of ttl (257 is 1). Returns 1, or 0 after
    // "NetSocket: setsockopt IP_MULTICAST_TTL failed".
    int setMcastTtl(int ttl) override;
    // Stores the interface for later joins, drops and the own-packet test; outgoing multicast changes with
    // the next join only.
    void setMcastDevice(unsigned int device) override;

    // The descriptor when that side is open, else -1.
    int readFd() override;
    int writeFd() override;
    bool isOk() const override;

    // --- added after the base's virtual operations, in this order ---

    // Both directions in one call: setBundling(size), setUnbundling, setMinPacketSize, setSizeOffset,
    // setSizeLength and enableDisHeaderTest, in this order, each through the virtual table.
    virtual void setBundling(int size, bool unbundle, int minSize, int sizeOffset, int sizeLength,
                             bool testDisHeader);
    virtual bool isUnbundling();
    // The smallest acceptable packet, in bytes (12, a PDU header). Shorter ones are discarded, with the rest
    // of their datagram: "NwNetSocket: %sproblem: packet size less than %d bytes\n". Any value is stored.
    virtual int minPacketSize();
    virtual void setMinPacketSize(int size);
    // Where the length field lies in each packet while the DIS header test is off (8). Any value is
    // stored; a field that does not lie inside what remains of a datagram counts as a length of 0.
    virtual int sizeOffset();
    virtual void setSizeOffset(int offset);
    // The width of that field: 1, 2 or 4 bytes (2). Anything else stores 2 and warns
    // "Invalid value for size, using default value of %u\n".
    virtual int sizeLength();
    virtual void setSizeLength(int length);
    // Whether each packet of a bundle is compared with the first (on by default).
    virtual bool testDisHeader();
    virtual void enableDisHeaderTest(bool on);
    virtual unsigned int mcastDevice() const;
    // Datagrams from this port of mcastDevice() are the host's own and are dropped; -1 (the default) for
    // none.
    virtual void setFilterPort(const int& newPort);
    // The destination port of sends; -1 (the default) for the socket's own port.
    virtual void setSendPort(const int& newPort);
    // Whether packets of the last datagram remain. Drain them before waiting on readFd() again: the kernel
    // does not know of them.
    virtual bool dataLeftInCurrentBundle();

    // The steps of sending and receiving, for derived classes that replace one of them.

    // Repeats a send that failed, up to theMaxSendRetries times, theSendRetryPeriod seconds apart (a busy
    // wait), and returns the last result. On NwDebug: "NwNetSocket::retrySendTo: Blocked, retried %u of %u
    // times.  Returning: %d\n", where the first number is one above the sends that were repeated.
    virtual int retrySendTo(char* buf, unsigned long len, sockaddr_in& to);
    // NwRecv without the copy: *buf may point into the middle of the receive buffer.
    virtual int recvWithStatus(char** buf, int* status);
    // Reads one datagram and points *buf at it. Returns its length; 0 for none, with a null *buf, or for an
    // empty one; or -3 for an own one, with *buf as it was. An override that lends storage of its own leaves
    // 16 readable bytes behind the datagram.
    virtual int recvFromNet(char** buf);
    // Delivers the next packet of the current datagram, or of a new one when none is pending.
    virtual int recvWithUnbundling(char** buf);
    // The join itself. fromInit is 1 during construction: a socket bound to its destination then joins
    // without the warning, and with success.
    virtual int privateListenToMulticastGroup(unsigned int group, int fromInit, unsigned int device);
    // Brings bundleCursor to the next packet, reading a datagram if need be, and keeps bytesLeftInBundle and
    // firstInBundle; leaves bundleCursor null when there is none.
    virtual void findNextPacket();
    // The length field of the packet at the cursor, in bytes; 0 when there is no packet or no field.
    virtual unsigned int getNextPacketSize();
    // The length at bytes 8 and 9 of the packet at the cursor when its header is like the first one's, else
    // 0 after the "Unbundling warning" pair of lines.
    virtual unsigned int currentHeaderMatchesFirstInBundle();

    // --- class-wide ---

    // A failed send is repeated up to retries times, period seconds apart; 0 retries for none (the default).
    static void setRetryOnSend(unsigned int retries, double period);
    // Sets the descriptor's status flags to just O_NONBLOCK; others are cleared, as documented. A failure
    // is NwFatalPerror("non-blocking").
    static void makeNonBlocking(int fd);
    // SO_REUSEPORT, then SO_REUSEADDR. Returns 1 when both were set, else 0 after "Couldn't set SO_REUSEPORT
    // option" or "Couldn't set SO_REUSEADDR option". The second is printed only *while* sockets are quiet:
    // meant.
    static int makeReusable(int fd);
    // SO_BROADCAST. Returns 1, or 0 (silently for a negative descriptor).
    static int enableBroadcast(int fd);
    // Fills all of sa: AF_INET, addr and port from host byte order.
    static void setInetAddr(sockaddr_in& sa, unsigned long addr, int port);

    // The host's interfaces, as the system lists them (up to 204). A null name means the default one: the
    // first that is up, can broadcast and is not loopback; a named one is taken as it is. Addresses in
    // host byte order; 0 on failure, after "Couldn't find an IP interface capable of broadcast.\n",
    // "%s not an IP interface capable of broadcast.\n", or the report of the system call that failed.
    static NwIpv4Addr inetAddrOfDevice(const char* name);
    static NwIpv4Addr inetBroadcastOfDevice(const char* name);
    static NwIpv4Addr netMaskOfDevice(const char* name);
    static NwIpv4Addr firstHostInetAddr();
    // 224.0.0.0 to 239.255.255.255.
    static bool isMulticastAddr(unsigned int addr);
    // The pieces of these queries: the entry for name in a list that SIOCGIFCONF filled (null when there is
    // none), whether an entry is up, can broadcast and is not loopback, and the values of one entry through
    // any IPv4 socket fd. Each question overwrites the entry's address part.
    static ifreq* findIfr(const char* name, int fd, ifconf* conf);
    static bool capableOfIpBroadcast(ifreq* ifr, int fd);
    static NwIpv4Addr inetAddrOfIfr(ifreq* ifr, int fd);
    static NwIpv4Addr netMaskOfIfr(ifreq* ifr, int fd);
    // (address AND mask) OR NOT mask, computed, not asked of the system; 0 when either is not to be had.
    static NwIpv4Addr inetBroadcastOfIfr(ifreq* ifr, int fd);

    static unsigned int theMaxSendRetries;  // see setRetryOnSend
    static double theSendRetryPeriod;       // seconds
    // What a failure to open does: 0 aborts the process (the default), anything else lets the constructor
    // return a socket whose isOk() is false. Assign it before creating sockets.
    static int initErrorAction;

protected:
    // Moves pending packets aside, once, before a read overwrites them: the first call of an override of
    // recvFromNet. False when there is no memory for them; then do not read.
    bool keepPendingPackets();
    // For such overrides: copies a datagram into recvBuffer, as much as fits, and notes its sender (host
    // byte order). Call keepPendingPackets first.
    void landDatagram(const char* bytes, int length, NwIpv4Addr source, int sourcePort);

    int port;                            // local port, and destination port of sends unless sendPort is set
    int filterPort;                      // see setFilterPort
    int sendPort;                        // see setSendPort
    int reserved;                        // not used
    std::unique_ptr<char[]> recvBuffer;  // datagrams are read here
    std::unique_ptr<char[]> copyBuffer;  // later packets of a bundle are lent from here
    char* bundleCursor;                  // the next packet of the datagram being split, or null
    int adoptedFd;                       // 1: the descriptor is the caller's
    NwIpv4Addr adoptedAddr;              // its local address
    NwIpv4Addr destAddr;                 // default destination
    NwIpv4Addr mcastDevice_;
    int unbundling;
    int bytesLeftInBundle;  // bytes from bundleCursor to the end of the datagram
    int minPacketSize_;
    int sizeOffset_;
    int sizeLength_;
    int bufferSize;  // NwMaxPacketSize() at construction, as given: 0 or less means no room at all
    bool testDisHeader_;
    int boundToDest;     // non-zero: the read side is bound to the address argument
    int firstInBundle;   // 1: the packet at the cursor is the first of its datagram
    int bundleExercise;  // of the first packet of the datagram
    int bundleProtocol;  // of the first packet of the datagram
    bool ok;
    std::unique_ptr<sockaddr_in> destSockAddr;    // the address argument, as given, and port
    std::unique_ptr<sockaddr_in> sourceSockAddr;  // sender of the last datagram
    unsigned char mode;                           // bits of the sides that are open

private:
    CVNC_LOCAL void init(int newPort, unsigned int addr, unsigned char newMode, unsigned int device);
    CVNC_LOCAL void allocateBuffers();
    CVNC_LOCAL bool haveBuffers() const;
    CVNC_LOCAL int initSocket();
    CVNC_LOCAL int initWrite(unsigned int addr);
    CVNC_LOCAL int initRead(unsigned int addr);
    CVNC_LOCAL void printReady(unsigned int addr) const;
    CVNC_LOCAL bool isOwnPacket(int ownPort) const;
    CVNC_LOCAL void warnOfHeader(int protocol, int exercise) const;
    CVNC_LOCAL void refuseShortPacket();
    CVNC_LOCAL void discardDatagram();
    template <bool direct>
    CVNC_LOCAL int receive(char** buf, int* status);
    template <bool direct>
    CVNC_LOCAL int nextPacket(char** buf);
    template <bool direct>
    CVNC_LOCAL bool findPacket();

    std::unique_ptr<char[]> keptPackets;      // packets that were pending when unbundling was switched off
    std::unique_ptr<sockaddr_in> keptSource;  // and their sender
};

// The queries above for applications; see NwNetSocket.
CVNC_API NwIpv4Addr NwInetAddrOfDevice(const char* name);
CVNC_API NwIpv4Addr NwInetBroadcastOfDevice(const char* name);
CVNC_API NwIpv4Addr NwNetMaskOfDevice(const char* name);
CVNC_API NwIpv4Addr NwFirstHostInetAddr();
CVNC_API bool NwIsMulticastAddr(unsigned int addr);

#endif

// SPDX-License-Identifier: BSD-3-Clause
// The UDP socket. A received datagram is split where its packets' own lengths say:
//
//     recvBuffer  | packet 1 | packet 2 | packet 3 | zeros |
//                            ^ bundleCursor                     bytesLeftInBundle: from there to the end
//
// Every step of the walk advances or gives up the rest, and a length is compared with what remains, never
// added to a position: whatever the bytes say, the walk ends inside the datagram.
#include <cvNetworkCompatibility/cvNetSocket.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <typeinfo>
#include <utility>

#include <cvutil/cvByteOrder.h>
#include <cvutil/cvClock.h>
#include <cvutil/cvMath.h>
#include <cvutil/cvOutput.h>

#include "cvDisHeader.h"
#include "cvSetting.h"

unsigned int NwNetSocket::theMaxSendRetries = 0;
double NwNetSocket::theSendRetryPeriod = 0.0;
int NwNetSocket::initErrorAction = 0;

namespace {

const int kOwnPacket = -3;

// Zeros kept behind a datagram, so that header tests of a short one read defined bytes inside the buffer.
const std::size_t kSlack = 16;

int max0(int size) {
    return NwMax(size, 0);
}

bool isQuiet() {
    return NwSocket::areQuietSockets();
}

// Ends the process when the flags cannot be set; false if the application's fatal handler lets it go on.
bool setNonBlocking(int fd) {
    if (::fcntl(fd, F_SETFL, O_NONBLOCK) != -1) return true;  // meant: other status flags are replaced
    NwFatalPerror("non-blocking");
    return false;
}

// Reports stand apart from the path of a packet that meets no trouble.

// Reports through NwWarnNetPerror unless sockets are quiet. Always 0, the result of a step that failed.
[[gnu::cold, gnu::noinline]] int failed(const char* what) {
    if (!isQuiet()) NwWarnNetPerror("%s", what);
    return 0;
}

[[gnu::cold, gnu::noinline]] void warn(const char* text) {
    if (!isQuiet()) NwWarn("%s", text);
}

bool setOption(int fd, int level, int option, const void* value, std::size_t size) {
    return ::setsockopt(fd, level, option, value, static_cast<socklen_t>(size)) == 0;
}

}  // namespace

// --- construction ----------------------------------------------------------------------------------------

NwNetSocket::NwNetSocket(int newPort, unsigned char newMode, unsigned int device) {
    allocateBuffers();
    init(newPort, NwUSE_DEFAULT_IP_ADDR, newMode, device);
}

NwNetSocket::NwNetSocket(int newPort, unsigned int addr, unsigned char newMode, unsigned int device) {
    allocateBuffers();
    init(newPort, addr, newMode, device);
}

NwNetSocket::NwNetSocket(char* /*name*/, int fd, unsigned char newMode) {
    allocateBuffers();
    adoptedFd = 1;
    socketFd = fd;
    init(0, NwUSE_DEFAULT_IP_ADDR, newMode, 0);
}

NwNetSocket::~NwNetSocket() {
    NwSocket::flush();
    if (socketFd >= 0 && !adoptedFd) ::close(socketFd);
    destSockAddr.reset();
    sourceSockAddr.reset();
    recvBuffer.reset();
    copyBuffer.reset();
}

// The fields that init leaves alone.
void NwNetSocket::allocateBuffers() {
    minPacketSize_ = kDisHeaderSize;
    sizeOffset_ = kDisLengthOffset;
    sizeLength_ = kDisLengthWidth;
    bufferSize = NwMaxPacketSize();
    testDisHeader_ = true;
    adoptedFd = 0;
    adoptedAddr = 0;
    bundleExercise = 0;
    bundleProtocol = 0;
    const std::size_t bytes = static_cast<std::size_t>(max0(bufferSize)) + kSlack;
    recvBuffer.reset(new (std::nothrow) char[bytes]);
    copyBuffer.reset(new (std::nothrow) char[bytes]);
}

void NwNetSocket::init(int newPort, unsigned int addr, unsigned char newMode, unsigned int device) {
    port = newPort;
    filterPort = -1;
    sendPort = -1;
    reserved = 0;
    boundToDest = 0;
    destAddr = 0;
    bytesLeftInBundle = 0;
    mode = newMode;
    blocking = 1;
    packetsReceived = 0;
    firstInBundle = 1;
    unbundling = 1;
    bundleCursor = nullptr;
    destSockAddr.reset(new (std::nothrow) sockaddr_in());
    sourceSockAddr.reset(new (std::nothrow) sockaddr_in());

    mcastDevice_ = device ? device : NwFirstHostInetAddr();
    if (!adoptedFd) socketFd = -1;
    if (mode != 0 && mode != NwNetSocketQuietStart && !(haveBuffers() && initSocket())) mode = 0;
    if ((mode & NwNetSocketWrite) && !initWrite(addr)) mode &= static_cast<unsigned char>(~NwNetSocketWrite);
    if ((mode & NwNetSocketRead) && !initRead(addr)) mode &= static_cast<unsigned char>(~NwNetSocketRead);

    ok = mode == newMode;
    if (ok && !(newMode & NwNetSocketQuietStart)) printReady(addr);
    if (!ok && nwSetting(initErrorAction) == 0) NwAbort();
}

bool NwNetSocket::haveBuffers() const {
    if (recvBuffer && copyBuffer && destSockAddr && sourceSockAddr) return true;
    if (!isQuiet()) NwWarn("NetSocket: no memory for packets of %d bytes\n", bufferSize);
    return false;
}

int NwNetSocket::initSocket() {
    if (adoptedFd) {
        sockaddr_in bound = sockaddr_in();
        socklen_t size = sizeof bound;
        if (::getsockname(socketFd, reinterpret_cast<sockaddr*>(&bound), &size) != 0) return 0;
        const bool isIpv4 = bound.sin_family == AF_INET;
        port = isIpv4 ? ntohs(bound.sin_port) : 0;
        adoptedAddr = isIpv4 ? ntohl(bound.sin_addr.s_addr) : 0;
    } else {
        socketFd = ::socket(AF_INET, SOCK_DGRAM, 0);
        if (socketFd < 0) failed("open socket");
    }
    makeReusable(socketFd);
    return socketFd >= 0;
}

int NwNetSocket::initWrite(unsigned int addr) {
    if (adoptedFd) {
        destAddr = adoptedAddr | ~netMaskOfDevice(nullptr);
    } else {
        destAddr = addr ? addr : inetBroadcastOfDevice(nullptr);
        if (!destAddr) return 0;
    }
    setInetAddr(*destSockAddr, addr, port);  // the argument as given, 0 included
    return enableBroadcast(socketFd);
}

int NwNetSocket::initRead(unsigned int addr) {
    if (!adoptedFd) {
        if (addr) boundToDest = mode & NwNetSocketBindToDest;
        const unsigned int bindAddr = boundToDest ? addr : NwInetAddrAny;
        sockaddr_in local;
        setInetAddr(local, bindAddr, port);
        if (::bind(socketFd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
            if (!isQuiet())
                NwWarnNetPerror("NetSocket: bind %s %d", bindAddr ? NwInetAddrString(bindAddr) : "INADDR_ANY",
                                port);
            return 0;
        }
    }
    if (isMulticastAddr(addr)) privateListenToMulticastGroup(addr, 1, 0);
    return 1;
}

void NwNetSocket::printReady(unsigned int addr) const {
    if (isQuiet()) return;
    // One write for the whole line, so that those of several threads do not mix.
    char bound[sizeof " (bound to 255.255.255.255)"] = "";
    if (boundToDest) std::snprintf(bound, sizeof bound, " (bound to %s)", NwInetAddrString(addr));
    if (mode & NwNetSocketWrite)
        NwInfo("NetSocket ok for port %d to %s%s\n", port, NwInetAddrString(destAddr), bound);
    else
        NwInfo("NetSocket ok to read port %d%s\n", port, bound);
}

// --- descriptor ------------------------------------------------------------------------------------------

int NwNetSocket::readFd() {
    return mode & NwNetSocketRead ? socketFd : -1;
}

int NwNetSocket::writeFd() {
    return mode & NwNetSocketWrite ? socketFd : -1;
}

bool NwNetSocket::isOk() const {
    return ok;
}

int NwNetSocket::NwBecomeNonBlocking() {
    if (setNonBlocking(socketFd)) blocking = 0;
    return 0;
}

void NwNetSocket::makeNonBlocking(int fd) {
    setNonBlocking(fd);
}

int NwNetSocket::makeReusable(int fd) {
    const int on = 1;
    const bool portShared = setOption(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    if (!portShared) failed("Couldn't set SO_REUSEPORT option");
    const bool addressShared = setOption(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    // Meant: this report alone is printed while sockets are quiet, and only then.
    if (!addressShared && isQuiet()) NwWarnNetPerror("Couldn't set SO_REUSEADDR option");
    return portShared && addressShared;
}

int NwNetSocket::enableBroadcast(int fd) {
    if (fd < 0) return 0;
    const int on = 1;
    return setOption(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) ||
           failed("Couldn't set SO_BROADCAST option");
}

void NwNetSocket::setInetAddr(sockaddr_in& sa, unsigned long addr, int newPort) {
    sa = sockaddr_in();
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(static_cast<in_addr_t>(addr));
    sa.sin_port = htons(static_cast<in_port_t>(newPort));
}

// --- sending ---------------------------------------------------------------------------------------------

int NwNetSocket::sendTo(char* buf, unsigned long len, unsigned int addr) {
    if (addr == NwUSE_DEFAULT_IP_ADDR) addr = destAddr;
    if (!(mode & NwNetSocketWrite)) {
        warn("NetSocket not initialized for sending\n");
        return -1;
    }
    if (len == 0) return 0;

    sockaddr_in to;
    const int otherPort = nwSetting(sendPort);
    setInetAddr(to, addr, otherPort != -1 ? otherPort : port);
    int result =
        static_cast<int>(::sendto(socketFd, buf, len, 0, reinterpret_cast<sockaddr*>(&to), sizeof to));
    if (result == -1 && nwSetting(theMaxSendRetries) != 0) result = retrySendTo(buf, len, to);
    if (result == -1) failed("NetSocket::sendTo");
    return result;
}

int NwNetSocket::retrySendTo(char* buf, unsigned long len, sockaddr_in& to) {
    int result = -1;
    const unsigned int limit = nwSetting(theMaxSendRetries);
    double period = nwSetting(theSendRetryPeriod);
    if (!std::isfinite(period)) period = 0;

    unsigned int remaining = limit;
    while (remaining-- != 0 && result == -1) {  // meant: the test that ends the loop counts too
        const NwClock clock;
        while (clock.elapsedRealTime() < period) {
        }
        result =
            static_cast<int>(::sendto(socketFd, buf, len, 0, reinterpret_cast<sockaddr*>(&to), sizeof to));
    }
    if (!isQuiet())
        NwDebug("NwNetSocket::retrySendTo: Blocked, retried %u of %u times.  Returning: %d\n",
                limit - remaining, limit, result);
    return result;
}

void NwNetSocket::setRetryOnSend(unsigned int retries, double period) {
    nwChangeSetting(theMaxSendRetries, retries);
    nwChangeSetting(theSendRetryPeriod, period);
}

void NwNetSocket::setFilterPort(const int& newPort) {
    nwChangeSetting(filterPort, newPort);
}

void NwNetSocket::setSendPort(const int& newPort) {
    nwChangeSetting(sendPort, newPort);
}

// --- settings of unbundling ------------------------------------------------------------------------------

void NwNetSocket::setBundling(int size) {
    NwSocket::setBundling(size);
}

void NwNetSocket::setBundling(int size, bool unbundle, int minSize, int newSizeOffset, int newSizeLength,
                              bool newTestDisHeader) {
    setBundling(size);
    setUnbundling(unbundle);
    setMinPacketSize(minSize);
    setSizeOffset(newSizeOffset);
    setSizeLength(newSizeLength);
    enableDisHeaderTest(newTestDisHeader);
}

void NwNetSocket::setUnbundling(int on) {
    unbundling = on != 0;
}

bool NwNetSocket::isUnbundling() {
    return unbundling != 0;
}

int NwNetSocket::minPacketSize() {
    return minPacketSize_;
}

void NwNetSocket::setMinPacketSize(int size) {
    minPacketSize_ = size;
}

int NwNetSocket::sizeOffset() {
    return sizeOffset_;
}

void NwNetSocket::setSizeOffset(int offset) {
    sizeOffset_ = offset;
}

int NwNetSocket::sizeLength() {
    return sizeLength_;
}

void NwNetSocket::setSizeLength(int length) {
    sizeLength_ = length;
    if (length == 1 || length == 2 || length == 4) return;
    sizeLength_ = kDisLengthWidth;
    if (!isQuiet())
        NwWarn("Invalid value for size, using default value of %u\n", static_cast<unsigned int>(sizeLength_));
}

bool NwNetSocket::testDisHeader() {
    return testDisHeader_;
}

void NwNetSocket::enableDisHeaderTest(bool on) {
    testDisHeader_ = on;
}

// --- receiving -------------------------------------------------------------------------------------------
//
// Each step calls the next through the virtual table, so that a derived class may replace any of them. For an
// object of just this class the table's answers are known: the `direct` forms are the same steps with these
// answers filled in, which the compiler lays into one piece (half the instructions for a packet).

namespace {

// By address: at worst a type is not recognised, and the table is asked.
bool isOfNoDerivedClass(const NwNetSocket& socket) {
    return &typeid(socket) == &typeid(NwNetSocket);
}

}  // namespace

[[gnu::flatten]] int NwNetSocket::NwRecv(char** buf, int* status) {
    const int length = isOfNoDerivedClass(*this) ? receive<true>(buf, status) : recvWithStatus(buf, status);
    const bool isLater = length > 0 && *buf != recvBuffer.get();
    if (isLater && length <= bufferSize) {
        std::memcpy(copyBuffer.get(), *buf, static_cast<std::size_t>(length));
        *buf = copyBuffer.get();
    }
    return length;
}

int NwNetSocket::NwRecv(char* buf, unsigned long len) {
    char* packet = nullptr;
    const int length =
        isOfNoDerivedClass(*this) ? receive<true>(&packet, nullptr) : recvWithStatus(&packet, nullptr);
    if (length > 0 && len > 0) std::memcpy(buf, packet, NwMin(static_cast<unsigned long>(length), len));
    return length;
}

int NwNetSocket::recvWithStatus(char** buf, int* status) {
    return receive<false>(buf, status);
}

template <bool direct>
int NwNetSocket::receive(char** buf, int* status) {
    int length;
    if (unbundling)
        length = direct ? nextPacket<true>(buf) : recvWithUnbundling(buf);
    else
        length = direct ? NwNetSocket::recvFromNet(buf) : recvFromNet(buf);

    int code = 1;
    if (length == kOwnPacket) {
        code = kOwnPacket;
    } else if (length <= 0) {  // a derived class's step may say less than nothing
        code = 0;
    } else if (!(direct ? ownTestsPassAll() || ownTestsAccept(*buf, NwNetSocket::lastSourceInetAddr())
                        : accept(*buf, lastSourceInetAddr()))) {
        code = -2;
        *buf = nullptr;
    }
    if (status) *status = code;
    return code == 1 ? length : 0;
}

int NwNetSocket::recvFromNet(char** buf) {
    if (!(mode & NwNetSocketRead)) {
        warn("NetSocket not initialized for receiving\n");
        *buf = nullptr;
        return 0;
    }
    if (bundleCursor && !keepPendingPackets()) {
        *buf = nullptr;
        return 0;
    }

    socklen_t addressSize = sizeof *sourceSockAddr;
    const int length =
        static_cast<int>(::recvfrom(socketFd, recvBuffer.get(), static_cast<std::size_t>(max0(bufferSize)), 0,
                                    reinterpret_cast<sockaddr*>(sourceSockAddr.get()), &addressSize));
    if (length < 0) {
        if (blocking || errno != EAGAIN) failed("Network read error");
        *buf = nullptr;
        return 0;
    }
    std::memset(recvBuffer.get() + length, 0, kSlack);
    if (addressSize == 0 || sourceSockAddr->sin_family != AF_INET) *sourceSockAddr = sockaddr_in();
    if (length == 0) warn("0 bytes read from net\n");
    const int ownPort = nwSetting(filterPort);
    if (ownPort != -1 && isOwnPacket(ownPort)) return kOwnPacket;
    *buf = recvBuffer.get();
    countPacket();
    return length;
}

void NwNetSocket::landDatagram(const char* bytes, int length, NwIpv4Addr source, int sourcePort) {
    const std::size_t count = static_cast<std::size_t>(NwMin(max0(length), max0(bufferSize)));
    if (count) std::memcpy(recvBuffer.get(), bytes, count);  // an empty one may have no bytes to point at
    std::memset(recvBuffer.get() + count, 0, kSlack);
    setInetAddr(*sourceSockAddr, source, sourcePort);
}

bool NwNetSocket::isOwnPacket(int ownPort) const {
    return ntohl(sourceSockAddr->sin_addr.s_addr) == nwSetting(mcastDevice_) &&
           ntohs(sourceSockAddr->sin_port) == ownPort;
}

NwIpv4Addr NwNetSocket::lastSourceInetAddr() {
    return sourceSockAddr ? ntohl(sourceSockAddr->sin_addr.s_addr) : 0;
}

// --- unbundling ------------------------------------------------------------------------------------------

int NwNetSocket::recvWithUnbundling(char** buf) {
    return nextPacket<false>(buf);
}

template <bool direct>
int NwNetSocket::nextPacket(char** buf) {
    const bool found = direct ? findPacket<true>() : (findNextPacket(), bundleCursor != nullptr);
    if (!found) {
        *buf = nullptr;
        return 0;
    }
    *buf = bundleCursor;
    const unsigned int left = static_cast<unsigned int>(bytesLeftInBundle);
    unsigned int size;
    if (testDisHeader_)
        size =
            direct ? NwNetSocket::currentHeaderMatchesFirstInBundle() : currentHeaderMatchesFirstInBundle();
    else
        size = direct ? NwNetSocket::getNextPacketSize() : getNextPacketSize();
    if (size == 0 || size >= left) {
        // The last packet; or, on purpose, all that remains of what is not a clean bundle, as one packet.
        discardDatagram();
        return static_cast<int>(left);
    }
    bytesLeftInBundle -= static_cast<int>(size);
    bundleCursor += size;
    return static_cast<int>(size);
}

void NwNetSocket::findNextPacket() {
    findPacket<false>();
}

template <bool direct>
bool NwNetSocket::findPacket() {
    for (;;) {
        if (bundleCursor) {
            firstInBundle = 0;
            if (keptSource) {  // packets that waited while unbundling was off: their own sender again
                *sourceSockAddr = *keptSource;
                keptSource.reset();
            }
        } else {
            bytesLeftInBundle = direct ? NwNetSocket::recvFromNet(&bundleCursor) : recvFromNet(&bundleCursor);
            if (bytesLeftInBundle <=
                0) {  // nothing, an empty datagram, or an own one: no cursor stays behind
                if (bytesLeftInBundle != 0) firstInBundle = 1;
                bundleCursor = nullptr;
                return false;
            }
            firstInBundle = 1;
        }
        if (bytesLeftInBundle >= minPacketSize_) return true;

        refuseShortPacket();
    }
}

[[gnu::cold, gnu::noinline]] void NwNetSocket::refuseShortPacket() {
    if (!isQuiet())
        NwWarn("NwNetSocket: %sproblem: packet size less than %d bytes\n", firstInBundle ? "" : "unbundling ",
               minPacketSize_);
    std::fflush(stdout);  // meant, also while sockets are quiet
    discardDatagram();
}

void NwNetSocket::discardDatagram() {
    bytesLeftInBundle = 0;
    bundleCursor = nullptr;
}

unsigned int NwNetSocket::getNextPacketSize() {
    if (!bundleCursor) return 0;
    return nwPacketLength(bundleCursor, bytesLeftInBundle, sizeOffset_, sizeLength_);
}

unsigned int NwNetSocket::currentHeaderMatchesFirstInBundle() {
    if (!bundleCursor) return 0;
    const int protocol = static_cast<unsigned char>(bundleCursor[kDisVersionOffset]);
    const int exercise = static_cast<unsigned char>(bundleCursor[kDisExerciseOffset]);
    if (firstInBundle) {
        bundleExercise = exercise;
        bundleProtocol = protocol;
    } else if (protocol != bundleProtocol || exercise != bundleExercise) {
        warnOfHeader(protocol, exercise);
        return 0;
    }
    return nwPacketLength(bundleCursor, bytesLeftInBundle, kDisLengthOffset, kDisLengthWidth);
}

[[gnu::cold, gnu::noinline]] void NwNetSocket::warnOfHeader(int protocol, int exercise) const {
    if (!isQuiet())
        NwWarn(
            "Unbundling warning: PDU header not similar to first                 in bundle\n"
            "    (Protocol,exercise) = (%d,%d) when expecting (%d,%d)\n",
            protocol, exercise, bundleProtocol, bundleExercise);
}

bool NwNetSocket::dataLeftInCurrentBundle() {
    return bundleCursor != nullptr;
}

[[gnu::cold, gnu::noinline]] bool NwNetSocket::keepPendingPackets() {
    if (!bundleCursor || keptSource) return true;
    if (!sourceSockAddr) return false;
    std::unique_ptr<sockaddr_in> source(new (std::nothrow) sockaddr_in(*sourceSockAddr));
    if (!source) return false;
    const std::size_t left = static_cast<std::size_t>(max0(bytesLeftInBundle));
    std::unique_ptr<char[]> kept(new (std::nothrow) char[left + kSlack]());
    if (!kept) return false;
    std::memcpy(kept.get(), bundleCursor, left);
    keptPackets = std::move(kept);
    bundleCursor = keptPackets.get();
    keptSource = std::move(source);
    return true;
}

// --- multicast -------------------------------------------------------------------------------------------

int NwNetSocket::listenToMulticastGroup(unsigned int group, unsigned int device) {
    return privateListenToMulticastGroup(group, 0, device ? device : mcastDevice_);
}

int NwNetSocket::privateListenToMulticastGroup(unsigned int group, int fromInit, unsigned int device) {
    if (!isMulticastAddr(group)) {
        if (!isQuiet()) NwWarn("%s is not a multicast address: Can't subscribe\n", NwInetAddrString(group));
        return 0;
    }
    if (!device) device = mcastDevice_;
    in_addr interface;
    interface.s_addr = htonl(device);
    if (!setOption(socketFd, IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface))
        return failed("NetSocket: setsockopt IP_MULTICAST_IF failed");
    if (mcastDevice_) {  // meant: without an interface of its own a socket joins nothing, and goes on
        ip_mreq membership;
        membership.imr_multiaddr.s_addr = htonl(group);
        membership.imr_interface = interface;
        if (!setOption(socketFd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership))
            return failed("NetSocket: setsockopt IP_ADD_MEMBERSHIP failed");
    }
    if (boundToDest && !fromInit) {
        if (!isQuiet()) NwWarn("listenToMulticastGroup ineffective while bound to destAddr\n");
        return 0;  // meant: the membership stays
    }
    if (!isQuiet())
        NwVerbose("Listening to multicast group: %s on interface: %s\n", NwInetAddrString(group),
                  NwInetAddrString(device));
    return 1;
}

int NwNetSocket::dropMulticastGroup(unsigned int group, unsigned int device) {
    if (!isMulticastAddr(group)) {
        if (!isQuiet()) NwWarn("%s is not a multicast address: Can't drop\n", NwInetAddrString(group));
        return 0;
    }
    ip_mreq membership;
    membership.imr_multiaddr.s_addr = htonl(group);
    membership.imr_interface.s_addr = htonl(device ? device : mcastDevice_);
    if (!setOption(socketFd, IPPROTO_IP, IP_DROP_MEMBERSHIP, &membership, sizeof membership))
        return failed("NetSocket: setsockopt IP_DROP_MEMBERSHIP failed");
    if (!isQuiet()) NwVerbose("No longer listening to multicast group: %s\n", NwInetAddrString(group));
    return 1;
}

int NwNetSocket::setMcastTtl(int ttl) {
    const unsigned char lowByte = static_cast<unsigned char>(ttl);
    return setOption(socketFd, IPPROTO_IP, IP_MULTICAST_TTL, &lowByte, sizeof lowByte) ||
           failed("NetSocket: setsockopt IP_MULTICAST_TTL failed");
}

void NwNetSocket::setMcastDevice(unsigned int device) {
    nwChangeSetting(mcastDevice_, device);
}

unsigned int NwNetSocket::mcastDevice() const {
    return nwSetting(mcastDevice_);
}

// --- interfaces of the host ------------------------------------------------------------------------------

namespace {

const std::size_t kInterfaceListBytes = 8192;  // 204 entries; more are not seen

// One address-valued question about an interface. False after its report when the system refuses.
bool askIfr(ifreq* ifr, int fd, unsigned long request, const char* complaint, NwIpv4Addr* answer) {
    *answer = 0;
    if (::ioctl(fd, request, ifr) != 0) return failed(complaint);
    sockaddr_in value;
    std::memcpy(&value, &ifr->ifr_addr, sizeof value);
    *answer = ntohl(value.sin_addr.s_addr);
    return true;
}

bool askAddress(ifreq* ifr, int fd, NwIpv4Addr* answer) {
    return askIfr(ifr, fd, SIOCGIFADDR, "Couldn't get my address on interface.", answer);
}

bool askNetMask(ifreq* ifr, int fd, NwIpv4Addr* answer) {
    return askIfr(ifr, fd, SIOCGIFNETMASK, "Couldn't get netmask on interface", answer);
}

// The procedure that the three queries by name share; query names it in the first message.
NwIpv4Addr queryDevice(const char* query, const char* name, NwIpv4Addr (*valueOfIfr)(ifreq*, int)) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        if (!isQuiet()) NwWarnNetPerror("%s socket", query);
        return 0;
    }
    alignas(ifreq) char list[kInterfaceListBytes] = {};
    ifconf conf;
    conf.ifc_len = sizeof list;
    conf.ifc_buf = list;
    if (!NwSocket::getConfig(name, fd, &conf)) return 0;  // meant: the descriptor stays open here

    NwIpv4Addr value = 0;
    if (ifreq* ifr = NwNetSocket::findIfr(name, fd, &conf)) {
        value = valueOfIfr(ifr, fd);
    } else if (!isQuiet()) {
        if (name)
            NwWarn("%s not an IP interface capable of broadcast.\n", name);
        else
            NwWarn("Couldn't find an IP interface capable of broadcast.\n");
    }
    ::close(fd);
    return value;
}

}  // namespace

NwIpv4Addr NwNetSocket::inetAddrOfDevice(const char* name) {
    return queryDevice("inetAddrOfDevice", name, inetAddrOfIfr);
}

NwIpv4Addr NwNetSocket::inetBroadcastOfDevice(const char* name) {
    return queryDevice("inetBroadcastOfDevice", name, inetBroadcastOfIfr);
}

NwIpv4Addr NwNetSocket::netMaskOfDevice(const char* name) {
    return queryDevice("netMaskOfDevice", name, netMaskOfIfr);
}

NwIpv4Addr NwNetSocket::firstHostInetAddr() {
    return inetAddrOfDevice(nullptr);
}

bool NwNetSocket::isMulticastAddr(unsigned int addr) {
    return addr >> 28 == 0xE;
}

ifreq* NwNetSocket::findIfr(const char* name, int fd, ifconf* conf) {
    const int count = conf->ifc_len / static_cast<int>(sizeof(ifreq));
    for (int i = 0; i < count; ++i) {
        ifreq* ifr = conf->ifc_req + i;
        const bool chosen =
            name ? std::strncmp(ifr->ifr_name, name, IFNAMSIZ) == 0 : capableOfIpBroadcast(ifr, fd);
        if (chosen) return ifr;
    }
    return nullptr;
}

bool NwNetSocket::capableOfIpBroadcast(ifreq* ifr, int fd) {
    if (ifr->ifr_addr.sa_family != AF_INET) return false;
    if (::ioctl(fd, SIOCGIFFLAGS, ifr) != 0) return failed("Couldn't get network interface flags");
    const int relevant = IFF_UP | IFF_BROADCAST | IFF_LOOPBACK;
    return (ifr->ifr_flags & relevant) == (IFF_UP | IFF_BROADCAST);
}

NwIpv4Addr NwNetSocket::inetAddrOfIfr(ifreq* ifr, int fd) {
    NwIpv4Addr address;
    askAddress(ifr, fd, &address);
    return address;
}

NwIpv4Addr NwNetSocket::netMaskOfIfr(ifreq* ifr, int fd) {
    NwIpv4Addr mask;
    askNetMask(ifr, fd, &mask);
    return mask;
}

NwIpv4Addr NwNetSocket::inetBroadcastOfIfr(ifreq* ifr, int fd) {
    NwIpv4Addr address, mask;
    const bool haveAddress = askAddress(ifr, fd, &address);
    const bool haveMask = askNetMask(ifr, fd, &mask);
    return haveAddress && haveMask ? (address & mask) | ~mask : 0;
}

NwIpv4Addr NwInetAddrOfDevice(const char* name) {
    return NwNetSocket::inetAddrOfDevice(name);
}

NwIpv4Addr NwInetBroadcastOfDevice(const char* name) {
    return NwNetSocket::inetBroadcastOfDevice(name);
}

NwIpv4Addr NwNetMaskOfDevice(const char* name) {
    return NwNetSocket::netMaskOfDevice(name);
}

NwIpv4Addr NwFirstHostInetAddr() {
    return NwNetSocket::firstHostInetAddr();
}

bool NwIsMulticastAddr(unsigned int addr) {
    return NwNetSocket::isMulticastAddr(addr);
}

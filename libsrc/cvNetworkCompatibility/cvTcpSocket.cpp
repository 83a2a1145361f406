// SPDX-License-Identifier: BSD-3-Clause
// The TCP socket. Receiving assembles one packet at a time at the start of pktBuffer:
//
//     | ... | length field | rest of the packet ...          | zero | room |
//     <- size phase ------><- body phase -------------------->
//
// Each phase asks the kernel for just the bytes it still wants, so the next packet stays in the kernel, and
// lengths are checked before anything is computed from them. Sending goes through a queue of pieces of the
// stream; headIsRemainder says that its head must be sent before anything else may be.
#include <cvNetworkCompatibility/cvTcpSocket.h>

#include <cvNetworkCompatibility/cvNetSocket.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

#include <cvutil/cvByteOrder.h>
#include <cvutil/cvMath.h>
#include <cvutil/cvOutput.h>

#include "cvSetting.h"

int NwTcpSocket::thePktBuffSize = 20000;

namespace {

bool isQuiet() {
    return NwSocket::areQuietSockets();
}

bool isTracing() {
    return NwNetDebugOn && !isQuiet();
}

bool wouldBlock() {
    return errno == EAGAIN || errno == EWOULDBLOCK;
}

NwTcpMessage* messageAt(const NwListItem* item) {
    return static_cast<NwTcpMessage*>(item->data());
}

// The system's words for errno, then an empty line: meant.
[[gnu::cold, gnu::noinline]] void reportError(const char* what) {
    if (isQuiet()) return;
    NwWarnPerror("%s", what);
    NwWarn("\n");
}

// The port of one end of a connection, or `fallback` if the system does not tell.
int portOf(int fd, int (*query)(int, sockaddr*, socklen_t*), int fallback) {
    sockaddr_in end = sockaddr_in();
    socklen_t size = sizeof end;
    const bool isKnown = query(fd, reinterpret_cast<sockaddr*>(&end), &size) == 0;
    return isKnown && end.sin_family == AF_INET ? ntohs(end.sin_port) : fallback;
}

int toInt(long bytes) {
    return static_cast<int>(NwMin(bytes, static_cast<long>(INT_MAX)));
}

}  // namespace

// --- a piece of the stream -------------------------------------------------------------------------------

NwTcpMessage::NwTcpMessage(const char* buf, int newSize) : NwTcpMessage(buf, 0, newSize) {}

NwTcpMessage::NwTcpMessage(const char* buf, int offset, int newSize)
    : data(new (std::nothrow) char[static_cast<std::size_t>(NwMax(newSize, 0))]),
      size(data ? NwMax(newSize, 0) : 0) {
    if (size > 0) std::memcpy(data.get(), buf + offset, static_cast<std::size_t>(size));
}

NwTcpMessage::~NwTcpMessage() = default;

// --- construction ----------------------------------------------------------------------------------------

NwTcpSocket::NwTcpSocket(unsigned int addr, int port, int nonBlockingConnect) {
    initFields(addr, port);
    localPortNumber = -1;
    sockaddr_in peer;
    NwNetSocket::setInetAddr(peer, addr, port);
    socketFd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (socketFd < 0) {
        if (!isQuiet()) NwWarnPerror("Failed to open socket: ");
        ok = false;
        return;
    }
    if (nonBlockingConnect) NwTcpSocket::NwBecomeNonBlocking();
    if (!isQuiet()) NwInfo("TCP Socket connecting to %s.\n", NwInetAddrString(addr));
    if (::connect(socketFd, reinterpret_cast<sockaddr*>(&peer), sizeof peer) < 0 && errno != EINPROGRESS &&
        errno != EAGAIN) {
        if (!isQuiet()) NwWarnPerror("TCP Socket connect failed: ");
        ok = false;
        return;
    }
    localPortNumber = portOf(socketFd, ::getsockname, localPortNumber);
    if (!nonBlockingConnect) NwTcpSocket::NwBecomeNonBlocking();
    setNoDelay(socketFd, true);
    std::signal(SIGPIPE, SIG_IGN);
    printReady("Client");
}

NwTcpSocket::NwTcpSocket(int fd, unsigned int addr, int port) {
    initFields(addr, port);
    localPortNumber = 0;
    socketFd = fd;
    NwTcpSocket::NwBecomeNonBlocking();
    setNoDelay(socketFd, true);
    std::signal(SIGPIPE, SIG_IGN);
    peerPortNumber = portOf(fd, ::getpeername, port);
    printReady("Server");
}

NwTcpSocket::~NwTcpSocket() {
    pktBuffer.reset();
    while (NwListItem* item = sendQueue.first()) {
        delete messageAt(item);
        sendQueue.remove(item);
    }
    ::close(socketFd);
}

void NwTcpSocket::initFields(NwIpv4Addr addr, int port) {
    const int size = NwMax(nwSetting(thePktBuffSize), 0);
    pktBuffer.reset(new (std::nothrow) char[static_cast<std::size_t>(size)]);
    pktBufferSize = pktBuffer ? static_cast<unsigned int>(size) : 0;
    ok = pktBuffer != nullptr;
    if (!ok && !isQuiet()) NwWarn("NwTcpSocket: no memory for packets of %d bytes\n", size);
    peerAddr = addr;
    peerPortNumber = port;
    sizeOffset = 0;
    sizeLength = 2;
    maxQueue = -1;
    headIsRemainder = false;
    sendFailed = false;
    startPacket();
}

void NwTcpSocket::printReady(const char* side) const {
    if (!isQuiet()) NwInfo("Using TCP Socket with %d byte buffer (%s).\n", nwSetting(thePktBuffSize), side);
}

// --- receiving -------------------------------------------------------------------------------------------

void NwTcpSocket::startPacket() {
    headerOffset = sizeOffset;
    headerWidth = sizeLength;
    waitingForSize = 1;
    bytesToRead = static_cast<unsigned int>(sizeOffset) + static_cast<unsigned int>(sizeLength);
    bytesRead = 0;
}

void NwTcpSocket::setSizeOffset(int off) {
    sizeOffset = off;
    if (bytesRead == 0 && !isRefused()) startPacket();
}

void NwTcpSocket::setSizeLength(int len) {
    const bool valid = len == 1 || len == 2 || len == 4;
    if (!valid && !isQuiet()) NwWarn("Invalid value for size, using default value\n");
    sizeLength = valid ? len : 2;
    if (bytesRead == 0 && !isRefused()) startPacket();
}

void NwTcpSocket::setPacketBufferSize(int size) {
    nwChangeSetting(thePktBuffSize, size);
}

int NwTcpSocket::NwRecv(char** pkt, int* status) {
    return recvWithStatus(pkt, status);
}

int NwTcpSocket::NwRecv(char* buf, unsigned long len) {
    char* pkt = nullptr;
    const int n = recvWithStatus(&pkt, nullptr);
    if (n && len) std::memcpy(buf, pkt, NwMin(static_cast<unsigned long>(n), len));
    return n;
}

int NwTcpSocket::recvWithStatus(char** pkt, int* status) {
    if (waitingForSize && !readSize(pkt, status)) return 0;
    return readBody(pkt, status);
}

// The size phase. 1 once the rest of a packet is to be read.
int NwTcpSocket::readSize(char** pkt, int* status) {
    const long header = static_cast<long>(headerOffset) + headerWidth;
    if (headerOffset < 0 || header > INT_MAX)  // no packet can have its length there
        return refuseLength(static_cast<unsigned int>(header), pkt, status);
    const int n = readWanted(pkt, status);
    if (!n) return 0;
    if (bytesToRead) {
        *pkt = nullptr;
        if (status) *status = 0;
        if (isTracing()) NwInfo("Waiting for size.  Read in %i bytes\n", n);
        return 0;
    }
    const unsigned int length = announcedLength();
    // A single byte is a signed number: 0x80 and more is no length.
    if (length < bytesRead || length > (headerWidth == 1 ? unsigned{SCHAR_MAX} : unsigned{INT_MAX}))
        return refuseLength(length, pkt, status);
    if (length == bytesRead) {
        if (isTracing()) NwInfo("NwRecv: Received Connection Test packet\n");
        startPacket();
        return 0;  // meant: *pkt and *status stay as the caller set them
    }
    bytesToRead = length - bytesRead;
    waitingForSize = 0;
    if (isTracing()) NwInfo("NwRecv: Waiting for a packet with size %i\n", static_cast<int>(length));
    return 1;
}

int NwTcpSocket::readBody(char** pkt, int* status) {
    if (!readWanted(pkt, status)) return 0;
    if (bytesToRead) {
        if (isTracing())
            NwInfo("NwRecv: Received %d out of %d bytes\n", static_cast<int>(bytesRead),
                   static_cast<int>(bytesRead + bytesToRead));
        *pkt = nullptr;
        if (status) *status = 0;
        return 0;
    }
    const unsigned int total = bytesRead;
    if (isTracing()) NwInfo("NwRecv: Have the whole packet (%d bytes)\n", static_cast<int>(total));
    startPacket();
    pktBuffer[total] = '\0';
    *pkt = pktBuffer.get();
    if (status) *status = 1;
    return static_cast<int>(total);
}

// One recv() for what the current phase still wants. Returns how much came, or 0 to end the call.
inline int NwTcpSocket::readWanted(char** pkt, int* status) {
    const unsigned int needed = bytesRead + bytesToRead;
    if (isRefused() || (pktBufferSize <= needed && !expandPktBuffer(needed)))
        return refuseLength(needed, pkt, status);
    const int n = static_cast<int>(::recv(socketFd, pktBuffer.get() + bytesRead, bytesToRead, 0));
    if (!checkSize(n, pkt, status)) return 0;
    bytesRead += static_cast<unsigned int>(n);
    bytesToRead -= static_cast<unsigned int>(n);
    return n;
}

int NwTcpSocket::checkSize(int n, char** pkt, int* status) {
    if (n > 0) return 1;
    const bool nothingYet = n < 0 && wouldBlock();
    if (n < 0 && !nothingYet) reportError("Network read error: ");
    if (!nothingYet) ok = false;
    *pkt = nullptr;
    if (status) *status = 0;
    return 0;
}

// A length that cannot be: nothing behind it in the stream can be found any more.
int NwTcpSocket::refuseLength(unsigned int length, char** pkt, int* status) {
    if (ok && !isQuiet()) NwWarn("NwTcpSocket: bad packet length %u\n", length);
    ok = false;
    headerWidth = 0;
    bytesToRead = 0;  // later calls read nothing
    *pkt = nullptr;
    if (status) *status = 0;
    return 0;
}

unsigned int NwTcpSocket::announcedLength() const {
    const char* field = pktBuffer.get() + headerOffset;
    if (headerWidth == 1) return static_cast<unsigned char>(*field);
    if (headerWidth == 2) return *reinterpret_cast<const NwNetU16*>(field);
    return *reinterpret_cast<const NwNetU32*>(field);
}

bool NwTcpSocket::expandPktBuffer(unsigned int needed) {
    if (pktBufferSize > needed) return false;
    const std::uint64_t unit = NwMax(pktBufferSize, 1u);
    const std::uint64_t size = (needed / unit + 1) * unit;
    if (size > UINT_MAX) return false;
    if (isTracing())
        NwInfo("NwTcpSocket:: Expanding recv buffer from  %d to %d \n", static_cast<int>(pktBufferSize),
               static_cast<int>(size));
    // Not initialised: an announced length costs no memory until its bytes arrive.
    std::unique_ptr<char[]> larger(new (std::nothrow) char[size]);
    if (!larger) return false;
    if (bytesRead) std::memcpy(larger.get(), pktBuffer.get(), bytesRead);  // what else lies there is over
    pktBuffer = std::move(larger);
    pktBufferSize = static_cast<unsigned int>(size);
    return true;
}

// --- sending ---------------------------------------------------------------------------------------------

int NwTcpSocket::sendTo(char* buf, unsigned long len, unsigned int /*destAddr*/) {
    return sendTo(buf, len, false);
}

// Meant: behind a flush that could not send all, the packet is offered to the kernel even so, and may
// overtake whole pieces in the queue; but nothing gets inside a half-sent one.
int NwTcpSocket::sendTo(char* buf, unsigned long len, bool markBroken) {
    if (len > INT_MAX) return -1;
    const int size = static_cast<int>(len);
    long sent = 0;
    const int flushed = flush(sent);
    if (size == 0) return toInt(sent);
    if (flushed == 0) return sendLater(buf, size, sent, "");
    // Behind a half-sent packet that the kernel refused for good, nothing may follow: the packet is dropped.
    if (headIsRemainder) return sendFailed ? toInt(sent) : sendLater(buf, size, sent, " EWOULDBLOCK");
    const long n = ::send(socketFd, buf, len, MSG_NOSIGNAL);
    if (n == size && !isTracing()) return toInt(sent + n);
    return endSend(buf, size, n, sent, markBroken);
}

// Acts on what send() gave for a packet behind a flush that sent `sent` bytes, with errno as send() left it.
int NwTcpSocket::endSend(char* buf, int len, long n, long sent, bool markBroken) {
    if (n < 0 && wouldBlock()) return sendLater(buf, len, sent, " EWOULDBLOCK");
    if (n < 0) {
        if (markBroken || len != headerSize()) reportSendError();
        return toInt(sent);
    }
    const bool whole = n == len;
    if (isTracing())
        NwInfo("SendTo: sent %d bytes (%s): total packets in buffer = %d\n", static_cast<int>(n),
               whole ? "whole packet" : "part of packet", sendQueue.count());
    if (!whole) queueRest(buf, static_cast<int>(n), len);
    return toInt(sent + n);
}

int NwTcpSocket::sendLater(const char* buf, int len, long sent, const char* why) {
    if (isTracing())
        NwInfo("SendTo%s: storing %d bytes (whole packet): total packets in buffer = %d\n", why, len,
               sendQueue.count());
    queue(buf, len);
    return toInt(sent);
}

bool NwTcpSocket::isQueueFull() const {
    return maxQueue != -1 &&
           static_cast<unsigned int>(sendQueue.count()) >= static_cast<unsigned int>(maxQueue);
}

// A copy of buf[offset .. offset + size) into the queue, at the end that `add` stands for. False when memory
// ended.
bool NwTcpSocket::addPiece(const char* buf, int offset, int size, NwListItem* (NwList::*add)(void*)) {
    std::unique_ptr<NwTcpMessage> message(new (std::nothrow) NwTcpMessage(buf, offset, size));
    if (!message || !message->data || !(sendQueue.*add)(message.get())) return false;
    message.release();
    return true;
}

// Queues a packet at the end, if the cap admits it.
void NwTcpSocket::queue(const char* buf, int size) {
    if (!isQueueFull() && !addPiece(buf, 0, size, &NwList::addToEnd)) reportNoMemory(size);
}

// Queues the rest of a packet, of which the kernel took `sent` bytes, at the head, if the cap admits it.
void NwTcpSocket::queueRest(const char* buf, int sent, int len) {
    if (isQueueFull()) return;
    if (addPiece(buf, sent, len - sent, &NwList::addToStart))
        headIsRemainder = sent > 0;
    else
        loseRest(len - sent);
}

int NwTcpSocket::flush() {
    long bytesSent = 0;
    return flush(bytesSent);
}

int NwTcpSocket::flush(long& bytesSent) {
    bytesSent = 0;
    const int result = bundling && !bundles.empty() && !queueBundles() ? -1 : 1;
    if (!sendQueue.first() && !isTracing()) return result;  // what most calls find
    return sendQueued(result, bytesSent);
}

// Sends the queue, oldest first, as far as the kernel takes it. `result` is the flush's when it takes all.
int NwTcpSocket::sendQueued(int result, long& bytesSent) {
    int count = 0;
    sendFailed = false;
    if (isTracing()) NwInfo("NwTcpSocket::flush: packets waiting to be sent: %d\n", sendQueue.count());
    for (NwListItem *item = sendQueue.first(), *following = nullptr; item; item = following) {
        following = item->next();
        const NwTcpMessage& message = *messageAt(item);
        const std::size_t size = static_cast<std::size_t>(message.size);
        const int n = static_cast<int>(::send(socketFd, message.data.get(), size, MSG_NOSIGNAL));
        if (n < 0) {
            result = -1;
            if (wouldBlock()) break;
            if (isConnectionTest(item)) continue;  // meant: it stays queued, and the others are still tried
            reportSendError();
            break;
        }
        ++count;
        bytesSent += n;
        const bool whole = n == message.size;
        if (isTracing())
            NwInfo("NwTcpSocket::flush: sent %d bytes (%s)\n", n,
                   whole ? "whole packet" : "part of a packet");
        if (!whole) {
            keepRemainder(item, n);
            result = 0;
            break;
        }
        if (item == sendQueue.first()) headIsRemainder = false;
        delete messageAt(item);
        sendQueue.remove(item);
    }
    if (isTracing())
        NwInfo("NwTcpSocket::flush(%d): packets sent: %d with total of %ld bytes\n", result, count,
               bytesSent);
    return result;
}

// Moves every bundle to the end of the queue, whatever the cap. False when memory ended; what did not fit
// stays in its bundle.
bool NwTcpSocket::queueBundles() {
    for (BundleMap::value_type& entry : bundles) {
        std::vector<char>& bundle = entry.second;
        if (bundle.empty()) continue;
        if (!addPiece(bundle.data(), 0, static_cast<int>(bundle.size()), &NwList::addToEnd)) return false;
        bundle.clear();
    }
    return true;
}

// A queued packet of just a header. The rest of a longer one can be as short.
bool NwTcpSocket::isConnectionTest(const NwListItem* item) const {
    return messageAt(item)->size == headerSize() && !(headIsRemainder && item == sendQueue.first());
}

// What is left of a piece that was sent in part becomes the head of the queue. Done within the piece's own
// memory, so that neither the cap nor a lack of memory can tear the stream here.
void NwTcpSocket::keepRemainder(NwListItem* item, int sent) {
    NwTcpMessage* message = messageAt(item);
    message->size -= sent;
    std::memmove(message->data.get(), message->data.get() + sent, static_cast<std::size_t>(message->size));
    if (item != sendQueue.first()) {
        if (!sendQueue.addToStart(message)) {
            loseRest(message->size);
            return;
        }
        sendQueue.remove(item);
    }
    if (sent > 0) headIsRemainder = true;
}

// The rest of a packet cannot be kept: the stream ends inside it, and the kernel lets nothing follow.
void NwTcpSocket::loseRest(int size) {
    reportNoMemory(size);
    ::shutdown(socketFd, SHUT_WR);
}

// What was promised cannot be kept.
void NwTcpSocket::reportNoMemory(int size) {
    if (ok && !isQuiet()) NwWarn("NwTcpSocket: no memory to queue %d bytes\n", size);
    ok = false;
}

void NwTcpSocket::reportSendError() {
    ok = false;
    sendFailed = true;
    reportError("TCP Socket sendTo error: ");
}

std::pair<int, int> NwTcpSocket::getQueueStatus() const {
    return {sendQueue.count(), maxQueue};
}

int NwTcpSocket::maxForwarderQueue() const {
    return maxQueue;
}

void NwTcpSocket::setMaxForwarderQueue(int n) {
    maxQueue = n;
}

// --- the connection --------------------------------------------------------------------------------------

bool NwTcpSocket::isOk() const {
    return ok;
}

int NwTcpSocket::NwBecomeNonBlocking() {
    NwNetSocket::makeNonBlocking(socketFd);
    return 0;
}

int NwTcpSocket::NwBecomeBlocking() {
    const int flags = ::fcntl(socketFd, F_GETFL, 0);
    if (::fcntl(socketFd, F_SETFL, flags & ~O_NONBLOCK) < 0) NwFatalPerror("blocking");
    return 0;
}

bool NwTcpSocket::isConnectionEstablished() {
    return sendMinimumSizePkt(false) == headerSize();
}

bool NwTcpSocket::testConnectionStatus() {
    sendMinimumSizePkt(true);
    return ok;
}

int NwTcpSocket::sendMinimumSizePkt(bool markBroken) {
    const long size = headerSize();
    if (sizeLength != 1 && sizeLength != 2 && sizeLength != 4) {
        if (!isQuiet()) NwWarn("NwTcpSocket::isConnectionEstablished: Invalid Size length!\n");
        return 0;
    }
    if (sizeOffset < 0 || size > INT_MAX) return 0;  // no such packet
    // Meant: the position is scaled by the width, and may lie behind what is sent.
    const long position = static_cast<long>(sizeOffset) * sizeLength;
    std::unique_ptr<char[]> packet(new (std::nothrow) char[static_cast<std::size_t>(position + sizeLength)]);
    if (!packet) return 0;
    std::memset(packet.get(), 'x', static_cast<std::size_t>(size));
    char* field = packet.get() + position;
    if (sizeLength == 1)
        *field = static_cast<char>(size);
    else if (sizeLength == 2)
        *reinterpret_cast<NwNetU16*>(field) = static_cast<std::uint16_t>(size);
    else
        *reinterpret_cast<NwNetU32*>(field) = static_cast<std::uint32_t>(size);
    return sendTo(packet.get(), static_cast<unsigned long>(size), markBroken);
}

void NwTcpSocket::shutDown() {
    ::shutdown(socketFd, SHUT_RDWR);
    ok = false;
}

void NwTcpSocket::setNoDelay(bool on) {
    setNoDelay(socketFd, on);
}

void NwTcpSocket::setNoDelay(int fd, bool on) {
    const int noDelay = on ? 1 : 0;
    if (::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay) != 0 && !isQuiet())
        NwWarnPerror("NwTcpSocket::setNoDelay\n");
    const int lowDelay = IPTOS_LOWDELAY;  // meant: also when no-delay is switched off
    if (::setsockopt(fd, IPPROTO_IP, IP_TOS, &lowDelay, sizeof lowDelay) != 0 && !isQuiet())
        NwWarnPerror("NwTcpSocket::set IPTOS_LOWDELAY\n");
}

int NwTcpSocket::peerPort() const {
    return peerPortNumber;
}

int NwTcpSocket::localPort() const {
    return localPortNumber;
}

// SPDX-License-Identifier: BSD-3-Clause
// The socket base class: a bundle per destination on the way out, four header filters on the way in.
#include <cvNetworkCompatibility/cvSocket.h>

#include <cvNetworkCompatibility/cvAsyncSocket.h>
#include <cvNetworkCompatibility/cvClientSocket.h>
#include <cvNetworkCompatibility/cvNetSocket.h>

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

#include <cvutil/cvMath.h>
#include <cvutil/cvOutput.h>
#include <cvutil/cvPacketServer.h>

#include "cvDisHeader.h"
#include "cvFilterValue.h"
#include "cvSetting.h"

// --- process-wide settings -----------------------------------------------------------------------------

int theMaxPacketSize = 15000;
bool NwSocket::theAreQuietSockets = false;

int NwMaxPacketSize() {
    return nwSetting(theMaxPacketSize);
}

void NwSetMaxPacketSize(int size) {
    NwInfo("Setting max UDP packet size to %d bytes\n", size);  // also while sockets are quiet
    nwChangeSetting(theMaxPacketSize, size);
}

void NwSocket::setQuietSockets(bool quiet) {
    nwChangeSetting(theAreQuietSockets, quiet);
}

bool NwSocket::areQuietSockets() {
    return nwSetting(theAreQuietSockets);
}

void NwSocket::initializeNetwork() {}

int NwSocket::getConfig(const char* /*device*/, int fd, ifconf* conf) {
    if (::ioctl(fd, SIOCGIFCONF, conf) == 0) return 1;
    NwWarnNetPerror("getConfig failed to get host network config");  // also while sockets are quiet
    return 0;
}

// --- filter tests ----------------------------------------------------------------------------------------

namespace {

NwListItem* findValue(const NwList& list, unsigned int value) {
    NwListItem* item = list.first();
    while (item && nwFilterValue(item) != value) item = item->next();
    return item;
}

unsigned int fieldValue(const char* field, NwFilterType type) {
    if (type == NwFilterByte) return static_cast<unsigned char>(*field);
    if (type != NwFilterInt32) return 0;
    unsigned int value;
    std::memcpy(&value, field, sizeof value);
    return value;
}

}  // namespace

NwFilterTest::NwFilterTest() : op(NwTestExclude) {
    disableTest();
}

NwFilterTest::~NwFilterTest() = default;

void NwFilterTest::disableTest() {
    setTest(NwTestExclude, 0, nullptr);
}

void NwFilterTest::setOperator(NwTestOperator newOperator) {
    clearList();  // meant: a change of operator always starts from an empty list
    op = newOperator;
}

void NwFilterTest::setTest(NwTestOperator newOperator, int count, unsigned int* newValues) {
    setOperator(newOperator);
    extendTest(count, newValues);
}

void NwFilterTest::extendTest(int count, unsigned int* newValues) {
    for (int i = 0; i < count; ++i) values.add(nwAsItemData(newValues[i]));
}

void NwFilterTest::reduceTest(int count, unsigned int* oldValues) {
    for (int i = 0; i < count; ++i) {
        if (NwListItem* item = findValue(values, oldValues[i])) values.remove(item);
    }
}

bool NwFilterTest::evalTest(char* pkt, int offset, NwFilterType type) {
    const bool excludes = op == NwTestExclude;
    if (!values.first()) return excludes;
    return findValue(values, fieldValue(pkt + offset, type)) ? !excludes : excludes;
}

void NwFilterTest::clearList() {
    for (NwListItem* item = values.first(); item;) {
        NwListItem* following = item->next();
        values.remove(item);
        item = following;
    }
}

// --- sockets ---------------------------------------------------------------------------------------------

NwSocket::NwSocket()
    : blocking(0), packetsReceived(0), bundling(0), bundleSize(0), socketFd(-1), lastBundle(nullptr) {}

NwSocket::~NwSocket() = default;

// The bundle of a destination, with room for the largest one: reserved once, then cleared and filled again.
inline std::vector<char>& NwSocket::bundleOf(NwIpv4Addr destAddr) {
    if (!lastBundle || lastBundle->first != destAddr) lastBundle = findBundle(destAddr);
    std::vector<char>& bundle = lastBundle->second;
    const long largest = NwMaxPacketSize();
    if (static_cast<long>(bundle.capacity()) < largest) bundle.reserve(static_cast<std::size_t>(largest));
    return bundle;
}

[[gnu::noinline]] NwSocket::BundleMap::value_type* NwSocket::findBundle(NwIpv4Addr destAddr) {
    return &*bundles.emplace(destAddr, std::vector<char>()).first;
}

int NwSocket::NwSend(char* buf, unsigned long len, unsigned int destAddr) {
    return bundling ? sendBundled(buf, len, destAddr) : sendTo(buf, len, destAddr);
}

int NwSocket::sendBundled(char* buf, unsigned long len, unsigned int destAddr) try {
    std::vector<char>& bundle = bundleOf(destAddr);  // also for a packet that will be sent directly: meant
    // A negative size converts to one that nothing exceeds; the test below then sends each packet by itself.
    const unsigned long limit = static_cast<unsigned long>(static_cast<long>(bundleSize));
    const bool fits = len <= limit && bundle.size() <= limit - len;
    int flushed = 0;
    if (!fits && !bundle.empty()) {
        long bytesSent = 0;
        if (flush(bytesSent) == -1) return -1;
        flushed = static_cast<int>(bytesSent);
    }
    if (len <= INT_MAX && static_cast<int>(len) < bundleSize) {
        bundle.insert(bundle.end(), buf, buf + len);
        return flushed;
    }
    return sendTo(buf, len, destAddr);
} catch (const std::bad_alloc&) {
    return -1;
} catch (const std::length_error&) {
    return -1;
}

int NwSocket::flush() {
    long bytesSent = 0;
    return flush(bytesSent);
}

int NwSocket::flush(long& bytesSent) {
    bytesSent = 0;
    for (BundleMap::value_type& entry : bundles) {
        std::vector<char>& bundle = entry.second;
        if (bundle.empty()) continue;
        const int sent = sendTo(bundle.data(), bundle.size(), entry.first);
        if (sent < 0) return -1;
        bytesSent += sent;
        bundle.clear();
    }
    return 1;
}

int NwSocket::setReceiveBufferSize(int size) {
    return ::setsockopt(readFd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
}

int NwSocket::setSendBufferSize(int size) {
    return ::setsockopt(writeFd(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

void NwSocket::setBundling(int size) {
    flush();
    const int largest = NwMaxPacketSize();
    bundling = size != 0;
    bundleSize = size < largest || size == 0 ? size : largest;
}

int NwSocket::isBundling() {
    return bundleSize;
}

void NwSocket::setUnbundling(int /*on*/) {}

NwIpv4Addr NwSocket::lastSourceInetAddr() {
    return 0;
}

int NwSocket::NwReportPktsRcvd() {
    return packetsReceived;
}

int NwSocket::NwBecomeNonBlocking() {
    return 0;
}

void NwSocket::notifyMe() {}

int NwSocket::listenToMulticastGroup(unsigned int /*group*/, unsigned int /*device*/) {
    return 0;
}

int NwSocket::dropMulticastGroup(unsigned int /*group*/, unsigned int /*device*/) {
    return 0;
}

int NwSocket::setMcastTtl(int /*ttl*/) {
    return 0;
}

void NwSocket::setMcastDevice(unsigned int /*device*/) {}

NwFilterTest& NwSocket::exerciseId() {
    return exerciseIdTest;
}

NwFilterTest& NwSocket::protocolVersion() {
    return protocolVersionTest;
}

NwFilterTest& NwSocket::pduKind() {
    return pduKindTest;
}

NwFilterTest& NwSocket::ipAddr() {
    return ipAddrTest;
}

int NwSocket::readFd() {
    return socketFd;
}

int NwSocket::writeFd() {
    return socketFd;
}

bool NwSocket::isOk() const {
    return true;
}

bool NwSocket::accept(char* pdu, unsigned int srcAddr) {
    return protocolVersion().evalTest(pdu, kDisVersionOffset, NwFilterByte) &&
           exerciseId().evalTest(pdu, kDisExerciseOffset, NwFilterByte) &&
           pduKind().evalTest(pdu, kDisTypeOffset, NwFilterByte) &&
           ipAddr().evalTest(reinterpret_cast<char*>(&srcAddr), 0, NwFilterInt32);
}

// The same where it is known what the virtual table would say.
bool NwSocket::ownTestsAccept(char* pdu, unsigned int srcAddr) {
    return protocolVersionTest.NwFilterTest::evalTest(pdu, kDisVersionOffset, NwFilterByte) &&
           exerciseIdTest.NwFilterTest::evalTest(pdu, kDisExerciseOffset, NwFilterByte) &&
           pduKindTest.NwFilterTest::evalTest(pdu, kDisTypeOffset, NwFilterByte) &&
           ipAddrTest.NwFilterTest::evalTest(reinterpret_cast<char*>(&srcAddr), 0, NwFilterInt32);
}

// --- queue socket ----------------------------------------------------------------------------------------

NwQueueSocket::NwQueueSocket() : recvBufferSize(NwMaxPacketSize()) {
    recvBuffer.reset(new (std::nothrow) char[static_cast<std::size_t>(NwMax(recvBufferSize, 1))]);
}

// Meant: records that are still queued, and their bytes, are not freed.
NwQueueSocket::~NwQueueSocket() {
    recvBuffer.reset();
}

int NwQueueSocket::sendTo(char* buf, unsigned long len, unsigned int /*addr*/) {
    if (len > INT_MAX) return -1;
    char* copy = static_cast<char*>(std::malloc(len ? len : 1));
    NwQueuedPacket* packet = copy ? new (std::nothrow) NwQueuedPacket : nullptr;
    if (!packet || !queue.addToEnd(packet)) {
        delete packet;
        std::free(copy);
        return -1;
    }
    packet->size = static_cast<int>(len);
    packet->data = copy;
    if (len) std::memcpy(copy, buf, len);
    return static_cast<int>(len);
}

int NwQueueSocket::NwRecv(char** buf, int* status) {
    const unsigned long room = static_cast<unsigned long>(NwMax(recvBufferSize, 0));
    const int length = recvBuffer ? NwRecv(recvBuffer.get(), room) : 0;  // nothing to lend: packets stay
    *buf = length ? recvBuffer.get() : nullptr;
    if (status) *status = length ? 1 : 0;
    return length;
}

int NwQueueSocket::NwRecv(char* buf, unsigned long maxLen) {
    NwListItem* oldest = queue.first();
    if (!oldest) return 0;
    NwQueuedPacket* packet = static_cast<NwQueuedPacket*>(queue.remove(oldest));
    const int length = packet->size;
    const std::size_t count = NwMin(static_cast<unsigned long>(length), maxLen);
    if (count) std::memcpy(buf, packet->data, count);
    std::free(packet->data);
    delete packet;
    return length;
}

// --- the default socket ----------------------------------------------------------------------------------

NwSocket* NwNewDfltSocket(int port, unsigned int addr, bool async) {
    const unsigned char readWrite = NwNetSocketRead | NwNetSocketWrite;
    const int server = NwPacketServerIsAlive(port);
    if (server == -1)  // and on, as if no server ran: meant; also while sockets are quiet
        NwWarn(
            "             NwNewDfltSocket: a packet server from 2.3.2 or before appears to be running\n"
            "             this application works with servers from 2.3.3 or later\n");
    if (server == 1) return new NwClientSocket(port, addr, -1, NwClientSocket::defaultFlags);
    if (async) return new NwAsyncNetSocket(port, addr, readWrite, 0u);
    return new NwNetSocket(port, addr, readWrite, 0u);
}

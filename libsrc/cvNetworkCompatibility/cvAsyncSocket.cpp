// SPDX-License-Identifier: BSD-3-Clause
// The asynchronous UDP socket.
//
//     application                      workers
//     sendTo -> mySendQueue  --"e"-->  send worker: directSendTo, then pop
//     recvFromNet <- myReceiveQueue <- receive worker: recvfrom, then push
//
// Who may touch what: the queues are shared, each under its own lock; the application thread alone pops the
// receive queue and the send worker alone pops the send queue, so that the front element stays where it is.
// myRecvBuffer is the receive worker's; recvBuffer, sourceSockAddr and the bundle cursor are the application
// thread's. Switches and stop requests are atomic.
#include <cvNetworkCompatibility/cvAsyncSocket.h>

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <new>
#include <utility>

#include <cvutil/cvClock.h>
#include <cvutil/cvMath.h>
#include <cvutil/cvOutput.h>

#include "cvSetting.h"

double NwAsyncNetSocket::theQueueTimeout = 0.01;

// --- queued packets --------------------------------------------------------------------------------------

NwAsyncSocketPacket::NwAsyncSocketPacket() : mySize(0), myAddr(0), mySourceAddr(0), mySourcePort(0) {}

NwAsyncSocketPacket::NwAsyncSocketPacket(int size, const char* data, unsigned int addr)
    : mySize(NwMax(size, 0)), myData(data, data + mySize), myAddr(addr), mySourceAddr(0), mySourcePort(0) {}

NwAsyncSocketPacket::NwAsyncSocketPacket(const NwAsyncSocketPacket& other) = default;
NwAsyncSocketPacket& NwAsyncSocketPacket::operator=(const NwAsyncSocketPacket& other) = default;
NwAsyncSocketPacket::~NwAsyncSocketPacket() = default;

// A size never speaks of bytes that went elsewhere.
NwAsyncSocketPacket::NwAsyncSocketPacket(NwAsyncSocketPacket&& other) noexcept : NwAsyncSocketPacket() {
    *this = std::move(other);
}

NwAsyncSocketPacket& NwAsyncSocketPacket::operator=(NwAsyncSocketPacket&& other) noexcept {
    std::swap(mySize, other.mySize);
    myData.swap(other.myData);
    std::swap(myAddr, other.myAddr);
    std::swap(mySourceAddr, other.mySourceAddr);
    std::swap(mySourcePort, other.mySourcePort);
    return *this;
}

void NwAsyncSocketPacket::setSource(NwIpv4Addr addr, int port) {
    mySourceAddr = addr;
    mySourcePort = port;
}

// --- waiting ---------------------------------------------------------------------------------------------

NwSelectParamWithWrite::NwSelectParamWithWrite() : myHighest(-1) {
    FD_ZERO(&myReadSet);
    FD_ZERO(&myWriteSet);
    FD_ZERO(&myReadyToRead);
    FD_ZERO(&myReadyToWrite);
}

void NwSelectParamWithWrite::addRead(int fd) {
    if (fd < 0 || fd >= FD_SETSIZE) return;
    FD_SET(fd, &myReadSet);
    myHighest = NwMax(myHighest, fd);
}

int NwSelectParamWithWrite::select(double seconds) {
    myReadyToRead = myReadSet;
    myReadyToWrite = myWriteSet;
    return NwSelect(myHighest + 1, &myReadyToRead, &myReadyToWrite, nullptr, seconds);
}

namespace {

// Bounds a worker's wait, whatever theQueueTimeout says: a request to stop is never slept through.
const double kLongestWaitSeconds = 1.0;

double workerWaitSeconds() {
    return NwMin(NwAsyncNetSocket::queueTimeout(), kLongestWaitSeconds);
}

}  // namespace

// --- construction ----------------------------------------------------------------------------------------

namespace {

// Signals are for the application's threads: a worker blocks those that could be.
class AllSignalsBlocked {
public:
    AllSignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &myFormer);
    }
    ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &myFormer, nullptr); }
    AllSignalsBlocked(const AllSignalsBlocked&) = delete;
    AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

private:
    sigset_t myFormer;
};

}  // namespace

NwAsyncNetSocket::NwAsyncNetSocket(int newPort, unsigned char newMode, unsigned int device)
    : NwNetSocket(newPort, newMode, device) {
    initThread();
}

NwAsyncNetSocket::NwAsyncNetSocket(int newPort, unsigned int addr, unsigned char newMode, unsigned int device)
    : NwNetSocket(newPort, addr, newMode, device) {
    initThread();
}

NwAsyncNetSocket::NwAsyncNetSocket(char* name, int fd, unsigned char newMode)
    : NwNetSocket(name, fd, newMode) {
    initThread();
}

// The workers start before the pipe exists, as documented; the send worker takes it up once it is there.
void NwAsyncNetSocket::initThread() {
    myRecvBuffer.reset(new (std::nothrow) char[static_cast<std::size_t>(NwMax(bufferSize, 1))]);
    if (!myRecvBuffer) myUsingAsyncReceive = false;  // the caller reads for itself
    {
        const AllSignalsBlocked blocked;
        mySendWorkerRuns = ::pthread_create(&mySendThread, nullptr, runSend, this) == 0;
        if (!mySendWorkerRuns) {
            NwFatalError("Could not start aynchronousIO thread Send in NwAsyncNetSocket\n");
            myUsingAsyncSend = false;  // only when the application's fatal handler lets it go on
        }
        myReceiveWorkerRuns = ::pthread_create(&myReceiveThread, nullptr, runReceive, this) == 0;
        if (!myReceiveWorkerRuns) {
            NwFatalError("Could not start aynchronousIO thread Receive inNwAsyncNetSocket\n");
            myUsingAsyncReceive = false;
        }
    }
    if (::pipe(myPipe) == 0) {
        makeNonBlocking(myPipe[0]);
        makeNonBlocking(myPipe[1]);
        myPipeExists = true;
    } else if (!areQuietSockets()) {
        NwWarn("AsyncConnectionMgr::Init bad pipe\n");
    }
    if (!areQuietSockets()) NwInfo("Started Asynchronous I/O Thread\n");
}

NwAsyncNetSocket::~NwAsyncNetSocket() {
    stopThreads();
    myRecvBuffer.reset();
    // Meant: the pipe's descriptors stay open.
}

void NwAsyncNetSocket::stopThreads() {
    if (!mySendWorkerRuns && !myReceiveWorkerRuns) return;
    myStopSend = true;
    myStopReceive = true;
    wakeSendWorker();
    NwSleep(0.1);
    if (mySendWorkerRuns && ::pthread_join(mySendThread, nullptr) != 0)
        NwFatalError("Send Thread Exit failed.\n");
    if (myReceiveWorkerRuns && ::pthread_join(myReceiveThread, nullptr) != 0)
        NwFatalError("Receive Thread Exit failed.\n");
    mySendWorkerRuns = false;
    myReceiveWorkerRuns = false;
    myUsingAsyncSend = false;
    myUsingAsyncReceive = false;
}

// --- sending ---------------------------------------------------------------------------------------------

int NwAsyncNetSocket::sendTo(char* buf, unsigned long len, unsigned int addr) {
    if (!usingAsyncSend()) return directSendTo(buf, len, addr);
    if (len > INT_MAX) return -1;
    try {
        NwAsyncSocketPacket packet(static_cast<int>(len), buf, addr);
        mySendQueue->push_back(std::move(packet));
    } catch (const std::bad_alloc&) {
        return -1;
    }
    wakeSendWorker();
    return static_cast<int>(len);
}

int NwAsyncNetSocket::directSendTo(char* buf, unsigned long len, unsigned int addr) {
    return NwNetSocket::sendTo(buf, len, addr);
}

// A full pipe is fine: the bytes in it wake the worker.
void NwAsyncNetSocket::wakeSendWorker() {
    if (!myPipeExists) return;
    const ssize_t ignored = ::write(myPipe[1], "e", 1);
    static_cast<void>(ignored);
}

void NwAsyncNetSocket::workerSendThread() {
    NwSelectParamWithWrite wait;
    bool waitsOnPipe = false;
    for (;;) {
        if (myStopSend && mySendQueue->empty()) return;
        processSendQueue();
        if (!waitsOnPipe && myPipeExists) {
            wait.addRead(myPipe[0]);
            waitsOnPipe = true;
        }
        wait.select(workerWaitSeconds());
        drainPipe();
    }
}

void NwAsyncNetSocket::drainPipe() {
    char bytes[100];
    while (myPipeExists && ::read(myPipe[0], bytes, sizeof bytes) > 0) {
    }
}

void NwAsyncNetSocket::processSendQueue() {
    while (!mySendQueue->empty()) {
        // Each proxy holds the lock until the datagram is sent, as documented: a sendTo meanwhile waits.
        directSendTo(mySendQueue->front().data(), static_cast<unsigned long>(mySendQueue->front().size()),
                     mySendQueue->front().addr());
        mySendQueue->pop_front();
    }
}

void* NwAsyncNetSocket::runSend(void* socket) {
    static_cast<NwAsyncNetSocket*>(socket)->workerSendThread();
    return nullptr;
}

// --- receiving -------------------------------------------------------------------------------------------

// Whether there is something that the receive worker may read: an open read side.
bool NwAsyncNetSocket::canReadAsync() const {
    return (mode & NwNetSocketRead) && socketFd >= 0 && myRecvBuffer;
}

void NwAsyncNetSocket::workerReceiveThread() {
    NwSelectParamWithWrite datagrams;
    NwSelectParamWithWrite nothing;  // while the caller reads, data are no reason to wake
    if (canReadAsync()) datagrams.addRead(socketFd);
    while (!myStopReceive) {
        const bool reads = usingAsyncReceive();
        if (reads) {
            myWorkerReads = true;
            processReceiveQueue();
            myWorkerReads = false;
        }
        if (!myStopReceive) (reads ? datagrams : nothing).select(workerWaitSeconds());
    }
}

void NwAsyncNetSocket::processReceiveQueue() {
    if (!canReadAsync()) return;
    const NwScopedLock lock(myReadLock);
    const bool endsWhenOff = myWorkerReads || usingAsyncReceive();
    bool more = true;
    // A pass ends early, with a flood still coming, when the worker is to stop or the caller reads itself.
    while (more && !myStopReceive && !(endsWhenOff && !usingAsyncReceive())) more = readOneDatagram();
}

// Moves one datagram into the queue; false when there was none, or an empty one.
bool NwAsyncNetSocket::readOneDatagram() {
    sockaddr_in source = sockaddr_in();
    socklen_t size = sizeof source;
    const ssize_t length =
        ::recvfrom(socketFd, myRecvBuffer.get(), static_cast<std::size_t>(NwMax(bufferSize, 0)), MSG_DONTWAIT,
                   reinterpret_cast<sockaddr*>(&source), &size);
    if (length < 0) {
        if (errno != EAGAIN && !areQuietSockets()) NwWarnNetPerror("Network read error ");
        return false;
    }
    if (size == 0 || source.sin_family != AF_INET) source = sockaddr_in();
    const int ownPort = nwSetting(filterPort);
    if (ownPort != -1 && source.sin_addr.s_addr == htonl(mcastDevice()) &&
        source.sin_port == htons(static_cast<in_port_t>(ownPort)))
        return true;
    if (length == 0 && !areQuietSockets()) NwWarn("0 Bytes Read From the Network\n");
    try {
        NwAsyncSocketPacket packet(static_cast<int>(length), myRecvBuffer.get(), 0);
        packet.setSource(ntohl(source.sin_addr.s_addr), ntohs(source.sin_port));
        myReceiveQueue->push_back(std::move(packet));
    } catch (const std::bad_alloc&) {
        if (!areQuietSockets())
            NwWarn("NwAsyncNetSocket: no memory to queue a datagram of %d bytes\n", static_cast<int>(length));
        return false;
    }
    return length > 0;
}

void* NwAsyncNetSocket::runReceive(void* socket) {
    static_cast<NwAsyncNetSocket*>(socket)->workerReceiveThread();
    return nullptr;
}

int NwAsyncNetSocket::recvFromNet(char** buf) {
    *buf = nullptr;
    if (!usingAsyncReceive()) {
        // The lock waits for the end of a pass under way: what the worker has read comes first.
        const NwScopedLock lock(myReadLock);
        if (myReceiveQueue->empty()) return NwNetSocket::recvFromNet(buf);
    }
    if (!(mode & NwNetSocketRead)) {
        if (!areQuietSockets()) NwWarn("NetSocket not initialized for receiving\n");
        return 0;
    }
    if (myReceiveQueue->empty() || !keepPendingPackets()) return 0;

    NwAsyncSocketPacket& packet = myReceiveQueue->front();  // stays in place: the worker only appends
    const int length = packet.size();
    landDatagram(packet.data(), length, packet.sourceAddr(), packet.sourcePort());
    myReceiveQueue->pop_front();
    *buf = recvBuffer.get();
    countPacket();
    return length;
}

// --- switches --------------------------------------------------------------------------------------------

bool NwAsyncNetSocket::usingAsyncSend() const {
    return myUsingAsyncSend.load(std::memory_order_relaxed);
}

void NwAsyncNetSocket::setUsingAsyncSend(bool on) {
    myUsingAsyncSend.store(on, std::memory_order_relaxed);
}

bool NwAsyncNetSocket::usingAsyncReceive() const {
    return myUsingAsyncReceive.load(std::memory_order_relaxed);
}

void NwAsyncNetSocket::setUsingAsyncReceive(bool on) {
    myUsingAsyncReceive.store(on, std::memory_order_relaxed);
}

double NwAsyncNetSocket::queueTimeout() {
    return nwSetting(theQueueTimeout);
}

void NwAsyncNetSocket::setQueueTimeout(double seconds) {
    nwChangeSetting(theQueueTimeout, seconds);
}

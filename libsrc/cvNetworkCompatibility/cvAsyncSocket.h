// SPDX-License-Identifier: BSD-3-Clause
// The UDP socket whose sending and receiving run on two worker threads, so that a frame never waits for
// the network.
#ifndef CVNETWORKCOMPATIBILITY_CVASYNCSOCKET_H
#define CVNETWORKCOMPATIBILITY_CVASYNCSOCKET_H

#include <cvNetworkCompatibility/cvExport.h>
#include <cvNetworkCompatibility/cvNetSocket.h>
#include <cvutil/cvMutex.h>

#include <pthread.h>
#include <sys/select.h>

#include <atomic>
#include <deque>
#include <memory>
#include <vector>

// One queued datagram: a value that owns its copy of the bytes.
//
//     NwAsyncSocketPacket packet(144, pdu, 0x0A140002u);   // to 10.20.0.2
//     socket.sendTo(packet.data(), packet.size(), packet.addr());
class CVNC_API NwAsyncSocketPacket {
public:
    NwAsyncSocketPacket();
    // Copies size bytes from data; addr in host byte order. A size below 0 counts as 0.
    NwAsyncSocketPacket(int size, const char* data, unsigned int addr);
    NwAsyncSocketPacket(const NwAsyncSocketPacket& other);
    // What was moved from is still a packet, with a size that is true.
    NwAsyncSocketPacket(NwAsyncSocketPacket&& other) noexcept;
    NwAsyncSocketPacket& operator=(const NwAsyncSocketPacket& other);
    NwAsyncSocketPacket& operator=(NwAsyncSocketPacket&& other) noexcept;
    virtual ~NwAsyncSocketPacket();

    int size() const { return mySize; }
    // The first byte of the copy; valid as long as the packet is neither assigned nor destroyed.
    char* data() { return myData.data(); }
    const char* data() const { return myData.data(); }
    // The destination of a packet to be sent; 0 for a received one, whose sender is in the next two.
    unsigned int addr() const { return myAddr; }
    NwIpv4Addr sourceAddr() const { return mySourceAddr; }
    int sourcePort() const { return mySourcePort; }
    void setSource(NwIpv4Addr addr, int port);

protected:
    int mySize;
    std::vector<char> myData;
    unsigned int myAddr;
    NwIpv4Addr mySourceAddr;
    int mySourcePort;
};

// A container that several threads use: each access through -> holds the lock until the end of the full
// expression, also when several stand in one expression.
//
//     NwThreadSafe<std::deque<int> > queue((std::deque<int>()));
//     queue->push_back(1);
template <class T>
class NwThreadSafe {
public:
    class LockedProxy {
    public:
        LockedProxy(T& value, NwMutex& mutex) : myValue(value), myLock(mutex) {}
        T* operator->() { return &myValue; }

    private:
        T& myValue;
        NwScopedLock myLock;
    };

    explicit NwThreadSafe(const T& value) : myValue(value) {}
    NwThreadSafe(const NwThreadSafe&) = delete;
    NwThreadSafe& operator=(const NwThreadSafe&) = delete;

    LockedProxy operator->() { return {myValue, myMutex}; }

private:
    T myValue;
    NwMutex myUnusedMutex;  // never locked; part of the documented layout
    NwMutex myMutex;        // recursive: one expression may hold several proxies
};

// Descriptors to wait on. One that is negative, or FD_SETSIZE or more, does not fit an fd_set and is left
// out: the wait then ends by its time-out.
//
//     NwSelectParamWithWrite wait;
//     wait.addRead(fd);
//     if (wait.select(0.01) > 0) ...
class CVNC_API NwSelectParamWithWrite {
public:
    NwSelectParamWithWrite();
    void addRead(int fd);
    // Waits until a descriptor is ready or the seconds are over. Returns what NwSelect returns: how many
    // are ready, 0 when the time is over, negative on error.
    int select(double seconds);

protected:
    int myHighest;  // -1 while empty
    fd_set myReadSet;
    fd_set myWriteSet;
    fd_set myReadyToRead;  // what the last wait found
    fd_set myReadyToWrite;
};

// A UDP socket with a worker thread for each direction.
//
//     NwAsyncNetSocket socket(3000, 0x7F000001u, (unsigned char)3, 0x7F000001u);
//     socket.sendTo(pdu, 144, NwUSE_DEFAULT_IP_ADDR);    // copies and returns; a worker sends
//     char* packet = nullptr;
//     int status = 0;
//     while (int length = socket.NwRecv(&packet, &status)) use(packet, length);   // never waits
//
// sendTo copies the datagram into a queue and wakes the send worker; the receive worker moves datagrams
// from the kernel into a queue, from which NwRecv takes them. Neither queue has a limit: a producer that is
// faster than the network, or a consumer that stops, costs memory. Either direction can be switched back to
// NwNetSocket's own way at any time; datagrams already queued are still delivered first, in order, and a
// switch loses nothing.
//
// Destruction sends what is queued, then what waits in bundles. It takes at least 0.1 s, and the two
// descriptors of the wake-up pipe stay open, both as documented.
//
// Threads: one application thread uses the socket, as any other; the workers are the socket's own. They run
// from inside the constructor on. A class derived from this one therefore calls stopThreads() first in its
// destructor, and its replacements of the virtual operations may be called, on a worker, only after its
// constructor has begun: until then the operations of this class run. The workers block all signals. A worker
// reports while it holds a queue's lock: a target of the output streams must not use the socket. After fork()
// the workers are the parent's; a child leaves the socket alone.
class CVNC_API NwAsyncNetSocket : public NwNetSocket {
public:
    // As NwNetSocket's; then both workers start. Prints "Started Asynchronous I/O Thread\n" on NwInfo;
    // "AsyncConnectionMgr::Init bad pipe\n" on NwWarn when there is no wake-up pipe (the send worker then
    // wakes by its time-out). A worker that cannot be started is fatal.
    NwAsyncNetSocket(int port, unsigned char mode, unsigned int device);
    NwAsyncNetSocket(int port, unsigned int addr, unsigned char mode, unsigned int device);
    NwAsyncNetSocket(char* name, int fd, unsigned char mode);
    ~NwAsyncNetSocket() override;

    // Queues a copy and returns len; whether the network takes it later shows in messages only. -1 when len
    // is above INT_MAX or memory does not hold the copy. With asynchronous sending off: directSendTo.
    int sendTo(char* buf, unsigned long len, unsigned int destAddr) override;
    // One datagram from the queue into the receive buffer: its length, or 0 with a null *buf. Datagrams are
    // counted when they are delivered. With asynchronous receiving off and the queue empty: NwNetSocket's.
    int recvFromNet(char** buf) override;

    // --- added after NwNetSocket's virtual operations, in this order ---

    // NwNetSocket::sendTo.
    virtual int directSendTo(char* buf, unsigned long len, unsigned int destAddr);
    virtual bool usingAsyncSend() const;
    virtual void setUsingAsyncSend(bool on);
    virtual bool usingAsyncReceive() const;
    virtual void setUsingAsyncReceive(bool on);
    // The workers' loops and one pass of each, on the workers.
    virtual void workerSendThread();
    virtual void workerReceiveThread();
    virtual void processSendQueue();
    // Moves what the kernel has into the receive queue, up to the first empty datagram. The worker's pass,
    // and any that began with asynchronous receiving on, ends when that is switched off. Messages, unless
    // sockets are quiet: "Network read error " with the system's description,
    // "0 Bytes Read From the Network\n", and, for a datagram that is lost for want of memory,
    // "NwAsyncNetSocket: no memory to queue a datagram of %d bytes\n".
    virtual void processReceiveQueue();

    // Thread entry points: the argument is the socket. They run its loop, and return null.
    static void* runSend(void* socket);
    static void* runReceive(void* socket);

    // The longest time, in seconds, that a worker waits before it looks again (0.01). More than 1 counts as
    // 1, so that no setting delays a socket's end. Assign theQueueTimeout before sockets exist; use the
    // setter while they do.
    static double queueTimeout();
    static void setQueueTimeout(double seconds);
    static double theQueueTimeout;

protected:
    // Ends both workers: the send queue is emptied into the network first. From then on both switches are
    // off, so that what is still sent goes out at once. Safe to repeat.
    void stopThreads();

    typedef std::deque<NwAsyncSocketPacket> Packets;

    std::atomic<bool> myUsingAsyncSend{true};
    std::atomic<bool> myUsingAsyncReceive{true};
    NwThreadSafe<Packets> mySendQueue{Packets()};     // popped by the send worker alone
    NwThreadSafe<Packets> myReceiveQueue{Packets()};  // popped by the application's thread alone
    std::atomic<bool> myStopSend{false};
    std::atomic<bool> myStopReceive{false};
    std::unique_ptr<char[]> myRecvBuffer;  // the receive worker's
    pthread_t mySendThread{};
    pthread_t myReceiveThread{};
    int myPipe[2] = {0, 0};  // read end, write end; meaningful once myPipeExists

private:
    CVNC_LOCAL void initThread();
    CVNC_LOCAL bool canReadAsync() const;
    CVNC_LOCAL bool readOneDatagram();
    CVNC_LOCAL void drainPipe();
    CVNC_LOCAL void wakeSendWorker();

    std::atomic<bool> myPipeExists{false};
    bool mySendWorkerRuns = false;     // application's thread only
    bool myReceiveWorkerRuns = false;  // application's thread only
    // Held while the worker reads and queues, and while the caller reads for itself: what comes from the
    // descriptor first is in the queue, or delivered, before more is read.
    NwMutex myReadLock;
    std::atomic<bool> myWorkerReads{false};  // the receive worker is in, or about to begin, a pass
};

#endif

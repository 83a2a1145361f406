// SPDX-License-Identifier: BSD-3-Clause
// A client of the packet server: one of several applications that share a UDP port on this host.
#ifndef CVNETWORKCOMPATIBILITY_CVCLIENTSOCKET_H
#define CVNETWORKCOMPATIBILITY_CVCLIENTSOCKET_H

#include <cvNetworkCompatibility/cvExport.h>
#include <cvNetworkCompatibility/cvSocket.h>
#include <cvutil/cvInetAddr.h>
#include <cvutil/cvPacketServerMsgs.h>

#include <cstdint>
#include <memory>

class NwNetSocket;
class NwShmMsgQueueReader;

// The identifier of the semaphore set that the latest attach of this process uses.
extern CVNC_API int semid;

// A filter test that the packet server applies for its client. It keeps the same state as its base class, to
// be read back, and tells the server every change; locally everything passes.
//
//     socket.exerciseId().setTest(NwTestInclude, 2, exercises);   // three messages to the server
//
// Each message (one for each value of extendTest) waits while the server has no room, 5 s at most; one that
// does not get through is lost without a word. Used by the socket's thread only.
class CVNC_API NwCsFilterTest : public NwFilterTest {
public:
    // A new test excludes nothing, and the server is told so at once. fd is the client's request socket;
    // filterIndex is an NwCsFilterIndex.
    NwCsFilterTest(int fd, unsigned char filterIndex, unsigned int clientId);
    ~NwCsFilterTest() override;

    // The base's operations, and then: the server empties its list and takes the operator ...
    void setOperator(NwTestOperator newOperator) override;
    // ... a message for each value, in order ...
    void extendTest(int count, unsigned int* newValues) override;
    // ... what is left, sent anew with setTest: there is no message for taking a value away.
    void reduceTest(int count, unsigned int* oldValues) override;
    // True: a packet that the server lets through has passed. (clearList is inherited: it tells nobody.)
    bool evalTest(char* pkt, int offset, NwFilterType type) override;

    // From now on nobody is told: the request socket is about to be closed.
    void cutOff();

protected:
    NwCsFilterMsg msg;

private:
    CVNC_LOCAL void tell(NwCsFilterOp operation, unsigned int value);
};

// A socket of an application that attaches to the packet server of a port on this host. The server owns the
// port, takes datagrams apart, filters for each client, and hands packets over through shared memory; what
// is sent leaves through a UDP socket of the client's own.
//
//     if (NwPacketServerIsAlive(3000) == 1) {                            // cvutil/cvPacketServer.h
//         auto* socket = new NwClientSocket(3000, NwUSE_DEFAULT_IP_ADDR, -1, NwClientSocket::defaultFlags);
//         socket->pduKind().setTest(NwTestInclude, 1, &entityState);     // done by the server
//         char* packet = nullptr;
//         while (!isDone && socket->isOk())
//             if (int length = socket->NwRecv(&packet, nullptr)) use(packet, length);
//         if (socket->isOk()) delete socket;                             // else leave it: see below
//     }
//
// NwNewDfltSocket makes one when there is a server. The filter tests work at the server: accept passes
// everything.
//
// Fatal endings. An attach that fails prints why, and then NwFatalError("ClientSock not ok\n") ends the
// process. So do the operations called guarded below on a socket that is not ok, and the destructor of one: a
// server that goes away leaves a socket that may only be asked isOk(), and that a program which wants to go
// on neither uses nor deletes. If the application's fatal handler returns, a guarded operation has done
// nothing and gives 0, -1 or false. Look at isOk() after each receive.
//
// How it ends otherwise: the server stops (status 0, isOk() false, and a notice is printed), or dismisses
// this client in the same way; a notice of the server that says so releases everything at once; the notify
// socket cannot be read.
//
// To wait for packets: NwRecv blocks until one comes (NwBecomeNonBlocking() changes that); or notifyMe(),
// then select or poll on readFd(), then NwRecv without blocking until it gives nothing, then notifyMe()
// again. Give select a time limit: the descriptor cannot show that a server was killed, NwRecv can.
//
// Messages go to NwInfo and NwWarn, unless sockets are quiet. One thread uses a socket. Not copyable.
class CVNC_API NwClientSocket : public NwSocket {
public:
    // What the library itself reads of the flags; all of them are passed to the server.
    enum : unsigned short {
        defaultFlags = 7,                         // an ordinary client
        nonBlockingFlag = NwCsClientNonBlocking,  // reads start without blocking
        noNotifyFlag = NwCsClientNoNotify,        // no notify socket after the attach: readFd() is -1
        controlOnlyFlag = NwCsClientControlOnly   // no packets, only control requests and their answers
    };

    // Attaches to the server of `port`, and waits up to 5 s for its answer (while the server has no room for
    // requests, up to 5 s for each of them as well). addr is the destination in the sense of NwNetSocket, and
    // the group to join if it is multicast (host byte order). clientArg is the application's own number,
    // passed on.
    NwClientSocket(int port, unsigned int addr, int clientArg, unsigned short flags);
    NwClientSocket(int port, int clientArg, unsigned short flags);  // addr 0
    // Flushes bundles, tells the server, releases everything. Fatal for a socket that is not ok.
    ~NwClientSocket() override;

    // The attach, as the constructors call it, for a socket that is not attached; and the release of all it
    // made, which is fatal when the socket is not ok (after the notify path and the reader are gone). A
    // release after the release is fatal too, and frees nothing twice. The sending socket is never destroyed,
    // as documented. Filter tests that the application still refers to stay until the destructor, and tell
    // nobody any more.
    void init(int port, unsigned int addr, int clientArg, unsigned short flags);
    void cleanup();

    // Guarded. Sends at once through the client's own UDP socket: to addr, or to 127.0.0.1 whatever addr is
    // while the server is in internal mode. Returns what that socket's sendTo returns.
    int sendTo(char* buf, unsigned long len, unsigned int addr) override;

    // Guarded. Takes one message from the queue. A packet: its length, *buf points to it until the next
    // receive or the release, status 1 (a packet of no bytes gives 0, with *buf set). Nothing there, a
    // blocking receive that a signal handler ended, or the server gone (isOk() is false then): 0, status 0. A
    // message of the server for this client, which is printed, or one that is damaged: 0, status -1; call
    // again. *buf is null without a packet. status may be null.
    int NwRecv(char** buf, int* status) override;
    // Copies at most size bytes of the next packet to buf; returns its full length, 0 without one.
    int NwRecv(char* buf, unsigned long size) override;

    // Guarded. Reads do not wait from now on. Returns 0.
    int NwBecomeNonBlocking() override;
    // Guarded. Asks the server for one datagram on readFd() when the next message is in the queue; if it is
    // there by now, the client wakes itself. The next receive takes the datagram away.
    void notifyMe() override;
    void drainNotifySocket();

    // Guarded. True for a group, whether or not the request got through; for an address that is no group
    // (host byte order), "ADDRESS is not a multicast address: Can't subscribe\n" (or "drop") and false.
    // Memberships are the client's own; the server joins for the first and leaves with the last. (The
    // two-argument forms of the base do nothing.)
    bool listenToMulticastGroup(unsigned int group);
    bool dropMulticastGroup(unsigned int group);
    using NwSocket::dropMulticastGroup;
    using NwSocket::listenToMulticastGroup;
    // The time to live of what this client sends. See NwNetSocket.
    int setMcastTtl(int ttl) override;

    // Guarded. Requests to the server: keep packets on this host or not; have all clients told of a test, or
    // pinged; its state and its clients' states, which come back as messages and are printed; stop. Some need
    // permission. disconnectFromServer is what cleanup() calls.
    void setPacketServerExternal();
    void setPacketServerInternal();
    void testClients();
    void pingClients();
    void requestServerState();
    void requestServerCStates();
    void terminatePacketServer();
    void disconnectFromServer();
    // Whether datagrams are taken apart: for this client; asked by a control-only one, for later clients.
    void setPacketServerUnbundling(int on);
    void setUnbundling(int on) override;  // setPacketServerUnbundling
    // Guarded. Whether the server keeps packets on this host, as the queue says now.
    bool isInternal();

    // The source of the packet delivered last (host byte order).
    NwIpv4Addr lastSourceInetAddr() override;
    NwFilterTest& exerciseId() override;
    NwFilterTest& protocolVersion() override;
    NwFilterTest& pduKind() override;
    NwFilterTest& ipAddr() override;
    int readFd() override;   // the notify socket; -1 without one
    int writeFd() override;  // the request socket
    bool isOk() const override;
    // How the server ended the attachment: NwCsNoticeStopped (2) when it stopped in order,
    // NwCsNoticeDismissed (4) when it died or sent this client away; 0 otherwise.
    int endNotice() const { return endNotice_; }

    // The steps of an attach that wait for an answer on the notify socket, 5 s at most. timedRecv reads one
    // datagram of at most size bytes to buf, sets *kind to its first byte (127 until then), and returns its
    // length, or 0 and prints why (but not if another reader was quicker). A descriptor that cannot be read
    // makes the socket not ok. getPsMsg gives buf (room for an NwCsMsg) if a message of that kind came, else
    // null; the server's word that it has no place is no answer, whatever was expected.
    int timedRecv(char* buf, unsigned long size, char* kind);
    NwCsMsg* getPsMsg(NwCsMsg* buf, char expectedKind);
    // Whether the server has said that this client must go; then a notice is printed and everything released.
    // For applications that do not receive: NwRecv does not need it, and after NwRecv has seen the end this
    // is fatal.
    void checkGoAway();
    // Prints a message of the server, and releases everything if it is a notice that the attachment is over
    // (fatal for a socket that is not ok).
    void processControlMsg(NwCsMsg* msg);

protected:
    double timeout;  // seconds to wait for an answer
    std::unique_ptr<NwShmMsgQueueReader> reader;
    NwNetSocket* netSocket;  // never destroyed: meant
    bool notifyPending;
    bool ok;
    int notifyFd;
    int requestFd;
    int clientId;
    std::unique_ptr<NwCsFilterTest> exerciseIdTest;
    std::unique_ptr<NwCsFilterTest> protocolVersionTest;
    std::unique_ptr<NwCsFilterTest> pduKindTest;
    std::unique_ptr<NwCsFilterTest> ipAddrTest;
    NwIpv4Addr addr;
    char notifyPath[160];  // empty once removed
    int port;
    bool internal;  // as the acknowledgement said
    NwIpv4Addr lastSource;
    std::unique_ptr<std::uint64_t[]> recvBuffer;
    void* shmBase;
    std::unique_ptr<NwCsControlReqMsg> controlMsg;
    int recvCapacity;  // of recvBuffer, in units of 8 bytes
    int endNotice_;
    int wakeFd;  // leads to notifyFd, by which this client wakes itself

private:
    CVNC_LOCAL bool attach(int clientArg, unsigned short flags);
    CVNC_LOCAL bool openSockets();
    CVNC_LOCAL bool requestAttach(int clientArg, unsigned short flags, NwCsMsg* answer);
    CVNC_LOCAL void settleNotifySocket(unsigned short flags);
    CVNC_LOCAL bool attachQueue(const NwCsAckMsg& ack, unsigned short flags);
    CVNC_LOCAL void makeFilterTests();
    CVNC_LOCAL int readAnswer(NwCsMsg* buf, char expectedKind);
    CVNC_LOCAL void removeNotifyPath();
    CVNC_LOCAL bool guard();
    CVNC_LOCAL void request(NwCsControlRequest code);
    CVNC_LOCAL bool requestMulticast(NwCsMulticastOp op, unsigned int group, const char* what);
    CVNC_LOCAL void noteEnd(NwCsNoticeCode notice);
    CVNC_LOCAL int deliver(int length, char** buf, int* status);
};

#endif

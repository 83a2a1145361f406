// SPDX-License-Identifier: BSD-3-Clause
// A packet relay: what one TCP connection sends, every connection gets.
#ifndef CVNETWORKCOMPATIBILITY_CVTCPFORWARDER_H
#define CVNETWORKCOMPATIBILITY_CVTCPFORWARDER_H

#include <cvNetworkCompatibility/cvExport.h>
#include <cvNetworkCompatibility/cvTcpSocketMgr.h>
#include <cvutil/cvClock.h>
#include <cvutil/cvList.h>

#include <memory>

// Sends every whole packet that arrives on any of a manager's connections to all of them.
//
//     NwTcpForwarder relay(3000);
//     relay.setSizeOffset(8);                        // DIS: the length is in bytes 8 and 9
//     while (running) {
//         relay.socketMgr()->processConnections();   // newcomers
//         relay.readAndForward(0.02, 0.005);         // at most 20 ms, at most 5 ms for each connection
//     }
//
// The sender gets its own packet back: this is meant, and clients leave out their own. Packets are found by
// their length field (see NwTcpSocket) and not looked into. Within a call the connections are served round
// robin; when its time is up, the next call begins with the first one that was not served. A call never
// waits: with nothing to do it returns after one round, so wait on the descriptors between calls (select,
// poll: the manager's readFd(), each socket's readFd(), and writeFd() of those whose queue is not empty).
//
// A slow receiver delays nobody. What its connection does not take is queued there, up to the socket's
// maxForwarderQueue(), and dropped beyond; without a cap it grows. Set the cap in an addition callback. A
// connection that fails is removed, with its removal callbacks, in the round that finds it; callbacks may
// remove any connection. A derived sendToAll may remove connections too, but neither remove the one that its
// packet came from nor receive on it (a round inside of it would): the packet lies in that socket.
//
// Times are seconds on NwClock's real-time scale. One thread uses a forwarder. Not copyable. The order of the
// virtual operations is part of the binary interface, and so is the order of the fields.
class CVNC_API NwTcpForwarder {
public:
    // Listens on `port`, with sockets of its own making or of the factory's: see NwTcpSocketMgr. Whether that
    // worked, socketMgr()->isOk() tells.
    explicit NwTcpForwarder(int port);
    NwTcpForwarder(NwTcpSocketMgr::SocketFactory factory, void* userData, int port);
    // Deletes the manager, and with it every connection.
    virtual ~NwTcpForwarder();
    NwTcpForwarder(const NwTcpForwarder&) = delete;
    NwTcpForwarder& operator=(const NwTcpForwarder&) = delete;

    // Sends a packet to every connection that is ok, in list order, through its sendTo. Prints "***Received
    // packet with size %d: Forwarding...***\n" on NwDebug first, also for a len of 0, which sends nothing.
    virtual void sendToAll(char* buf, unsigned long len);
    // Serves all connections: at most totalTime seconds in all, at most perSocketTime for one of them each
    // time its turn comes, and at most one turn each. A call overruns by one packet at most. (Times are
    // doubles: a literal 0 is ambiguous.)
    virtual void readAndForward(double totalTime, double perSocketTime);
    // Serves one connection until it has no whole packet left or the absolute time `deadline` has come:
    // flushes it, receives a packet, and passes it to sendToAll, again and again. Past the deadline nothing
    // is done at all. Null: "readAndForward: no socket.\n" on NwWarn.
    virtual void readAndForward(NwTcpSocket* socket, double deadline);

    // The manager: the forwarder's, for processConnections(), callbacks and settings.
    virtual NwTcpSocketMgr* socketMgr();
    // The manager's settings of the same names: for connections accepted later.
    virtual int sizeLength();
    virtual int sizeOffset();
    virtual void setSizeLength(int length);
    virtual void setSizeOffset(int offset);

protected:
    std::unique_ptr<NwTcpSocketMgr> socketMgr_;
    NwListPosition nextSocket;  // where the next round starts; at the end: with the first
    NwClock clock;
    NwList* sockets;                // the manager's list
    const NwListPosition* serving;  // the connection whose turn it is; null outside of a round

private:
    CVNC_LOCAL explicit NwTcpForwarder(NwTcpSocketMgr* manager);

    CVNC_LOCAL void serve(const NwListPosition& current, double end);
    CVNC_LOCAL NwListItem* itemOf(const NwTcpSocket* socket) const;
};

#endif

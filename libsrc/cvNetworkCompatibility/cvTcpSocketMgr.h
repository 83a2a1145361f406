// SPDX-License-Identifier: BSD-3-Clause
// The server side of TCP: a listening socket, and the connections accepted on it.
#ifndef CVNETWORKCOMPATIBILITY_CVTCPSOCKETMGR_H
#define CVNETWORKCOMPATIBILITY_CVTCPSOCKETMGR_H

#include <cvNetworkCompatibility/cvExport.h>
#include <cvutil/cvInetAddr.h>
#include <cvutil/cvList.h>

class NwSocket;
class NwTcpSocket;

// A function to call for a socket, and what to pass along. Equal when both members are.
struct CVNC_API NwSocketCbInfo {
    typedef void (*Callback)(NwTcpSocket* socket, void* userData);

    NwSocketCbInfo(Callback newCallback, void* newUserData);

    Callback callback;
    void* userData;        // the application's
    unsigned long number;  // of the registration; the manager counts
};

// Listens on a port and holds the connections that came in.
//
//     NwTcpSocketMgr manager(3000);
//     manager.setSizeOffset(8);                              // DIS
//     manager.addSocketAdditionCallback(greet, nullptr);     // void greet(NwTcpSocket*, void*)
//     while (running) {
//         manager.processConnections();                      // accepts what is pending; never waits
//         for (NwListItem* item = manager.socketList()->first(); item; item = item->next())
//             serve(static_cast<NwTcpSocket*>(item->data()));
//     }
//
// The manager owns the sockets. It does not watch them: whoever serves them looks at isOk() and calls
// removeAndDelete. NwTcpForwarder and NwFileTransporter are such owners.
//
// Callbacks run on the thread that calls, in the order of their registration. Inside one, callbacks may be
// registered and unregistered and any socket may be removed, its own included; only the manager itself must
// stay. What is registered during a walk over the callbacks takes part from the next socket on; what is
// unregistered is not called any more; a socket that a callback removed is not shown to those behind it.
//
// The manager prints also while sockets are quiet. One thread uses a manager and its sockets. Not copyable.
// The order of the virtual operations is part of the binary interface, and so is the order of the fields.
class CVNC_API NwTcpSocketMgr {
public:
    typedef NwSocketCbInfo::Callback Callback;
    typedef NwSocket* (*SocketFactory)(void* userData, NwTcpSocketMgr* manager);

    // Listens on `port` of every local address. On failure isOk() is 0 and the manager is inert: with
    // addrInUse() 1 and no message when the port is taken, else with "NwSocketMgr Constructor:" and the
    // system's words. "Failed to open socket\n" (on NwWarn) and "Error setting SO_REUSEADDR\n" (on NwInfo)
    // may come before. Port 0 lets the system choose one; getsockname() on readFd() tells which.
    explicit NwTcpSocketMgr(int port);
    // The same with a factory: factory(userData, this) makes the socket of each connection, from
    // currentSockFd() and currentClientAddr(). It returns a new NwTcpSocket, or one derived from it, that
    // owns that descriptor; anything else is deleted, the descriptor closed, and "NwTcpSocketMgr: no socket
    // for a connection\n" printed. A deliberate difference: here SO_REUSEADDR is not set, so the port may
    // stay taken for a minute after an earlier owner.
    NwTcpSocketMgr(SocketFactory factory, void* userData, int port);
    // Stops listening, removes every socket (oldest first, with its callbacks), then forgets the callbacks.
    virtual ~NwTcpSocketMgr();
    NwTcpSocketMgr(const NwTcpSocketMgr&) = delete;
    NwTcpSocketMgr& operator=(const NwTcpSocketMgr&) = delete;

    // Accepts every pending connection: makes its socket, applies the settings below, appends it to the list
    // and calls the addition callbacks. Other errors of accept() than "nothing pending" print "TcpSocket
    // accept error: " with the system's words, and accept() is called again at once. This is meant, and
    // without descriptors it goes on until there is one: keep connections below the limit. Only a
    // descriptor that can never accept ends the call. A connection for which there is no memory is closed:
    // "NwTcpSocketMgr: no memory for a connection\n".
    virtual void processConnections();

    // 1 once the port is bound, until the destructor; 0 when construction failed.
    virtual int isOk() const;
    // 1 when construction failed because the port was taken.
    virtual int addrInUse() const;
    // Address (host byte order) and descriptor of the connection accepted last; 0 before the first. The port
    // is always 0, a deliberate oddity: ask the socket's peerPort().
    virtual NwIpv4Addr currentClientAddr() const;
    virtual int currentClientPort() const;
    virtual int currentSockFd() const;
    // The sockets (NwTcpSocket*), oldest first: the live list, the manager's. Entries leave it through
    // removeAndDelete only; keep a place in it as an NwListPosition.
    virtual NwList* socketList();

    // Called for each socket that joins, when it is set up and listed; and for each that goes, while it is
    // still usable and listed. A pair may be registered more than once and is called that often;
    // unregistering takes away the first match. userData is passed on and never looked at. Without memory
    // nothing is registered: "NwTcpSocketMgr: no memory for a callback\n".
    virtual void addSocketAdditionCallback(Callback callback, void* userData);
    virtual void removeSocketAdditionCallback(Callback callback, void* userData);
    virtual void addSocketRemovalCallback(Callback callback, void* userData);
    virtual void removeSocketRemovalCallback(Callback callback, void* userData);

    // Where packets have their length and how wide it is (see NwTcpSocket), for sockets accepted later. Not
    // checked here. 0 and 2 at the start.
    virtual int sizeOffset();
    virtual int sizeLength();
    virtual void setSizeOffset(int offset);
    virtual void setSizeLength(int length);
    // Bundling (bytes, at most INT_MAX; 0: none) for every socket: those in the list are flushed and changed
    // now. Sockets accepted later get setUnbundling(1) too when it is not 0.
    virtual void setPacketBundling(unsigned int size);
    // Unregisters every callback.
    virtual void emptyCallbackLists();

    // NwTcpSocket::setNoDelay for every socket, now and later; on at the start. The listening descriptor gets
    // no-delay whatever `on` says.
    void setNoDelay(bool on);
    // Calls the removal callbacks, takes the socket out of the list and deletes it. Nothing happens for one
    // that is not in the list, or whose removal is under way.
    void removeAndDelete(NwTcpSocket* socket);
    // The listening descriptor, to wait on for connections (select, poll); -1 if there is none.
    int readFd() const;

protected:
    int listenFd;
    int sizeOffset_;
    int sizeLength_;
    int currentSockFd_;
    NwIpv4Addr currentClientAddr_;
    int currentClientPort_;
    NwList socketList_;  // of NwTcpSocket*, owned
    int ok;
    int addrInUse_;
    bool noDelay;
    unsigned int packetBundling;  // bytes; 0: none
    SocketFactory socketFactory;
    void* factoryData;
    NwList additionCallbacks;  // of NwSocketCbInfo*, owned
    NwList removalCallbacks;   // the same

private:
    struct Removal;

    CVNC_LOCAL NwTcpSocketMgr(SocketFactory factory, void* userData);
    CVNC_LOCAL void listen(int port);
    CVNC_LOCAL void addConnection();
    CVNC_LOCAL NwTcpSocket* makeSocket();
    CVNC_LOCAL NwListItem* itemOf(const NwTcpSocket* socket) const;

    Removal* removals;  // those under way, innermost first
    unsigned long registrations;
};

#endif

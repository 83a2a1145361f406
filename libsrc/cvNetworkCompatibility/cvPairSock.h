// SPDX-License-Identifier: BSD-3-Clause
// A socket over one end of a Unix datagram pair: packets to a peer in this process, or across fork().
#ifndef CVNETWORKCOMPATIBILITY_CVPAIRSOCK_H
#define CVNETWORKCOMPATIBILITY_CVPAIRSOCK_H

#include <cvNetworkCompatibility/cvExport.h>
#include <cvNetworkCompatibility/cvSocket.h>

// One end of a Unix-domain datagram pair, made here or brought along.
//
//     NwSocketPairSocket parent;
//     NwSocketPairSocket child(parent.peerDescriptor());
//     parent.NwSend(pdu, 144, NwUSE_DEFAULT_IP_ADDR);
//     char* packet = nullptr;
//     int length = child.NwRecv(&packet, nullptr);
//
// Destination addresses are ignored. Datagrams keep their bounds, arrive in order and are never lost: a
// send to a full peer waits, or fails with EAGAIN once NwBecomeNonBlocking() was called. The descriptors
// are never closed here: they are often shared across fork(). One thread uses a socket at a time.
class CVNC_API NwSocketPairSocket : public NwSocket {
public:
    // Makes a pair: one end for this object, the other for whoever gets peerDescriptor(). A failure is
    // NwFatalPerror("socketpair:"), except while sockets are quiet: then the descriptors stay -1.
    NwSocketPairSocket();
    // Wraps one end that the caller has.
    explicit NwSocketPairSocket(int descriptor);
    ~NwSocketPairSocket() override;

    // Returns what send() returns: the bytes sent, or -1 with errno. Nothing is printed. addr is ignored.
    int sendTo(char* buf, unsigned long len, unsigned int addr) override;

    // Lends a packet of up to 1500 bytes, longer ones cut to that. Status 1 for a delivered packet, 0 for
    // none (or an error), -2 for a refused one. A zero-length datagram gives 0, a null *buf and status 1.
    int NwRecv(char** buf, int* status) override;
    // Copies at most len bytes; returns the number copied, so a longer packet is cut without a sign. The
    // filter tests look at what the lending form received last, not at this packet: a deliberate oddity.
    int NwRecv(char* buf, unsigned long len) override;
    // recv() into buf, then the filter tests (see above). status may be null.
    int recvWithStatus(char* buf, unsigned long len, int* status);

    // Replaces the descriptor's status flags by O_NONBLOCK, for everyone who shares it. A failure is
    // NwFatalPerror("non-blocking"), unless sockets are quiet.
    int NwBecomeNonBlocking() override;
    int readFd() override;
    int writeFd() override;

    // The other end: for a socket of this class in this process, or for the other side of a fork(). 0 when
    // this object wraps a given descriptor, -1 when no pair could be made. The caller's to use and to close.
    int peerDescriptor() const { return peerFd; }

protected:
    int fd;      // -1 while there is none
    int peerFd;  // 0 is a mark: a given descriptor is wrapped
    char buffer[1500];
};

#endif

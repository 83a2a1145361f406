// SPDX-License-Identifier: BSD-3-Clause
// The forwarder. Any connection may go while any other is served (callbacks remove sockets), so every place
// in the list that outlives a call is an NwListPosition, which moves on by itself.
#include <cvNetworkCompatibility/cvTcpForwarder.h>

#include <cvNetworkCompatibility/cvTcpSocket.h>

#include <cvutil/cvMath.h>
#include <cvutil/cvOutput.h>

namespace {

NwTcpSocket* socketAt(const NwListPosition& position) {
    return static_cast<NwTcpSocket*>(position.item()->data());
}

}  // namespace

NwTcpForwarder::NwTcpForwarder(int port) : NwTcpForwarder(new NwTcpSocketMgr(port)) {}

NwTcpForwarder::NwTcpForwarder(NwTcpSocketMgr::SocketFactory factory, void* userData, int port)
    : NwTcpForwarder(new NwTcpSocketMgr(factory, userData, port)) {}

NwTcpForwarder::NwTcpForwarder(NwTcpSocketMgr* manager)
    : socketMgr_(manager),
      nextSocket(*manager->socketList()),
      sockets(manager->socketList()),
      serving(nullptr) {}

NwTcpForwarder::~NwTcpForwarder() {
    delete socketMgr_.get();  // its removal callbacks may still ask for it: a reset() would show them null
    (void)socketMgr_.release();
}

void NwTcpForwarder::sendToAll(char* buf, unsigned long len) {
    if (NwDebug.okToPrint())
        NwDebug("***Received packet with size %d: Forwarding...***\n", static_cast<int>(len));
    if (len == 0) return;
    NwListPosition next(*sockets, sockets->first());
    while (next.item()) {
        NwTcpSocket* socket = socketAt(next);
        next.advance();
        if (socket->isOk()) socket->sendTo(buf, len, 0u);
    }
}

void NwTcpForwarder::readAndForward(NwTcpSocket* socket, double deadline) {
    if (!socket) {
        NwWarn("readAndForward: no socket.\n");
        return;
    }
    // Whether the socket still stands is known while it is in the list; another one is the caller's to keep.
    const bool hasTurn = serving && serving->item() && socketAt(*serving) == socket;
    const NwListPosition own(*sockets, hasTurn ? serving->item() : itemOf(socket));
    while (deadline > clock.absRealTime()) {
        socket->flush();
        char* packet = nullptr;
        const int length = socket->NwRecv(&packet, nullptr);
        if (length <= 0) return;
        sendToAll(packet, static_cast<unsigned long>(length));
        if (own.hasMoved()) return;
    }
}

// From the start to the end of the list, then from its first to the start. Only behind the end does coming to
// the start mean that the cycle is full: a start that is removed moves on, perhaps to one not served yet.
void NwTcpForwarder::readAndForward(double totalTime, double perSocketTime) {
    const double end = clock.absRealTime() + totalTime;
    if (!sockets->first()) return;
    if (!nextSocket.item()) nextSocket.set(sockets->first());
    NwListPosition position(*sockets, nextSocket.item());
    bool isBehindTheEnd = false;
    bool isFull = false;
    do {
        const NwListPosition current(*sockets, position.item());
        position.advance();
        serve(current, NwMin(clock.absRealTime() + perSocketTime, end));
        if (!position.item() && !isBehindTheEnd) {
            isBehindTheEnd = true;
            position.set(sockets->first());
        }
        isFull = isBehindTheEnd && position.item() == nextSocket.item();
    } while (!isFull && position.item() && end > clock.absRealTime());
    nextSocket.set(position.item());
}

// One connection's turn; afterwards it is gone if it is no longer ok.
void NwTcpForwarder::serve(const NwListPosition& current, double end) {
    NwTcpSocket* socket = socketAt(current);
    const NwListPosition* outer = serving;
    serving = &current;
    if (socket->isOk()) readAndForward(socket, end);
    serving = outer;
    if (!current.hasMoved() && !socket->isOk()) socketMgr_->removeAndDelete(socket);
}

NwListItem* NwTcpForwarder::itemOf(const NwTcpSocket* socket) const {
    NwListItem* item = sockets->first();
    while (item && item->data() != socket) item = item->next();
    return item;
}

NwTcpSocketMgr* NwTcpForwarder::socketMgr() {
    return socketMgr_.get();
}

int NwTcpForwarder::sizeLength() {
    return socketMgr_->sizeLength();
}

int NwTcpForwarder::sizeOffset() {
    return socketMgr_->sizeOffset();
}

void NwTcpForwarder::setSizeLength(int length) {
    socketMgr_->setSizeLength(length);
}

void NwTcpForwarder::setSizeOffset(int offset) {
    socketMgr_->setSizeOffset(offset);
}

// SPDX-License-Identifier: BSD-3-Clause
// The TCP socket manager. Callbacks may change every list that a walk is passing through, so walks keep their
// place as NwListPosition and never hold an item across a call.
#include <cvNetworkCompatibility/cvTcpSocketMgr.h>

#include <cvNetworkCompatibility/cvNetSocket.h>
#include <cvNetworkCompatibility/cvTcpSocket.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include <cvutil/cvOutput.h>

namespace {

NwTcpSocket* socketAt(const NwListItem* item) {
    return static_cast<NwTcpSocket*>(item->data());
}

NwSocketCbInfo* callbackAt(const NwListItem* item) {
    return static_cast<NwSocketCbInfo*>(item->data());
}

void addCallback(NwList& list, NwSocketCbInfo::Callback callback, void* userData, unsigned long number) {
    NwSocketCbInfo* info = new (std::nothrow) NwSocketCbInfo(callback, userData);
    if (info) info->number = number;
    if (info && list.addToEnd(info)) return;
    delete info;
    NwWarn("NwTcpSocketMgr: no memory for a callback\n");
}

void removeCallback(NwList& list, NwSocketCbInfo::Callback callback, void* userData) {
    for (NwListItem* item = list.first(); item; item = item->next()) {
        NwSocketCbInfo* info = callbackAt(item);
        if (info->callback != callback || info->userData != userData) continue;
        list.remove(item);
        delete info;
        return;
    }
}

void emptyCallbacks(NwList& list) {
    while (NwListItem* item = list.first()) {
        delete callbackAt(item);
        list.remove(item);
    }
}

// Shows the socket at `socket` to every callback up to the registration `last`, until one removes it. Those
// registered meanwhile wait for the next socket: without this bound, one that registers itself anew would be
// called for ever.
void callAll(NwList& list, unsigned long last, const NwListPosition& socket) {
    NwListPosition next(list, list.first());
    while (next.item() && callbackAt(next.item())->number <= last && !socket.hasMoved()) {
        const NwSocketCbInfo info = *callbackAt(next.item());
        next.advance();
        info.callback(socketAt(socket.item()), info.userData);
    }
}

// Whether accept() can never succeed on this descriptor, whatever changes around it.
bool isNoListener(int error) {
    return error == EBADF || error == EINVAL || error == ENOTSOCK;
}

}  // namespace

NwSocketCbInfo::NwSocketCbInfo(Callback newCallback, void* newUserData)
    : callback(newCallback), userData(newUserData), number(0) {}

// A removal under way: removing the same socket again, from a callback, does nothing.
struct NwTcpSocketMgr::Removal {
    NwTcpSocket* socket;
    Removal* outer;
};

// --- listening -------------------------------------------------------------------------------------------

NwTcpSocketMgr::NwTcpSocketMgr(int port) : NwTcpSocketMgr(nullptr, nullptr) {
    const int on = 1;
    if (::setsockopt(listenFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)
        NwInfo("Error setting SO_REUSEADDR\n");
    listen(port);
}

// Meant: here the address is not made reusable.
NwTcpSocketMgr::NwTcpSocketMgr(SocketFactory factory, void* userData, int port)
    : NwTcpSocketMgr(factory, userData) {
    listen(port);
}

// Whatever the descriptor is, the next steps report what follows from it.
NwTcpSocketMgr::NwTcpSocketMgr(SocketFactory factory, void* userData)
    : listenFd(::socket(AF_INET, SOCK_STREAM, 0)),
      sizeOffset_(0),
      sizeLength_(2),
      currentSockFd_(0),
      currentClientAddr_(0),
      currentClientPort_(0),
      ok(0),
      addrInUse_(0),
      noDelay(true),
      packetBundling(0),
      socketFactory(factory),
      factoryData(userData),
      removals(nullptr),
      registrations(0) {
    if (listenFd < 0) NwWarn("Failed to open socket\n");
}

void NwTcpSocketMgr::listen(int port) {
    sockaddr_in local;
    NwNetSocket::setInetAddr(local, NwInetAddrAny, port);
    if (::bind(listenFd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
        if (errno == EADDRINUSE)
            addrInUse_ = 1;
        else
            NwWarnPerror("NwSocketMgr Constructor:");
        return;  // the descriptor stays open until the destructor: meant
    }
    setNoDelay(true);
    ok = 1;
    ::listen(listenFd, 1024);  // its result is ignored: meant
    NwNetSocket::makeNonBlocking(listenFd);
}

NwTcpSocketMgr::~NwTcpSocketMgr() {
    ::close(listenFd);
    listenFd = -1;
    ok = 0;  // a callback that calls processConnections finds nothing to do
    while (NwListItem* item = socketList_.first()) removeAndDelete(socketAt(item));
    NwTcpSocketMgr::emptyCallbackLists();
}

// --- connections -----------------------------------------------------------------------------------------

void NwTcpSocketMgr::processConnections() {
    if (!isOk()) return;
    for (;;) {
        sockaddr_in peer = sockaddr_in();
        socklen_t size = sizeof peer;
        const int fd = ::accept(listenFd, reinterpret_cast<sockaddr*>(&peer), &size);
        if (fd == -1) {
            const int error = errno;
            if (error == EAGAIN || error == EWOULDBLOCK) return;
            NwWarnPerror("TcpSocket accept error: ");
            if (isNoListener(error)) return;
            continue;  // meant: again at once, whatever the error
        }
        currentSockFd_ = fd;
        currentClientAddr_ = ntohl(peer.sin_addr.s_addr);
        addConnection();
    }
}

// Makes, lists and announces the socket of the connection just accepted.
void NwTcpSocketMgr::addConnection() {
    NwTcpSocket* socket = makeSocket();
    if (!socket) return;
    socket->setNoDelay(noDelay);
    socket->setSizeLength(sizeLength_);
    socket->setSizeOffset(sizeOffset_);
    if (packetBundling) {
        socket->setBundling(static_cast<int>(packetBundling));
        socket->setUnbundling(1);
    }
    NwListItem* item = socketList_.addToEnd(socket);
    if (!item) {
        delete socket;
        NwWarn("NwTcpSocketMgr: no memory for a connection\n");
        return;
    }
    callAll(additionCallbacks, registrations, NwListPosition(socketList_, item));
}

NwTcpSocket* NwTcpSocketMgr::makeSocket() {
    const int fd = currentSockFd_;
    if (!socketFactory) {
        NwTcpSocket* socket = new (std::nothrow) NwTcpSocket(fd, currentClientAddr_, 0);
        if (socket) return socket;
        NwWarn("NwTcpSocketMgr: no memory for a connection\n");
        ::close(fd);
        return nullptr;
    }
    struct stat accepted = {}, now = {};
    ::fstat(fd, &accepted);
    NwSocket* made = socketFactory(factoryData, this);
    if (NwTcpSocket* socket = dynamic_cast<NwTcpSocket*>(made)) return socket;
    NwWarn("NwTcpSocketMgr: no socket for a connection\n");
    delete made;
    // The factory, or what it made, may have closed it; its number can lead to something else by now.
    if (::fstat(fd, &now) == 0 && now.st_dev == accepted.st_dev && now.st_ino == accepted.st_ino) ::close(fd);
    return nullptr;
}

NwListItem* NwTcpSocketMgr::itemOf(const NwTcpSocket* socket) const {
    NwListItem* item = socketList_.first();
    while (item && socketAt(item) != socket) item = item->next();
    return item;
}

void NwTcpSocketMgr::removeAndDelete(NwTcpSocket* socket) {
    NwListItem* item = itemOf(socket);
    if (!item) return;
    for (const Removal* removal = removals; removal; removal = removal->outer)
        if (removal->socket == socket) return;
    Removal removal = {socket, removals};
    removals = &removal;
    callAll(removalCallbacks, registrations, NwListPosition(socketList_, item));
    removals = removal.outer;
    socketList_.remove(item);
    delete socket;
}

// --- callbacks -------------------------------------------------------------------------------------------

void NwTcpSocketMgr::addSocketAdditionCallback(Callback callback, void* userData) {
    addCallback(additionCallbacks, callback, userData, ++registrations);
}

void NwTcpSocketMgr::removeSocketAdditionCallback(Callback callback, void* userData) {
    removeCallback(additionCallbacks, callback, userData);
}

void NwTcpSocketMgr::addSocketRemovalCallback(Callback callback, void* userData) {
    addCallback(removalCallbacks, callback, userData, ++registrations);
}

void NwTcpSocketMgr::removeSocketRemovalCallback(Callback callback, void* userData) {
    removeCallback(removalCallbacks, callback, userData);
}

void NwTcpSocketMgr::emptyCallbackLists() {
    emptyCallbacks(additionCallbacks);
    emptyCallbacks(removalCallbacks);
}

// --- settings and queries ----------------------------------------------------------------------------------

void NwTcpSocketMgr::setNoDelay(bool on) {
    NwTcpSocket::setNoDelay(listenFd, true);  // meant: whatever `on` says
    noDelay = on;
    NwListPosition next(socketList_, socketList_.first());
    while (const NwListItem* item = next.item()) {
        next.advance();
        socketAt(item)->setNoDelay(on);
    }
}

void NwTcpSocketMgr::setPacketBundling(unsigned int size) {
    packetBundling = size;
    NwListPosition next(socketList_, socketList_.first());
    while (NwListItem* item = next.item()) {
        const NwListPosition current(socketList_, item);
        next.advance();
        socketAt(item)->flush();
        if (current.hasMoved()) continue;
        socketAt(item)->setBundling(static_cast<int>(size));  // unbundling stays as it is: meant
    }
}

int NwTcpSocketMgr::sizeOffset() {
    return sizeOffset_;
}

int NwTcpSocketMgr::sizeLength() {
    return sizeLength_;
}

void NwTcpSocketMgr::setSizeOffset(int offset) {
    sizeOffset_ = offset;
}

void NwTcpSocketMgr::setSizeLength(int length) {
    sizeLength_ = length;
}

int NwTcpSocketMgr::isOk() const {
    return ok;
}

int NwTcpSocketMgr::addrInUse() const {
    return addrInUse_;
}

NwIpv4Addr NwTcpSocketMgr::currentClientAddr() const {
    return currentClientAddr_;
}

int NwTcpSocketMgr::currentClientPort() const {
    return currentClientPort_;
}

int NwTcpSocketMgr::currentSockFd() const {
    return currentSockFd_;
}

NwList* NwTcpSocketMgr::socketList() {
    return &socketList_;
}

int NwTcpSocketMgr::readFd() const {
    return ok ? listenFd : -1;
}

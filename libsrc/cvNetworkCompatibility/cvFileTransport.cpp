// SPDX-License-Identifier: BSD-3-Clause
// The file transporter. A receive holds the caller until its file is there, and callbacks may come back in
// through tick(), so receptions nest: each knows its own connection and its own transfers, and no connection
// is removed while a receive is using it.
#include <cvNetworkCompatibility/cvFileTransport.h>

#include <cvNetworkCompatibility/cvTcpSocket.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cassert>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <new>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>

#include <cvutil/cvByteOrder.h>
#include <cvutil/cvClock.h>
#include <cvutil/cvInetAddr.h>
#include <cvutil/cvMath.h>
#include <cvutil/cvOutput.h>

#include "cvSetting.h"

double NwFileTransporter::theSendStallLimit = 30.0;
double NwFileTransporter::theReceiveStallLimit = 0.0;

namespace {

// The messages' fields: the first message has all of them, later ones end with the identifier.
const int kLengthField = 0;
const int kIdentifierField = 4;
const int kFileSizeField = 8;
const int kDataSizeField = 12;
const int kFlagsField = 16;
const int kNameField = 20;
const int kLaterHeader = 8;

const int kMaxPort = 65535;                 // a socket address would take a larger number modulo 65536
const int kPollMilliseconds = 100;          // how often a stall is looked for
const std::size_t kGrowingBytes = 1 << 20;  // see keep()
const std::size_t kMostTransfers = 1000;    // that one connection may have open

// Added to each identifier, so that transfers of one second differ.
std::atomic<unsigned int> gNumFiles(0);

unsigned int fieldAt(const char* message, int offset) {
    return *reinterpret_cast<const NwNetU32*>(message + offset);
}

void setField(char* message, int offset, unsigned int value) {
    *reinterpret_cast<NwNetU32*>(message + offset) = value;
}

// Prints a line whole, with its end, and flushes the stream. Needs no memory.
void warnLine(const char* line) {
    NwWarn("%s\n", line);
    NwWarn << std::flush;
}

void warnLine(const std::ostringstream& line) {
    warnLine(line.str().c_str());
}

// The same for a text and a name; without the name when memory has ended.
void warnFile(const char* text, const NwFilename& file) try {
    std::ostringstream line;
    line << text << file;
    warnLine(line);
} catch (const std::bad_alloc&) {
    warnLine(text);
}

void waitFor(int fd, short events) {
    pollfd wanted = {fd, events, 0};
    ::poll(&wanted, 1, kPollMilliseconds);
}

// Whether nothing has happened for too long. The clock is only looked at while waiting.
class StallWatch {
public:
    explicit StallWatch(double limit) : myLimit(limit), myIsWaiting(false) {}

    void progress() { myIsWaiting = false; }

    bool isOver() {
        if (!(myLimit > 0)) return false;
        if (!myIsWaiting) myClock.init();
        myIsWaiting = true;
        return myClock.elapsedRealTime() >= myLimit;
    }

private:
    const double myLimit;
    bool myIsWaiting;
    NwClock myClock;
};

// A descriptor that is closed at the end of its block.
class Descriptor {
public:
    explicit Descriptor(int fd) : myFd(fd) {}
    ~Descriptor() {
        if (myFd >= 0) ::close(myFd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return myFd; }

private:
    const int myFd;
};

// False when another process that bound the port at the same moment was quicker to listen.
bool isListening(int fd) {
    int on = 0;
    socklen_t size = sizeof on;
    return ::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &on, &size) == 0 && on;
}

// Whether the peer has closed and nothing waits to be read.
bool isClosedByPeer(int fd) {
    char byte;
    return ::recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

int openDirectory(const NwFilename& directory) {
    const char* path = directory.length() ? directory.c_str() : ".";
    return ::open(path, O_PATH | O_DIRECTORY | O_CLOEXEC);
}

// Opens a regular file for reading. A pipe of that name, were it put there this very moment, would hold the
// stream's own open until somebody writes: so the stream opens what has been looked at.
void openFile(const char* path, std::ifstream& in) {
    const Descriptor file(::open(path, O_PATH | O_CLOEXEC));
    struct stat status;
    if (file.get() < 0 || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return;
    char same[32];
    std::snprintf(same, sizeof same, "/proc/self/fd/%d", file.get());
    in.open(same, std::ios::in | std::ios::binary);
    if (!in.is_open()) in.open(path, std::ios::in | std::ios::binary);  // where there is no /proc
}

// Opens a regular file for writing from its start, made if need be. -1 for anything else of that name;
// nothing that is there is followed, waited for or changed then.
int createFile(int directory, const char* name) {
    if (std::strchr(name, '/')) return -1;  // would be opened outside the directory
    const int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const int fd = ::openat(directory, name, flags, 0666);
    if (fd < 0) return -1;
    struct stat status;
    if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && ::ftruncate(fd, 0) == 0) return fd;
    ::close(fd);
    return -1;
}

// Removes a file that was written in part, unless something else has its name by now.
void removePartial(int directory, const char* name, int fd) {
    struct stat written, named;
    if (::fstat(fd, &written) == 0 && ::fstatat(directory, name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
        written.st_dev == named.st_dev && written.st_ino == named.st_ino)
        ::unlinkat(directory, name, 0);
}

bool writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

// The name in a first message of `length` bytes, or null: it must end inside the message.
const char* nameIn(const char* message, int length) {
    if (length <= kNameField) return nullptr;
    const char* name = message + kNameField;
    return std::memchr(name, '\0', static_cast<std::size_t>(length - kNameField)) ? name : nullptr;
}

// Whether the transfer has the bytes that it announces: one that a derived class hands over may not.
bool isWhole(const NwFileTransportObject& obj) {
    return obj.dataSize >= 0 && obj.dataSize <= static_cast<std::int64_t>(obj.data.size());
}

bool isFileName(const NwFilename& name) {
    return name.length() && name != "." && name != "..";
}

// Reads the fields of a first message into the transfer. Returns where the data start, 0 for a message that
// is none.
int readHeader(NwFileTransportObject& obj, const char* message, int length) {
    const char* name = nameIn(message, length);
    if (!name) return 0;
    obj.fileName = NwFilename(name).stripPath();
    if (!isFileName(obj.fileName)) return 0;
    obj.headerSeen = true;
    obj.fileSize = fieldAt(message, kFileSizeField);
    obj.dataSize = fieldAt(message, kDataSizeField);
    obj.flags = static_cast<NwFileTransporter::NwFileTransportFlags>(fieldAt(message, kFlagsField));
    return kNameField + static_cast<int>(std::strlen(name)) + 1;
}

// Keeps a transfer's next bytes. Memory is used as bytes arrive: an announcement costs none. Once so many are
// there that growing would copy a lot, room for the whole file is set aside, as address space.
void keep(NwFileTransportObject& obj, const char* bytes, int count) {
    if (obj.data.size() + static_cast<std::size_t>(count) > kGrowingBytes)
        obj.data.reserve(static_cast<std::size_t>(obj.dataSize) + 1);
    obj.data.insert(obj.data.end(), bytes, bytes + count);
    obj.bytesReceived += count;
    if (obj.bytesReceived == obj.dataSize) obj.data.push_back('\0');
}

const char* const kMalformed = "FileTransporter: malformed message-Exiting transfer";
const char* const kNoMemory = "FileTransporter: no memory-Exiting transfer";
const char* const kNoProgress = "FileTransporter: no progress-Exiting transfer";
const char* const kReadingFailed = "Corvane(NwFileTransporter) error reading file ";  // meant: no colon
const char* const kSocketError = "FileTransporter: Socket error-Exiting transfer";

}  // namespace

// --- a file on its way in --------------------------------------------------------------------------------

NwFileTransportObject::NwFileTransportObject()
    : identifier(0),
      fileSize(0),
      dataSize(0),
      bytesReceived(0),
      flags(NwFileTransporter::NwFileTransportPlain),
      headerSeen(false) {}

NwFileTransportObject::NwFileTransportObject(const NwFileTransportObject&) = default;
NwFileTransportObject& NwFileTransportObject::operator=(const NwFileTransportObject&) = default;
NwFileTransportObject::~NwFileTransportObject() = default;

// --- construction ----------------------------------------------------------------------------------------

NwFileTransporter::NwFileTransporter(int port, bool searchPorts, int portRange,
                                     const NwFilename& newTargetDir, int* portOut)
    : myPort(port), sendComplete(false), receptions(nullptr) {
    setTargetDirectory(newTargetDir);
    search(searchPorts, portRange);
    if (mySocketMgr) mySocketMgr->addSocketAdditionCallback(receiveFileCb, this);
    if (portOut) *portOut = myPort;
}

// Listens on the first port that can be had; leaves no manager and port -1 behind if there is none.
void NwFileTransporter::search(bool searchPorts, int portRange) {
    const long firstPort = myPort;
    const int tries = searchPorts ? portRange : 1;
    const long end = NwMin(firstPort + tries, kMaxPort + 1L);
    for (long port = NwMax(firstPort, 0L); port < end; ++port) {
        mySocketMgr.reset(new NwTcpSocketMgr(static_cast<int>(port)));
        assert(mySocketMgr);
        if (mySocketMgr->isOk() && !mySocketMgr->addrInUse() && isListening(mySocketMgr->readFd())) {
            sockaddr_in bound = sockaddr_in();
            socklen_t size = sizeof bound;
            ::getsockname(mySocketMgr->readFd(), reinterpret_cast<sockaddr*>(&bound), &size);
            myPort = ntohs(bound.sin_port);
            return;
        }
        mySocketMgr.reset();
    }
    myPort = -1;
    if (tries > 0) return;
    std::ostringstream line;
    line << "Corvane(NwFileTransporter) Could not find a free port in range " << firstPort << " to "
         << firstPort + portRange;
    warnLine(line);
}

NwFileTransporter::~NwFileTransporter() {
    if (!mySocketMgr) return;
    mySocketMgr->removeSocketAdditionCallback(receiveFileCb, this);
    mySocketMgr.reset();
}

// --- receiving -------------------------------------------------------------------------------------------

// A connection that is being received from: its message buffer and the transfers that it began.
struct NwFileTransporter::Reception {
    Reception(NwFileTransporter& newOwner, NwTcpSocket& newSocket)
        : owner(newOwner),
          socket(newSocket),
          message(static_cast<std::size_t>(NwMax(NwMaxPacketSize(), 0))),
          kept(0),
          outer(newOwner.receptions) {
        owner.receptions = this;
    }
    // Drops the transfers that have not ended.
    ~Reception() {
        owner.receptions = outer;
        for (const int id : ids) owner.transfers.erase(id);
    }

    bool carries(int id) const { return ids.count(id) != 0; }
    bool isOthers(int id) const { return outer && (outer->carries(id) || outer->isOthers(id)); }

    NwFileTransporter& owner;
    NwTcpSocket& socket;
    std::vector<char> message;
    std::set<int> ids;
    std::int64_t kept;  // bytes of files that have come
    Reception* outer;
};

bool NwFileTransporter::isReceiving(const NwTcpSocket* sock) const {
    const Reception* reception = receptions;
    while (reception && &reception->socket != sock) reception = reception->outer;
    return reception != nullptr;
}

void NwFileTransporter::tick() {
    if (!mySocketMgr) return;
    mySocketMgr->processConnections();
    NwList& sockets = *mySocketMgr->socketList();
    NwListPosition next(sockets, sockets.first());
    while (NwListItem* item = next.item()) {
        next.advance();
        NwTcpSocket* sock = static_cast<NwTcpSocket*>(item->data());
        if (isReceiving(sock)) continue;
        if (!sock->isOk() || !sock->testConnectionStatus()) mySocketMgr->removeAndDelete(sock);
    }
}

void NwFileTransporter::receiveFileCb(NwTcpSocket* sock, void* transporter) {
    static_cast<NwFileTransporter*>(transporter)->receiveFile(sock);
}

// Connections that have ended go before the next one is received from: of many that wait to be accepted, only
// those that are in use hold a descriptor.
void NwFileTransporter::removeEnded() {
    NwList& sockets = *mySocketMgr->socketList();
    NwListPosition next(sockets, sockets.first());
    while (NwListItem* item = next.item()) {
        next.advance();
        NwTcpSocket* sock = static_cast<NwTcpSocket*>(item->data());
        if (!isReceiving(sock) && (!sock->isOk() || isClosedByPeer(sock->readFd())))
            mySocketMgr->removeAndDelete(sock);
    }
}

void NwFileTransporter::receiveFile(NwTcpSocket* sock) try {
    sock->setSizeLength(4);
    sock->setMaxForwarderQueue(1);  // connection tests to a peer that never reads do not pile up
    Reception reception(*this, *sock);
    if (mySocketMgr) removeEnded();
    receive(reception);
} catch (const std::bad_alloc&) {  // not even a message fits
    sock->shutDown();
    warnLine(kNoMemory);
}

void NwFileTransporter::receive(Reception& reception) {
    NwTcpSocket& socket = reception.socket;
    StallWatch stall(nwSetting(theReceiveStallLimit));
    while (socket.isOk()) {
        const std::int64_t keptBefore = reception.kept;
        const int length = socket.NwRecv(reception.message.data(), reception.message.size());
        if (length > 0) {
            if (NwDebug.okToPrint())
                NwDebug("FileTransporter: Received %d bytes in file transporter\n", length);
            if (const char* problem = take(reception, length)) return drop(reception, problem);
            if (reception.ids.empty()) return;
        }
        if (reception.kept > keptBefore)
            stall.progress();  // messages without data are none
        else if (stall.isOver())
            return drop(reception, kNoProgress);
        else if (length <= 0 && socket.isOk())
            waitFor(socket.readFd(), POLLIN);
    }
    drop(reception, kSocketError);
}

// Takes in the message of `length` bytes that the reception holds, and ends its transfer if that is the last.
// Returns null or what is wrong.
const char* NwFileTransporter::take(Reception& reception, int length) {
    const char* message = reception.message.data();
    if (length < kLaterHeader || static_cast<std::size_t>(length) > reception.message.size())
        return kMalformed;
    const int id = static_cast<int>(fieldAt(message, kIdentifierField));
    NwFileTransportObject* obj = nullptr;
    if (const char* problem = store(reception, id, length, obj)) return problem;
    if (obj->bytesReceived != obj->dataSize) return nullptr;
    finishFile(*obj);
    transfers.erase(id);  // also when a derived finishFile leaves it to us
    reception.ids.erase(id);
    return nullptr;
}

// Keeps what the message brings for its transfer, which becomes *obj. Returns null or what is wrong.
const char* NwFileTransporter::store(Reception& reception, int id, int length,
                                     NwFileTransportObject*& obj) try {
    if (reception.isOthers(id)) return kMalformed;
    if (!reception.carries(id) && reception.ids.size() >= kMostTransfers) return kMalformed;
    reception.ids.insert(id);
    obj = &transportObject(id);
    const char* message = reception.message.data();
    const int start = obj->headerSeen ? kLaterHeader : readHeader(*obj, message, length);
    if (!start || length - start > obj->dataSize - obj->bytesReceived) return kMalformed;
    keep(*obj, message + start, length - start);
    reception.kept += length - start;
    return nullptr;
} catch (const std::bad_alloc&) {
    return kNoMemory;
} catch (const std::length_error&) {
    return kNoMemory;
}

// Ends a connection that is not to be received from any more.
void NwFileTransporter::drop(Reception& reception, const char* reason) {
    warnLine(reason);
    reception.socket.shutDown();
}

NwFileTransportObject& NwFileTransporter::transportObject(int id) {
    NwFileTransportObject& obj = transfers[id];
    obj.identifier = id;
    return obj;
}

void NwFileTransporter::finishFile(NwFileTransportObject& obj) {
    const int id = obj.identifier;
    const char* name = obj.fileName.c_str();
    const NwFilename path = NwFilename::combine(targetDirectory(), obj.fileName);
    const Descriptor directory(openDirectory(targetDirectory()));
    // Open until the end: meant. Without all data nothing is touched.
    const Descriptor file(isWhole(obj) ? createFile(directory.get(), name) : -1);
    if (file.get() < 0) {
        warnFile(
            isWhole(obj) ? "NwFileTransporter: cant create file" : "NwFileTransporter: Error writing file",
            path);
    } else if (!writeAll(file.get(), obj.data.data(), static_cast<std::size_t>(obj.dataSize))) {
        removePartial(directory.get(), name, file.get());
        warnFile("NwFileTransporter: Error writing file", path);
    } else {
        callBack(path);
    }
    transfers.erase(id);
}

// A callback may register and unregister any of them, itself too.
void NwFileTransporter::callBack(const NwFilename& path) {
    for (auto next = callbacks.begin(); next != callbacks.end();) {
        const FileTransferedCallback cb = next->first;
        cb(path, next->second);
        next = callbacks.upper_bound(cb);
    }
}

// --- sending ---------------------------------------------------------------------------------------------

namespace {

bool refuseSocket(unsigned int addr, int port) {
    NwWarn("Corvane(NwFileTransporter): Could not create socket send() to addr %s port= %d\n",
           NwInetAddrString(addr), port);
    NwWarn << std::flush;
    return false;
}

// Sends what is queued. False when the peer took nothing for too long; true also for a broken connection.
bool flushAll(NwTcpSocket& socket) {
    StallWatch stall(nwSetting(NwFileTransporter::theSendStallLimit));
    while (socket.isOk() && socket.getQueueStatus().first > 0) {
        waitFor(socket.writeFd(), POLLOUT);
        long sent = 0;
        socket.flush(sent);
        if (sent > 0)
            stall.progress();
        else if (stall.isOver())
            return false;
    }
    return true;
}

}  // namespace

bool NwFileTransporter::sendFile(const NwFilename& file, unsigned int addr) {
    return sendFile(file, addr, port());
}

// A file on its way out.
struct NwFileTransporter::Outgoing {
    const NwFilename& file;
    const NwFilename name;  // as the peer gets it
    const int limit;        // bytes of a message
    unsigned int id;
    unsigned int fileSize;
    std::vector<char> data;
    int dataSize;  // bytes of data that are to be sent
    NwFileTransportFlags flags;
};

bool NwFileTransporter::sendFile(const NwFilename& file, unsigned int addr, int toPort) try {
    sendComplete = false;
    Outgoing out = {file, file.stripPath(), NwMaxPacketSize(), 0, 0, {}, 0, NwFileTransportPlain};
    if (!load(out)) return false;
    if (toPort < 0 || toPort > kMaxPort) return refuseSocket(addr, toPort);
    NwTcpSocket socket(addr, toPort, 0);
    socket.setSizeLength(4);
    if (!socket.isOk()) return refuseSocket(addr, toPort);
    return send(out, socket);
} catch (const std::bad_alloc&) {
    warnFile(kReadingFailed, file);
    return false;
}

// Reads the file into memory.
bool NwFileTransporter::load(Outgoing& out) {
    const long long fileSize = out.file.fileSize();
    out.id = nextFileIdentifier();  // meant: also for a file that cannot be opened
    const bool fits = static_cast<long>(out.name.length()) + kNameField + 1 < out.limit;
    std::ifstream in;
    if (fileSize >= 0 && fileSize <= INT_MAX && fits) openFile(out.file.c_str(), in);
    if (!in.is_open() || !in.good()) {
        warnFile("Corvane(NwFileTransporter): error opening file ", out.file);
        return false;
    }
    out.fileSize = static_cast<unsigned int>(fileSize);
    const bool wasRead = readFileToBuffer(in, out.data, static_cast<int>(fileSize), out.dataSize, out.flags);
    if (wasRead && NwMax(out.dataSize, 0) <= static_cast<long>(out.data.size())) return true;
    warnFile(kReadingFailed, out.file);
    return false;
}

// Cuts the data into messages and sends them. Each is with the kernel before the next is made, so that the
// file is in memory once. False when the peer stalls.
bool NwFileTransporter::send(const Outgoing& out, NwTcpSocket& socket) {
    std::vector<char> message(static_cast<std::size_t>(out.limit));
    int sent = 0;
    while (sent < out.dataSize && socket.isOk()) {
        const int header = sent == 0 ? writeFirstHeader(out, message.data()) : kLaterHeader;
        const int part = NwMin(out.dataSize - sent, out.limit - header);
        setField(message.data(), kLengthField, static_cast<unsigned int>(header + part));
        setField(message.data(), kIdentifierField, out.id);
        std::memcpy(message.data() + header, out.data.data() + sent, static_cast<std::size_t>(part));
        sent += part;
        socket.NwSend(message.data(), static_cast<unsigned long>(header + part), 0);
        if (NwDebug.okToPrint())
            NwDebug("NwFileTransporter: Sent %d bytes in file transporter\n", header + part);
        if (!flushAll(socket)) {
            warnFile("Corvane(NwFileTransporter): no progress sending file ", out.file);
            return false;
        }
        if (socket.isOk()) sendProgress(socket, sent, out.dataSize);
    }
    sendComplete = socket.isOk();
    return true;
}

// The fields that only a first message has. Returns where its data start.
int NwFileTransporter::writeFirstHeader(const Outgoing& out, char* message) {
    setField(message, kFileSizeField, out.fileSize);
    setField(message, kDataSizeField, static_cast<unsigned int>(out.dataSize));
    setField(message, kFlagsField, out.flags);
    const std::size_t nameSize = out.name.length() + 1;  // its NUL included
    std::memcpy(message + kNameField, out.name.c_str(), nameSize);
    return kNameField + static_cast<int>(nameSize);
}

void NwFileTransporter::sendProgress(NwTcpSocket& /*socket*/, int /*sent*/, int /*total*/) {}

bool NwFileTransporter::lastSendComplete() const {
    return sendComplete;
}

unsigned int NwFileTransporter::nextFileIdentifier() {
    return static_cast<unsigned int>(std::time(nullptr)) + gNumFiles++;
}

bool NwFileTransporter::readFileToBuffer(std::ifstream& in, std::vector<char>& buffer, int size,
                                         int& bytesRead, NwFileTransportFlags& flags) {
    buffer.resize(static_cast<std::size_t>(size) + 1);
    in.read(buffer.data(), size);
    bytesRead = size;
    flags = NwFileTransportPlain;
    return true;
}

// --- settings --------------------------------------------------------------------------------------------

int NwFileTransporter::port() const {
    return myPort;
}

void NwFileTransporter::addFileTransferedCallback(FileTransferedCallback cb, void* userData) {
    callbacks[cb] = userData;
}

void NwFileTransporter::removeFileTransferedCallback(FileTransferedCallback cb, void* /*userData*/) {
    callbacks.erase(cb);
}

const NwFilename& NwFileTransporter::targetDirectory() const {
    return targetDir;
}

void NwFileTransporter::setTargetDirectory(const NwFilename& dir) {
    targetDir = dir;
    NwMakeDirectory(dir);
}

void NwFileTransporter::setSendStallLimit(double seconds) {
    nwChangeSetting(theSendStallLimit, seconds);
}

void NwFileTransporter::setReceiveStallLimit(double seconds) {
    nwChangeSetting(theReceiveStallLimit, seconds);
}

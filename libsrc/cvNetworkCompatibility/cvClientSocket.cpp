// SPDX-License-Identifier: BSD-3-Clause
// The packet-server client. An attach:
//
//     client                                       server
//     add-client request  -- request socket ----->
//                         <-- notify socket ------  acknowledgement: identifier, keys, sizes
//     filter tests        -- request socket ----->
//                         <== shared memory =======  packets and messages
//
// The shared segment is the client-to-server area, which nobody writes, and behind it the queue. What lies in
// it may be damaged at any moment: a message is copied out once, then checked, then used.
#include <cvNetworkCompatibility/cvClientSocket.h>

#include <cvNetworkCompatibility/cvNetSocket.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include <cvutil/cvClock.h>
#include <cvutil/cvMath.h>
#include <cvutil/cvOutput.h>
#include <cvutil/cvPacketServer.h>
#include <cvutil/cvShmMsgQueue.h>

#include "cvFilterValue.h"
#include "cvSetting.h"

int semid = -1;

namespace {

const char kName[] = "NwPacketClient";
const int kAddClientOption = 32;
const int kHeaderSize = sizeof(NwCsDataHeader);
const int kQueueTrailer = sizeof(NwShmMsgQueueTrailer);
const int kSemaphores = 2;
const int kOldSemaphores = 4;         // of a server before version 3
const int kMostNotifications = 4096;  // taken at once: nobody can keep the client busy with them

bool isQuiet() {
    return NwSocket::areQuietSockets();
}

// Prints the text and the system's words for errno, unless quiet.
[[gnu::cold]] void warnSystem(const char* what) {
    if (!isQuiet()) NwWarnPerror("%s", what);
}

[[gnu::cold]] void warn(const char* text) {
    if (!isQuiet()) NwWarn("%s", text);
}

void closeIfOpen(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

// Whether the segment was made by the user whose server listens for the port. Every user can write to the
// notify socket: without this look, a forged acknowledgement could lead to a queue of the forger's.
bool isMadeByServerOf(int port, int segmentId) {
    char path[NwPacketServerPathSize];
    NwPacketServerRequestPath(static_cast<unsigned int>(port), path, NwPacketServerVersion);
    struct stat listener;
    shmid_ds segment;
    return ::stat(path, &listener) == 0 && ::shmctl(segmentId, IPC_STAT, &segment) == 0 &&
           segment.shm_perm.cuid == listener.st_uid;
}

// Readable within the time: 1; not: 0; -1 with errno. `readable` tells whether the descriptor itself is.
int waitForRead(int fd, double seconds, bool& readable) {
    readable = false;
    if (fd >= FD_SETSIZE) {  // a set does not reach that far
        pollfd wanted = {fd, POLLIN, 0};
        const double most = 2147483;  // seconds, in milliseconds an int
        const int milliseconds = seconds > 0 ? static_cast<int>(NwMin(seconds, most) * 1000) : 0;
        const int result = ::poll(&wanted, 1, milliseconds);
        readable = result > 0;
        return result;
    }
    fd_set working;
    FD_ZERO(&working);
    FD_SET(fd, &working);
    const int result = NwSelect(fd + 1, &working, nullptr, nullptr, seconds);
    readable = result > 0 && FD_ISSET(fd, &working);
    return result;
}

}  // namespace

// --- filter tests ----------------------------------------------------------------------------------------

NwCsFilterTest::NwCsFilterTest(int fd, unsigned char filterIndex, unsigned int clientId)
    : msg(fd, filterIndex, NwCsFilterOpOperator, 1, clientId) {
    msg.send();
}

NwCsFilterTest::~NwCsFilterTest() = default;

void NwCsFilterTest::setOperator(NwTestOperator newOperator) {
    NwFilterTest::setOperator(newOperator);
    tell(NwCsFilterOpOperator, newOperator == NwTestExclude);
}

void NwCsFilterTest::extendTest(int count, unsigned int* newValues) {
    NwFilterTest::extendTest(count, newValues);
    for (int i = 0; i < count; ++i) tell(NwCsFilterOpAdd, newValues[i]);
}

void NwCsFilterTest::reduceTest(int count, unsigned int* oldValues) {
    NwFilterTest::reduceTest(count, oldValues);
    int left = 0;
    std::unique_ptr<unsigned int[]> rest(
        new (std::nothrow) unsigned int[static_cast<std::size_t>(values.count())]);
    if (!rest) return;
    for (const NwListItem* item = values.first(); item; item = item->next())
        rest[left++] = nwFilterValue(item);
    setTest(op, left, rest.get());
}

bool NwCsFilterTest::evalTest(char* /*pkt*/, int /*offset*/, NwFilterType /*type*/) {
    return true;
}

void NwCsFilterTest::cutOff() {
    msg.setFd(-1);
}

void NwCsFilterTest::tell(NwCsFilterOp operation, unsigned int value) {
    msg.setFilterOp(static_cast<unsigned char>(operation));
    msg.setValue(value);
    msg.send();
}

// --- attach ----------------------------------------------------------------------------------------------

NwClientSocket::NwClientSocket(int newPort, unsigned int newAddr, int clientArg, unsigned short flags) {
    init(newPort, newAddr, clientArg, flags);
}

NwClientSocket::NwClientSocket(int newPort, int clientArg, unsigned short flags) {
    init(newPort, NwUSE_DEFAULT_IP_ADDR, clientArg, flags);
}

NwClientSocket::~NwClientSocket() {
    NwSocket::flush();
    cleanup();
    exerciseIdTest.reset();
    protocolVersionTest.reset();
    ipAddrTest.reset();
    pduKindTest.reset();
}

void NwClientSocket::init(int newPort, unsigned int newAddr, int clientArg, unsigned short flags) {
    timeout = 5.0;
    reader.reset();
    netSocket = nullptr;
    notifyPending = false;
    ok = false;
    notifyFd = -1;
    requestFd = -1;
    wakeFd = -1;
    clientId = -1;
    for (auto* test : {&exerciseIdTest, &protocolVersionTest, &pduKindTest, &ipAddrTest}) test->reset();
    addr = newAddr;
    std::memset(notifyPath, 0, sizeof notifyPath);
    port = newPort;
    internal = false;
    lastSource = 0;
    shmBase = nullptr;
    controlMsg.reset();
    endNotice_ = 0;
    const int size = NwMax(NwMaxPacketSize(), 0);
    const std::size_t bytes = NwMax(static_cast<std::size_t>(size) + kHeaderSize, sizeof(NwCsMsg));
    recvCapacity = static_cast<int>((bytes + 7) / 8);
    recvBuffer.reset(new (std::nothrow) std::uint64_t[static_cast<std::size_t>(recvCapacity)]);
    if (!recvBuffer && !isQuiet()) NwWarn("NwClientSocket: no memory for packets of %d bytes\n", size);
    if (!recvBuffer || !attach(clientArg, flags)) cleanup();
}

bool NwClientSocket::attach(int clientArg, unsigned short flags) {
    NwCsMsg answer = NwCsMsg();
    if (!openSockets() || !requestAttach(clientArg, flags, &answer)) return false;
    settleNotifySocket(flags);
    const NwCsAckMsg ack(-1, &answer);
    if (ack.version() < NwCsMsgVersion && (flags & controlOnlyFlag)) {
        warn("** Control-only clients from Corvane 2.4.2 or later\n");
        warn("** may not connect to server from Corvane 2.4.1 or earlier.\n");
        return false;
    }
    clientId = ack.clientId();
    internal = ack.internal() != 0;
    if (!attachQueue(ack, flags)) return false;
    controlMsg.reset(new (std::nothrow) NwCsControlReqMsg(requestFd, NwCsRequestExternal,
                                                          static_cast<unsigned int>(clientId)));
    makeFilterTests();
    ok = true;
    netSocket = new (std::nothrow)
        NwNetSocket(port, addr, static_cast<unsigned char>(NwNetSocketWrite | NwNetSocketQuietStart), 0u);
    if (NwIsMulticastAddr(addr)) listenToMulticastGroup(addr);
    if (!isQuiet())
        NwInfo("ClientSocket (id %d) ok for port %d (%s)\n", clientId, port,
               internal ? "internal" : "external");
    return true;
}

bool NwClientSocket::openSockets() {
    const char* reporter = isQuiet() ? nullptr : kName;
    std::strcpy(notifyPath, "/tmp/cvcXXXXXX");
    const int placeholder = ::mkstemp(notifyPath);
    if (placeholder < 0) {
        if (!isQuiet()) NwWarnPerror("%s: cannot make %s", kName, notifyPath);
        notifyPath[0] = '\0';
        return false;
    }
    ::close(placeholder);
    notifyFd = NwOpenUnixDgram(notifyPath, NwUnixDgramBind, reporter);
    if (notifyFd < 0) return false;
    // A way to the own socket that stays when its path goes: somebody may tidy up a /tmp.
    wakeFd = NwOpenUnixDgram(notifyPath, NwUnixDgramConnect, reporter);
    if (wakeFd < 0) return false;
    char serverPath[NwPacketServerPathSize];
    NwPacketServerRequestPath(static_cast<unsigned int>(port), serverPath, NwPacketServerVersion);
    requestFd = NwOpenUnixDgram(serverPath, NwUnixDgramConnect, reporter);
    return requestFd >= 0;
}

// Asks the server for a place and waits for its acknowledgement.
bool NwClientSocket::requestAttach(int clientArg, unsigned short flags, NwCsMsg* answer) {
    NwCsAddClientMsg add(requestFd, flags, clientArg, kAddClientOption, ::getpid(), notifyPath);
    if (add.send() < 0) {
        if (!isQuiet()) NwWarnPerror("%s add request write failed", kName);
        return false;
    }
    const int length = readAnswer(answer, NwCsKindAck);
    if (!length) return false;
    // Fields that did not come say nothing: without a key there is nothing to attach.
    if (length < static_cast<int>(sizeof(NwCsAckRecord)))
        std::memset(reinterpret_cast<char*>(answer) + offsetof(NwCsAckRecord, shmKey), 0, sizeof(int));
    return true;
}

void NwClientSocket::settleNotifySocket(unsigned short flags) {
    if (flags & noNotifyFlag) {
        removeNotifyPath();
        closeIfOpen(notifyFd);
        closeIfOpen(wakeFd);
    } else if (::fcntl(notifyFd, F_SETFL, O_NONBLOCK) == -1) {
        warnSystem("ClientSocket: fcntl(FNDELAY) notify skt failed");
    }
}

// Maps the segment and opens the queue in it. A key of 0 would make something new: it counts as not found,
// and so does what another user than the server's has made.
bool NwClientSocket::attachQueue(const NwCsAckMsg& ack, unsigned short flags) {
    const long toServer = ack.client2ServerSize();
    const long toClient = ack.server2ClientSize();
    const int shm = ack.shmKey() && toServer >= 0 && toClient >= 0
                        ? ::shmget(ack.shmKey(), static_cast<std::size_t>(toServer + toClient), 0666)
                        : -1;
    if (shm < 0 || !isMadeByServerOf(port, shm)) {
        if (!isQuiet()) NwInfo("shmget for key %d failed\n", ack.shmKey());
        return false;
    }
    const bool isOld = ack.version() < NwCsMsgVersion;
    if (isOld) {
        warn("*** WARNING: Connecting to Packet Server from Corvane 2.4.1\n");
        warn("*** or earlier.  Server-based filtering, internal mode\n");
        warn("*** and control messages will not work!\n");
    }
    errno = EINVAL;  // for a key of 0
    const int set = ack.semKey() ? ::semget(ack.semKey(), isOld ? kOldSemaphores : kSemaphores, 0666) : -1;
    nwChangeSetting(semid, set);
    if (set < 0) {
        if (!isQuiet()) NwWarnPerror("semget for key %d", ack.semKey());
        return false;
    }
    void* base = ::shmat(shm, nullptr, 0);
    if (base == reinterpret_cast<void*>(-1)) {
        if (!isQuiet()) NwWarnPerror("shmat for key %d", ack.semKey());  // meant: the other key
        return false;
    }
    shmBase = base;
    reader.reset(new (std::nothrow)
                     NwShmMsgQueueReader(static_cast<char*>(base) + toServer, toClient - kQueueTrailer, set,
                                         0, (flags & nonBlockingFlag) != 0, false, true));
    if (!reader) {
        warn("NwClientSocket: no memory for the queue's reader\n");
        return false;
    }
    reader->setSegmentId(shm);
    return true;
}

// Each tells the server its initial state.
void NwClientSocket::makeFilterTests() {
    const unsigned int id = static_cast<unsigned int>(clientId);
    exerciseIdTest.reset(new (std::nothrow) NwCsFilterTest(requestFd, NwCsFilterExerciseId, id));
    protocolVersionTest.reset(new (std::nothrow) NwCsFilterTest(requestFd, NwCsFilterProtocolVersion, id));
    pduKindTest.reset(new (std::nothrow) NwCsFilterTest(requestFd, NwCsFilterPduKind, id));
    ipAddrTest.reset(new (std::nothrow) NwCsFilterTest(requestFd, NwCsFilterSourceAddr, id));
}

void NwClientSocket::removeNotifyPath() {
    if (notifyPath[0]) ::unlink(notifyPath);
    notifyPath[0] = '\0';
}

void NwClientSocket::cleanup() {
    removeNotifyPath();
    reader.reset();
    disconnectFromServer();  // meant: fatal when the socket is not ok
    // The tests outlive the descriptor, whose number may soon be another file's.
    for (NwCsFilterTest* test :
         {exerciseIdTest.get(), protocolVersionTest.get(), ipAddrTest.get(), pduKindTest.get()})
        if (test) test->cutOff();
    for (int* fd : {&notifyFd, &wakeFd, &requestFd}) closeIfOpen(*fd);
    if (shmBase) ::shmdt(shmBase);
    shmBase = nullptr;
    controlMsg.reset();
    ok = false;
    recvBuffer.reset();
}

// --- waiting for an answer -------------------------------------------------------------------------------

int NwClientSocket::timedRecv(char* buf, unsigned long size, char* kind) {
    if (notifyFd < 0) {
        warn("ClientSocket not ok to read\n");
        return 0;
    }
    bool readable = false;
    const int waited = waitForRead(notifyFd, timeout, readable);
    if (waited < 0) {
        warnSystem("NwClientSocket: NwSelect error");
        return 0;
    }
    if (!readable) {
        warn(waited == 0 ? "NwClientSocket: timedRecv timeout\n" : "NwClientSocket: timedRecv cannot read\n");
        return 0;
    }
    *kind = 127;
    const ssize_t count = ::read(notifyFd, buf, size);
    if (count < 0 && errno != EAGAIN) {
        warnSystem("timedRecv");
        ok = false;
    }
    if (count <= 0) return 0;
    *kind = *buf;
    return static_cast<int>(count);
}

NwCsMsg* NwClientSocket::getPsMsg(NwCsMsg* buf, char expectedKind) {
    return readAnswer(buf, expectedKind) ? buf : nullptr;
}

// The length of an answer of that kind, or 0.
int NwClientSocket::readAnswer(NwCsMsg* buf, char expectedKind) {
    if (notifyFd < 0) return 0;
    char kind = 0;
    const int length = timedRecv(reinterpret_cast<char*>(buf), sizeof *buf, &kind);
    if (length < 1) return 0;
    if (kind == NwCsKindQuota) {  // whatever was expected
        warn("NwClientSocket: server client quota exceeded\n");
        return 0;
    }
    if (kind == expectedKind) return length;
    if (!isQuiet())
        NwWarn("ClientSocket getPs: %d not the anticipated kind (%d)\n", static_cast<unsigned char>(kind),
               static_cast<unsigned char>(expectedKind));
    return 0;
}

// --- receiving -------------------------------------------------------------------------------------------

bool NwClientSocket::guard() {
    if (isOk()) return true;
    NwFatalError("ClientSock not ok\n");
    return false;
}

int NwClientSocket::NwRecv(char** buf, int* status) {
    if (buf) *buf = nullptr;
    if (status) *status = 0;
    if (!guard()) return 0;
    int result = NwShmReadNothing;
    const int length = reader->read(recvBuffer.get(), recvCapacity, &result);
    if (result == NwShmReadDismissed || result == NwShmReadStopped) {
        ok = false;  // meant: nothing is released here
        noteEnd(result == NwShmReadDismissed ? NwCsNoticeDismissed : NwCsNoticeStopped);
        return 0;
    }
    if (length < 1) {
        if (status) *status = result == NwShmReadNothing ? 0 : -1;
        return 0;
    }
    if (notifyPending && notifyFd >= 0) drainNotifySocket();
    return deliver(length, buf, status);
}

// Prints the notice that would say so, had the server sent it.
void NwClientSocket::noteEnd(NwCsNoticeCode notice) {
    endNotice_ = notice;
    if (!isQuiet()) NwCsNoticeMsg(nullptr, static_cast<unsigned short>(notice)).print();
}

// Hands out the message of `length` bytes that lies in recvBuffer.
int NwClientSocket::deliver(int length, char** buf, int* status) {
    char* message = reinterpret_cast<char*>(recvBuffer.get());
    if (static_cast<unsigned char>(*message) != NwCsKindData) {
        const int whole = sizeof(NwCsMsg);
        if (length < whole) std::memset(message + length, 0, static_cast<std::size_t>(whole - length));
        if (status) *status = -1;
        processControlMsg(reinterpret_cast<NwCsMsg*>(message));
        return 0;
    }
    NwCsDataHeader header;
    if (status) *status = -1;
    if (length < kHeaderSize) return 0;
    std::memcpy(&header, message, sizeof header);
    if (header.length > static_cast<unsigned int>(length - kHeaderSize)) return 0;
    countPacket();
    lastSource = header.source;
    if (buf) {
        *buf = message + kHeaderSize;
        if (status) *status = 1;
    }
    return static_cast<int>(header.length);
}

int NwClientSocket::NwRecv(char* buf, unsigned long size) {
    char* packet = nullptr;
    const int length = NwRecv(&packet, nullptr);
    if (packet) std::memcpy(buf, packet, NwMin(size, static_cast<unsigned long>(length)));
    return length;
}

void NwClientSocket::processControlMsg(NwCsMsg* msg) {
    const bool shown = !isQuiet();
    switch (msg->kind) {
        case NwCsKindPing:
            break;
        case NwCsKindStateReturn:
            if (shown) NwCsStateReturnMsg(nullptr, msg).print();
            break;
        case NwCsKindCStateReturn:
            if (shown) NwCsCStateReturnMsg(nullptr, msg).print();
            break;
        case NwCsKindWarning:
            if (shown) NwCsWarningMsg(nullptr, msg).print();
            break;
        case NwCsKindNotice: {
            NwCsNoticeMsg notice(nullptr, msg);
            if (shown) notice.print();
            if (notice.notice() != NwCsNoticeStopped && notice.notice() != NwCsNoticeDismissed) break;
            endNotice_ = notice.notice();
            cleanup();
            break;
        }
        default:
            if (shown) NwInfo("ClientSocket: unexpected message: %d\n", msg->kind);
    }
}

void NwClientSocket::checkGoAway() {
    const int value = reader ? reader->queueMgr().getGoAway() : 0;
    if (!value) return;
    noteEnd(value == NwShmGoAwayStopped ? NwCsNoticeStopped : NwCsNoticeDismissed);
    cleanup();
}

int NwClientSocket::NwBecomeNonBlocking() {
    if (guard()) reader->queueMgr().setBlockingRead(false);
    return 0;
}

void NwClientSocket::notifyMe() {
    if (!guard()) return;
    // A wake-up that came behind its message, and would end the next wait before its time.
    if (notifyPending && notifyFd >= 0) drainNotifySocket();
    notifyPending = true;
    if (!reader->queueMgr().setNotifyReader(reader->msgsRcvd() + 1) || wakeFd < 0) return;
    // The message came before the wish: this client wakes itself.
    const char datagram[2] = {0, 0};
    ::send(wakeFd, datagram, sizeof datagram, MSG_DONTWAIT);
}

void NwClientSocket::drainNotifySocket() {
    char datagram[2];
    for (int i = 0; i < kMostNotifications; ++i)
        if (::recv(notifyFd, datagram, sizeof datagram, MSG_DONTWAIT) <= 0) break;
    notifyPending = false;
}

// --- sending and requests --------------------------------------------------------------------------------

int NwClientSocket::sendTo(char* buf, unsigned long len, unsigned int destAddr) {
    if (!guard() || !netSocket) return -1;
    return netSocket->sendTo(buf, len, isInternal() ? loopbackAddr : destAddr);
}

void NwClientSocket::request(NwCsControlRequest code) {
    if (!guard() || !controlMsg) return;
    controlMsg->setRequest(static_cast<unsigned short>(code));
    controlMsg->send();
}

void NwClientSocket::setPacketServerExternal() {
    request(NwCsRequestExternal);
}

void NwClientSocket::setPacketServerInternal() {
    request(NwCsRequestInternal);
}

void NwClientSocket::testClients() {
    request(NwCsRequestTestClients);
}

void NwClientSocket::pingClients() {
    request(NwCsRequestPingClients);
}

void NwClientSocket::requestServerState() {
    request(NwCsRequestState);
}

void NwClientSocket::requestServerCStates() {
    request(NwCsRequestClientStates);
}

void NwClientSocket::terminatePacketServer() {
    request(NwCsRequestTerminate);
}

void NwClientSocket::disconnectFromServer() {
    request(NwCsRequestDisconnect);
}

void NwClientSocket::setPacketServerUnbundling(int on) {
    request(on ? NwCsRequestUnbundlingOn : NwCsRequestUnbundlingOff);
}

void NwClientSocket::setUnbundling(int on) {
    setPacketServerUnbundling(on);
}

bool NwClientSocket::listenToMulticastGroup(unsigned int group) {
    return requestMulticast(NwCsMulticastJoin, group, "subscribe");
}

bool NwClientSocket::dropMulticastGroup(unsigned int group) {
    return requestMulticast(NwCsMulticastLeave, group, "drop");
}

bool NwClientSocket::requestMulticast(NwCsMulticastOp op, unsigned int group, const char* what) {
    if (!guard()) return false;
    if (!NwIsMulticastAddr(group)) {
        if (!isQuiet()) NwWarn("%s is not a multicast address: Can't %s\n", NwInetAddrString(group), what);
        return false;
    }
    NwCsMulticastReqMsg(writeFd(), static_cast<unsigned short>(op), group,
                        static_cast<unsigned int>(clientId))
        .send();
    return true;
}

int NwClientSocket::setMcastTtl(int ttl) {
    return netSocket ? netSocket->setMcastTtl(ttl) : 0;
}

// --- accessors -------------------------------------------------------------------------------------------

bool NwClientSocket::isInternal() {
    return guard() && reader->isInternal();
}

NwIpv4Addr NwClientSocket::lastSourceInetAddr() {
    return lastSource;
}

NwFilterTest& NwClientSocket::exerciseId() {
    return exerciseIdTest ? *exerciseIdTest : NwSocket::exerciseIdTest;
}

NwFilterTest& NwClientSocket::protocolVersion() {
    return protocolVersionTest ? *protocolVersionTest : NwSocket::protocolVersionTest;
}

NwFilterTest& NwClientSocket::pduKind() {
    return pduKindTest ? *pduKindTest : NwSocket::pduKindTest;
}

NwFilterTest& NwClientSocket::ipAddr() {
    return ipAddrTest ? *ipAddrTest : NwSocket::ipAddrTest;
}

int NwClientSocket::readFd() {
    return notifyFd;
}

int NwClientSocket::writeFd() {
    return requestFd;
}

bool NwClientSocket::isOk() const {
    return ok;
}

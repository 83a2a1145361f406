// SPDX-License-Identifier: BSD-3-Clause
#include "clients.h"

#include <cvutil/cvOutput.h>
#include <cvutil/cvPacketServer.h>
#include <cvutil/cvShmMsgQueue.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "network.h"

namespace {

int fatalCount = 0;

void noteFatal(const char*) {
    ++fatalCount;
}

}  // namespace

Tame::Tame() {
    fatalCount = 0;
    NwSetFatalHandler(noteFatal);
}

Tame::~Tame() {
    NwSetFatalHandler(nullptr);
}

int Tame::fatalEndings() {
    return fatalCount;
}

// --- a watched socket ------------------------------------------------------------------------------------

WatchedSocket::WatchedSocket(int serverPort, unsigned short flags, unsigned int address)
    : NwClientSocket(serverPort, address, -1, flags) {
    EXPECT_TRUE(isOk());
    if (isOk()) NwBecomeNonBlocking();
}

void WatchedSocket::block() {
    reader->queueMgr().setBlockingRead(true);
}

WatchedSocket::Item WatchedSocket::next() {
    Item item;
    char* packet = nullptr;
    int status = 0;
    if (!isOk()) return item;
    const int length = NwRecv(&packet, &status);
    if (packet != nullptr) {
        item.kind = Item::packet;
        item.bytes.assign(packet, static_cast<std::size_t>(length));
        std::memcpy(&item.header, packet - sizeof item.header, sizeof item.header);
    } else if (status == -1) {
        item.kind = Item::message;
        if (recvBuffer) {
            std::memcpy(&item.text, recvBuffer.get(), sizeof item.text);
        } else {  // the attachment has ended with it
            item.text.kind = NwCsKindNotice;
            item.text.fields[0] = static_cast<std::uint8_t>(endNotice());
        }
    }
    return item;
}

WatchedSocket::Item WatchedSocket::await() {
    Item item;
    if (!eventually([&] {
            item = next();
            return item.kind != Item::nothing;
        }))
        ADD_FAILURE() << "nothing came";
    return item;
}

NwCsMsg WatchedSocket::awaitMessage(NwCsKind kind) {
    for (;;) {
        const Item item = await();
        if (item.kind == Item::nothing) return NwCsMsg{};
        if (item.kind == Item::message && item.text.kind == kind) return item.text;
    }
}

NwCsMsg WatchedSocket::awaitNotice(NwCsNoticeCode code) {
    for (;;) {
        const NwCsMsg message = awaitMessage(NwCsKindNotice);
        if (message.kind != NwCsKindNotice || NwCsNoticeMsg(nullptr, &message).notice() == code)
            return message;
    }
}

NwCsMsg WatchedSocket::awaitWarning(NwCsWarningCode code) {
    for (;;) {
        const NwCsMsg message = awaitMessage(NwCsKindWarning);
        if (message.kind != NwCsKindWarning || NwCsWarningMsg(nullptr, &message).warning() == code)
            return message;
    }
}

std::string WatchedSocket::awaitPacket() {
    for (;;) {
        const Item item = await();
        if (item.kind != Item::message) return item.bytes;
    }
}

NwCsStateReturnRecord WatchedSocket::serverState() {
    requestServerState();
    const NwCsMsg message = awaitMessage(NwCsKindStateReturn);
    return NwCsStateReturnMsg(nullptr, &message).state();
}

std::vector<NwCsCStateReturnRecord> WatchedSocket::clientStates() {
    std::vector<NwCsCStateReturnRecord> states;
    requestServerCStates();
    do {
        const NwCsMsg message = awaitMessage(NwCsKindCStateReturn);
        if (message.kind != NwCsKindCStateReturn) break;
        states.push_back(NwCsCStateReturnMsg(nullptr, &message).state());
        EXPECT_EQ(states.back().index + 1, states.size());
    } while (states.back().index + 1 < states.back().count);
    return states;
}

NwCsCStateReturnRecord WatchedSocket::stateOf(int which) {
    NwCsCStateReturnRecord found{};
    for (const NwCsCStateReturnRecord& state : clientStates())
        if (static_cast<int>(state.clientId) == which) found = state;
    EXPECT_EQ(static_cast<int>(found.clientId), which);
    return found;
}

// --- processes -------------------------------------------------------------------------------------------

namespace {

bool sendAll(int fd, const void* bytes, std::size_t length) {
    const char* at = static_cast<const char*>(bytes);
    while (length > 0) {
        const ssize_t sent = ::send(fd, at, length, MSG_NOSIGNAL);
        if (sent <= 0) return false;
        at += sent;
        length -= static_cast<std::size_t>(sent);
    }
    return true;
}

bool receiveAll(int fd, void* bytes, std::size_t length) {
    char* at = static_cast<char*>(bytes);
    while (length > 0) {
        if (!waitReadable(fd, 3 * kPatienceMilliseconds)) return false;
        const ssize_t count = ::recv(fd, at, length, 0);
        if (count <= 0) return false;
        at += count;
        length -= static_cast<std::size_t>(count);
    }
    return true;
}

}  // namespace

void Line::say(const std::string& text) const {
    const std::uint32_t length = static_cast<std::uint32_t>(text.size());
    if (sendAll(myFd, &length, sizeof length)) sendAll(myFd, text.data(), text.size());
}

bool Line::hear(std::string& text) const {
    std::uint32_t length = 0;
    if (!receiveAll(myFd, &length, sizeof length)) return false;
    text.resize(length);
    return receiveAll(myFd, &text[0], length);
}

std::string Line::hear() const {
    std::string text;
    if (!hear(text)) ADD_FAILURE() << "the other process says nothing";
    return text;
}

bool Line::isHeard() const {
    return waitReadable(myFd, 0);
}

ClientProcess::ClientProcess(const Work& work, unsigned user) : myLine(-1) {
    int ends[2];
    myErrors = ::memfd_create("errors", MFD_CLOEXEC);
    if (myErrors < 0 || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::runtime_error("socketpair");
    myPid = ::fork();
    if (myPid < 0) throw std::runtime_error("fork");
    if (myPid == 0) {
        ::close(ends[0]);
        ::dup2(myErrors, STDERR_FILENO);
        if (user != 0 && (::setgid(user) != 0 || ::setuid(user) != 0)) ::_exit(99);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        NwSetFatalHandler(nullptr);  // a client of its own ends as its users' do
        const int status = work(Line(ends[1]));
        ::syscall(SYS_exit_group, status);
    }
    ::close(ends[1]);
    myFd = ends[0];
    myLine = Line(myFd);
}

ClientProcess::~ClientProcess() {
    kill();
    ::close(myFd);
    ::close(myErrors);
}

void ClientProcess::signal(int number) const {
    ::kill(myPid, number);
}

void ClientProcess::reap(int options) {
    if (!myIsFinished) myIsFinished = ::waitpid(myPid, &myStatus, options) == myPid;
}

void ClientProcess::kill() {
    reap(WNOHANG);
    if (!myIsFinished) ::kill(myPid, SIGKILL);
    reap(0);
}

bool ClientProcess::hasEnded() {
    reap(WNOHANG);
    return myIsFinished;
}

int ClientProcess::finish() {
    eventually([this] { return hasEnded(); }, 3 * kPatienceMilliseconds);
    kill();
    return WIFEXITED(myStatus) ? WEXITSTATUS(myStatus) : -WTERMSIG(myStatus);
}

std::string ClientProcess::errors() const {
    std::string text;
    char part[4096];
    ssize_t count;
    while ((count = ::pread(myErrors, part, sizeof part, static_cast<off_t>(text.size()))) > 0)
        text.append(part, static_cast<std::size_t>(count));
    return text;
}

// --- by hand ---------------------------------------------------------------------------------------------

BareClient::BareClient(const std::string& requestPath)
    : requestFd(NwOpenUnixDgram(requestPath.c_str(), NwUnixDgramConnect, nullptr)) {}

BareClient::~BareClient() {
    if (requestFd >= 0) ::close(requestFd);
    if (notifyFd >= 0) ::close(notifyFd);
    if (!notifyPath.empty()) ::unlink(notifyPath.c_str());
    if (base != nullptr) ::shmdt(base);
}

void BareClient::bindNotify() {
    char path[] = "/tmp/cvcXXXXXX";
    ::close(::mkstemp(path));
    notifyPath = path;
    notifyFd = NwOpenUnixDgram(path, NwUnixDgramBind, nullptr);
}

ssize_t BareClient::request(const void* bytes, std::size_t length) const {
    return ::send(requestFd, bytes, length, MSG_NOSIGNAL);
}

void BareClient::ask(unsigned short flags, int pid) {
    NwCsAddClientMsg add(requestFd, flags, -1, 32, pid, notifyPath.c_str());
    add.send();
}

ssize_t BareClient::askWithPath(const std::string& path) const {
    NwCsAddClientMsg add(requestFd, NwClientSocket::defaultFlags, -1, 32, ::getpid(), path.c_str());
    return add.send();
}

bool BareClient::awaitAnswer(int milliseconds) {
    answer = NwCsMsg{};
    return waitReadable(notifyFd, milliseconds) && ::recv(notifyFd, &answer, sizeof answer, 0) > 0;
}

NwCsAckRecord BareClient::ack() const {
    NwCsAckRecord record;
    std::memcpy(&record, &answer, sizeof record);
    return record;
}

bool BareClient::attach() {
    const NwCsAckRecord record = ack();
    if (record.kind != NwCsKindAck) return false;
    segmentBytes = static_cast<std::size_t>(record.client2ServerSize) +
                   static_cast<std::size_t>(record.server2ClientSize);
    shmId = ::shmget(record.shmKey, segmentBytes, 0);
    void* const place = shmId < 0 ? nullptr : ::shmat(shmId, nullptr, 0);
    if (place == nullptr || place == reinterpret_cast<void*>(-1)) return false;
    base = static_cast<char*>(place);
    return true;
}

void BareClient::reportFilters() {
    for (int i = 0; i < NwCsFilterCount; ++i)
        NwCsFilterMsg(requestFd, static_cast<unsigned char>(i), NwCsFilterOpOperator, 1,
                      static_cast<unsigned>(ack().clientId))
            .send();
}

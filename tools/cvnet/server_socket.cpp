// SPDX-License-Identifier: BSD-3-Clause
#include "server_socket.h"

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include <fmt/format.h>

#include <cvNetworkCompatibility/cvSocket.h>
#include <cvutil/cvOutput.h>
#include <cvutil/cvPacketServer.h>

#include "library.h"
#include "output.h"

namespace cvnet {
namespace {

constexpr auto kLookPeriod = std::chrono::milliseconds(200);
constexpr auto kAnswerLimit = std::chrono::seconds(5);

// While it exists, the library's fatal endings come back to the tool, which looks at isOk() instead.
class NoFatalEnding {
public:
    NoFatalEnding() : former_(NwSetFatalHandler(ignore)) {}
    ~NoFatalEnding() { NwSetFatalHandler(former_); }
    NoFatalEnding(const NoFatalEnding&) = delete;
    NoFatalEnding& operator=(const NoFatalEnding&) = delete;

private:
    static void ignore(const char* /*message*/) {}

    NwFatalHandler former_;
};

// What the library keeps for classes derived from its client. The default socket is made by the library, so
// it cannot be of a class of the tool's own.
class ClientInside : public NwClientSocket {
public:
    static NwCsMsg* lastReceived(const NwClientSocket& socket) {
        return reinterpret_cast<NwCsMsg*>((socket.*&ClientInside::recvBuffer).get());
    }
    static int id(const NwClientSocket& socket) { return socket.*&ClientInside::clientId; }
};

// What the library said about an attach that failed, for somebody who knows no message kinds.
std::string reasonOfRefusal() {
    const std::string warning = takeLibraryWarning();
    if (warning.find("quota exceeded") != std::string::npos) return "it has no place left for a client";
    if (warning.find("timedRecv timeout") != std::string::npos) return "it does not answer";
    if (warning.find("getPs: 11 ") != std::string::npos)
        return "it refuses (its log says why; may this user attach?)";
    return warning.empty() ? "its shared memory is not there" : warning;
}

// The library's default socket does without such a server, and says so in two lines.
bool saidThatServerIsTooOld(const std::vector<std::string>& warnings) {
    return std::any_of(warnings.begin(), warnings.end(), [](const std::string& line) {
        return line.find("packet server from") != std::string::npos;
    });
}

[[noreturn]] void failToAttach(int port) {
    if (StopSignal::raised()) throw Failure("interrupted");
    throw Failure(fmt::format("cannot attach to the packet server of port {}: {}", port, reasonOfRefusal()));
}

// A server that this user cannot reach looks like none.
void failIfForbidden(int port) {
    char path[NwPacketServerPathSize];
    NwPacketServerRequestPath(static_cast<unsigned>(port), path, NwPacketServerVersion);
    if (::access(path, W_OK) != 0 && errno == EACCES)
        throw Failure(fmt::format("this user may not attach to the packet server of port {}", port));
}

bool isDropWarning(const NwCsMsg& message) {
    return message.kind == NwCsKindWarning && recordOf<NwCsWarningRecord>(message).code == NwCsWarningDropped;
}

// One that finds the queue full is lost: then the request is made anew.
NwCsMsg waitForAnswer(NwClientSocket& socket, int port, ServerRequest request, NwCsKind kind) {
    const Clock::time_point until = Clock::now() + kAnswerLimit;
    while (Clock::now() < until && !StopSignal::raised()) {
        int status = 0;
        char* packet = nullptr;
        socket.NwRecv(&packet, &status);
        if (!socket.isOk()) throwServerHasGone(socket, port);
        if (status == 0) waitForServer(socket, until);
        const std::optional<NwCsMsg> message = status == -1 ? takeMessage(socket) : std::nullopt;
        if (!message) continue;
        if (message->kind == kind) return *message;
        if (const auto refusal = refusalText(*message)) throw Failure(*refusal);
        if (isDropWarning(*message)) (socket.*request)();
    }
    throw Failure(StopSignal::raised() ? "interrupted"
                                       : fmt::format("the packet server of port {} does not answer", port));
}

}  // namespace

void SocketEnd::operator()(NwSocket* socket) const {
    auto* const client = dynamic_cast<NwClientSocket*>(socket);
    if (client == nullptr || client->isOk()) {
        delete socket;
        return;
    }
    const NoFatalEnding comesBack;
    client->cleanup();
}

SocketPtr<NwClientSocket> attachToServer(int port, NwIpv4Addr address, unsigned short flags) {
    const int alive = NwPacketServerIsAlive(port);
    if (alive == 0) failIfForbidden(port);
    if (alive == 0) throw Failure(fmt::format("no packet server serves port {} on this host", port));
    if (alive < 0) throw Failure(fmt::format("the packet server of port {} is too old", port));
    takeLibraryWarning();
    const NoFatalEnding comesBack;
    SocketPtr<NwClientSocket> socket(new NwClientSocket(
        port, address, -1, static_cast<unsigned short>(flags | NwClientSocket::nonBlockingFlag)));
    if (!socket->isOk()) failToAttach(port);
    return socket;
}

SocketPtr<NwSocket> openDefaultSocket(int port, NwIpv4Addr address, bool async) {
    takeLibraryWarning();
    const NoFatalEnding comesBack;
    SocketPtr<NwSocket> socket(NwNewDfltSocket(port, address, async));
    if (!socket->isOk()) {
        if (dynamic_cast<NwClientSocket*>(socket.get()) != nullptr) failToAttach(port);
        throw Failure(fmt::format("cannot open port {}: {}", port, takeLibraryReason("refused")));
    }
    if (saidThatServerIsTooOld(takeLibraryWarnings()))
        warningLine(fmt::format("the packet server of port {} is too old: going on without it", port));
    socket->NwBecomeNonBlocking();
    return socket;
}

unsigned idOf(const NwClientSocket& socket) {
    return static_cast<unsigned>(ClientInside::id(socket));
}

std::optional<NwCsMsg> takeMessage(NwClientSocket& socket) {
    NwCsMsg* const received = ClientInside::lastReceived(socket);
    if (received == nullptr || received->kind == NwCsKindData) return std::nullopt;
    const NwCsMsg message = *received;
    received->kind = NwCsKindData;  // a receive that fails leaves the buffer as it is
    return message;
}

std::optional<std::string> refusalText(const NwCsMsg& message) {
    if (message.kind != NwCsKindWarning) return std::nullopt;
    const auto warning = recordOf<NwCsWarningRecord>(message);
    if (warning.code != NwCsWarningRefused) return std::nullopt;
    const std::size_t length = std::min<std::size_t>(warning.textLength, sizeof warning.text);
    return "the packet server refuses: " + printable(std::string_view(warning.text, length));
}

NwCsMsg ask(NwClientSocket& socket, int port, ServerRequest request, NwCsKind kind) {
    (socket.*request)();
    return waitForAnswer(socket, port, request, kind);
}

std::vector<NwCsCStateReturnRecord> askClients(NwClientSocket& socket, int port) {
    constexpr ServerRequest request = &NwClientSocket::requestServerCStates;
    std::vector<NwCsCStateReturnRecord> all;
    socket.requestServerCStates();
    do {
        const auto state =
            recordOf<NwCsCStateReturnRecord>(waitForAnswer(socket, port, request, NwCsKindCStateReturn));
        if (state.index == 0) all.clear();  // it was asked anew
        all.push_back(state);
    } while (all.back().index + 1 < all.back().count);
    return all;
}

void throwServerHasGone(const NwClientSocket& socket, int port, ExitStatus statusOfStop) {
    const bool isStopped = socket.endNotice() == NwCsNoticeStopped;
    throw Failure(fmt::format("the packet server of port {} {}", port, isStopped ? "has stopped" : "is gone"),
                  isStopped ? statusOfStop : kExitFailed);
}

void waitForServer(NwClientSocket& socket, std::optional<Clock::time_point> until) {
    socket.notifyMe();
    const Clock::time_point nextLook = Clock::now() + kLookPeriod;
    StopSignal::wait(socket.readFd(), until ? std::min(*until, nextLook) : nextLook);
}

}  // namespace cvnet

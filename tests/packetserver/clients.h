// SPDX-License-Identifier: BSD-3-Clause
// Clients of a server under test: the library's, in this process or in one of its own, and one written out by
// hand that stops wherever a test wants.
#ifndef CVNC_TESTS_CLIENTS_H
#define CVNC_TESTS_CLIENTS_H

#include <cvNetworkCompatibility/cvClientSocket.h>
#include <sys/types.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "messages.h"

// Quiet sockets, and a fatal ending that is noted instead of ending the test program.
class Tame {
public:
    Tame();
    ~Tame();
    static int fatalEndings();

private:
    const Quiet myQuiet;
};

// A client socket whose inside can be seen, and which never waits unless block() is called.
class WatchedSocket : public NwClientSocket {
public:
    enum : unsigned short { data = defaultFlags, control = controlOnlyFlag };

    explicit WatchedSocket(int serverPort, unsigned short flags = data, unsigned int address = 0x7F000001u);

    // Receives wait from now on, until NwBecomeNonBlocking().
    void block();

    int id() const { return clientId; }
    std::string path() const { return notifyPath; }

    struct Item {
        enum Kind { nothing, packet, message } kind = nothing;
        std::string bytes;        // of a packet
        NwCsDataHeader header{};  // of a packet
        NwCsMsg text{};           // a message
    };
    // The next of the queue, if there is one.
    Item next();
    // Waits for a packet or message; fails the test when none comes.
    Item await();
    // Waits for a message of that kind; what comes before it is passed over.
    NwCsMsg awaitMessage(NwCsKind kind);
    NwCsMsg awaitNotice(NwCsNoticeCode code);
    NwCsMsg awaitWarning(NwCsWarningCode code);
    std::string awaitPacket();

    NwCsStateReturnRecord serverState();
    std::vector<NwCsCStateReturnRecord> clientStates();
    // Of one client; the last one of that number.
    NwCsCStateReturnRecord stateOf(int which);
    // Returns when the server has done what was asked for before.
    void settle() { serverState(); }
};

// What one process says to the other, in order and whole.
class Line {
public:
    explicit Line(int fd) : myFd(fd) {}
    void say(const std::string& text) const;
    // Waits; false when the other end is gone, or patience ends.
    bool hear(std::string& text) const;
    std::string hear() const;  // fails the test (ends a child) when nothing comes
    bool isHeard() const;      // something can be heard now

private:
    int myFd;
};

// A child process that does some work and talks to this one over a line.
class ClientProcess {
public:
    using Work = std::function<int(const Line&)>;

    // As another user, if one is given (root's privilege).
    explicit ClientProcess(const Work& work, unsigned user = 0);
    ~ClientProcess();  // killed, if it runs
    ClientProcess(const ClientProcess&) = delete;
    ClientProcess& operator=(const ClientProcess&) = delete;

    pid_t pid() const { return myPid; }
    void say(const std::string& text) const { myLine.say(text); }
    std::string hear() const { return myLine.hear(); }
    bool hear(std::string& text) const { return myLine.hear(text); }
    void signal(int number) const;
    void kill();
    bool hasEnded();
    // The exit status, or minus the signal that ended it. Waits; kills it when patience ends.
    int finish();
    // What it wrote on standard error.
    std::string errors() const;

private:
    void reap(int options);

    pid_t myPid = -1;
    int myFd = -1;
    int myErrors = -1;
    Line myLine;
    bool myIsFinished = false;
    int myStatus = 0;
};

// The handshake, step by step, and any request: what a client does, or a foe.
class BareClient {
public:
    explicit BareClient(const std::string& requestPath);
    ~BareClient();
    BareClient(const BareClient&) = delete;
    BareClient& operator=(const BareClient&) = delete;

    // The steps in order; each needs those before.
    void bindNotify();
    void ask(unsigned short flags = NwClientSocket::defaultFlags, int pid = ::getpid());
    bool awaitAnswer(int milliseconds = 20000);  // any; it is in `answer`
    bool attach();                               // true: the segment is attached
    void reportFilters();

    // Any request, as bytes; the result of the system call.
    ssize_t request(const void* bytes, std::size_t length) const;
    ssize_t request(const NwCsMsg& message, int size) const {
        return request(&message, static_cast<std::size_t>(size));
    }
    ssize_t askWithPath(const std::string& path) const;
    NwCsAckRecord ack() const;

    int requestFd = -1;
    int notifyFd = -1;
    std::string notifyPath;
    NwCsMsg answer{};
    int shmId = -1;
    char* base = nullptr;
    std::size_t segmentBytes = 0;
};

#endif

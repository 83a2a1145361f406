// SPDX-License-Identifier: BSD-3-Clause
// Networks for tests: a private one for each test process, second hosts in namespaces, raw UDP peers.
#ifndef CVNC_TESTS_NETWORK_H
#define CVNC_TESTS_NETWORK_H

#include <cvutil/cvInetAddr.h>

#include <functional>
#include <set>
#include <string>

const NwIpv4Addr kLoopback = 0x7F000001u;

// How long a test waits for what must happen: far beyond any healthy delay.
const int kPatienceMilliseconds = 20000;

// Whether this process runs in a network namespace of its own (main() tries at the start), with loopback
// up and no other interface, and with System V shared memory of its own. Tests that need interfaces skip,
// with privateNetworkProblem(), where it does not.
bool enterPrivateNetwork();
bool hasPrivateNetwork();
const std::string& privateNetworkProblem();
#define REQUIRE_PRIVATE_NETWORK() \
    if (!hasPrivateNetwork()) GTEST_SKIP() << "needs a network namespace: " << privateNetworkProblem()

// Runs a command line in the current namespace; throws std::runtime_error with its output if it fails.
void run(const std::string& command);

// Another host: a network namespace with loopback up. Sockets made inside in() stay in it.
class Host {
public:
    Host();
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // Runs work (on this thread) as if on that host.
    void in(const std::function<void()>& work) const;
    // A virtual cable between this process's host and that one, ready to carry packets when the call returns.
    // Addresses with prefix length: "10.9.0.1/24".
    void connect(const std::string& hereName, const std::string& hereAddress, const std::string& thereName,
                 const std::string& thereAddress) const;
    // A virtual cable between two other hosts.
    void connect(const std::string& name, const std::string& address, const Host& other,
                 const std::string& otherName, const std::string& otherAddress) const;
    // The namespace as a path for `ip link ... netns`.
    std::string path() const;

private:
    int myNamespace;
};

// A raw POSIX UDP socket as the other side: what is on the wire, byte for byte.
class UdpPeer {
public:
    // Bound to address and port (0: the kernel chooses), with port reuse if asked for.
    explicit UdpPeer(NwIpv4Addr address = kLoopback, int port = 0, bool reuse = false);
    ~UdpPeer();
    UdpPeer(const UdpPeer&) = delete;
    UdpPeer& operator=(const UdpPeer&) = delete;

    int fd() const { return myFd; }
    int port() const;
    // Sends one datagram; it must be taken whole.
    void send(const std::string& bytes, int port, NwIpv4Addr address = kLoopback);
    // The next datagram; waits for it, and fails the test when none comes.
    std::string receive();
    // Whether nothing waits now.
    bool isEmpty();
    NwIpv4Addr lastSender() const { return mySender; }
    int lastSenderPort() const { return mySenderPort; }

private:
    int myFd;
    NwIpv4Addr mySender = 0;
    int mySenderPort = 0;
};

// The address that a dotted quad names; throws for anything else.
NwIpv4Addr ipv4(const std::string& dottedQuad);
// The groups that sockets of the current host have joined on one of its interfaces; the all-hosts group,
// which every interface has by itself, is left out.
std::set<NwIpv4Addr> groupsJoinedOn(const std::string& interfaceName);
// A UDP port that was free a moment ago (of all addresses).
int freePort();
// Waits until fd is readable; false when patience ends.
bool waitReadable(int fd, int milliseconds = kPatienceMilliseconds);
// Waits until condition holds; false when patience ends.
bool eventually(const std::function<bool()>& condition, int milliseconds = kPatienceMilliseconds);

#endif

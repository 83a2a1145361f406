// SPDX-License-Identifier: BSD-3-Clause
#include "network.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

bool isPrivate = false;
std::string problem = "not tried";

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

bool loopbackUp() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request = {};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING | IFF_LOOPBACK;
    const bool up = ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    ::close(fd);
    return up;
}

bool writeFile(const char* path, const std::string& text) {
    std::ofstream file(path);
    file << text << std::flush;
    return bool(file);
}

bool unshareNetwork() {
    if (::unshare(CLONE_NEWNET) == 0) return true;
    const uid_t user = ::getuid();
    const gid_t group = ::getgid();
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
    return writeFile("/proc/self/setgroups", "deny") &&
           writeFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1") &&
           writeFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
}

bool isRunning(const std::string& interfaceName) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request = {};
    interfaceName.copy(request.ifr_name, IFNAMSIZ - 1);
    const bool running = ::ioctl(fd, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_RUNNING);
    ::close(fd);
    return running;
}

// An end of a cable takes up its work a moment after the other end came up; what is sent earlier is lost.
// Asking for the link and setting it to what it is make the kernel finish what it has put off, under its own
// lock.
void waitForCable(const std::string& interfaceName) {
    const auto finish = [&] {
        run("ip link show dev " + interfaceName + " && ip link set " + interfaceName + " up");
    };
    finish();
    if (!eventually([&] { return isRunning(interfaceName); }))
        throw std::runtime_error(interfaceName + " does not come up");
    finish();
}

int openNamespace() {
    const int fd = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (fd < 0) fail("/proc/thread-self/ns/net");
    return fd;
}

sockaddr_in socketAddress(NwIpv4Addr address, int port) {
    sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(address);
    result.sin_port = htons(static_cast<in_port_t>(port));
    return result;
}

}  // namespace

bool enterPrivateNetwork() {
    isPrivate = unshareNetwork() && loopbackUp();
    if (!isPrivate) problem = std::strerror(errno);
    // Shared memory as well: its keys come from port numbers, which mean something else in each network.
    if (isPrivate) ::unshare(CLONE_NEWIPC);
    return isPrivate;
}

bool hasPrivateNetwork() {
    return isPrivate;
}

const std::string& privateNetworkProblem() {
    return problem;
}

void run(const std::string& command) {
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (!pipe) fail(command);
    std::string output;
    char part[256];
    while (std::fgets(part, sizeof part, pipe)) output += part;
    if (::pclose(pipe) != 0) throw std::runtime_error(command + ": " + output);
}

Host::Host() : myNamespace(-1) {
    const int home = openNamespace();
    if (::unshare(CLONE_NEWNET) != 0) fail("unshare");
    myNamespace = openNamespace();
    loopbackUp();
    if (::setns(home, CLONE_NEWNET) != 0) fail("setns");
    ::close(home);
}

Host::~Host() {
    ::close(myNamespace);
}

void Host::in(const std::function<void()>& work) const {
    const int home = openNamespace();
    if (::setns(myNamespace, CLONE_NEWNET) != 0) fail("setns");
    try {
        work();
    } catch (...) {
        ::setns(home, CLONE_NEWNET);
        ::close(home);
        throw;
    }
    if (::setns(home, CLONE_NEWNET) != 0) fail("setns");
    ::close(home);
}

std::string Host::path() const {
    return "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(myNamespace);
}

void Host::connect(const std::string& hereName, const std::string& hereAddress, const std::string& thereName,
                   const std::string& thereAddress) const {
    run("ip link add " + hereName + " type veth peer name " + thereName + " netns " + path());
    run("ip addr add " + hereAddress + " brd + dev " + hereName + " && ip link set " + hereName + " up");
    in([&] {
        run("ip addr add " + thereAddress + " brd + dev " + thereName + " && ip link set " + thereName +
            " up");
    });
    waitForCable(hereName);
    in([&] { waitForCable(thereName); });
}

void Host::connect(const std::string& name, const std::string& address, const Host& other,
                   const std::string& otherName, const std::string& otherAddress) const {
    in([&] { other.connect(name, address, otherName, otherAddress); });
}

UdpPeer::UdpPeer(NwIpv4Addr address, int port, bool reuse)
    : myFd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    if (myFd < 0) fail("socket");
    const int on = 1;
    ::setsockopt(myFd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    if (reuse) {
        ::setsockopt(myFd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
        ::setsockopt(myFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    }
    const sockaddr_in local = socketAddress(address, port);
    if (::bind(myFd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) fail("bind");
}

UdpPeer::~UdpPeer() {
    ::close(myFd);
}

int UdpPeer::port() const {
    sockaddr_in local = {};
    socklen_t size = sizeof local;
    ::getsockname(myFd, reinterpret_cast<sockaddr*>(&local), &size);
    return ntohs(local.sin_port);
}

void UdpPeer::send(const std::string& bytes, int port, NwIpv4Addr address) {
    const sockaddr_in to = socketAddress(address, port);
    const ssize_t sent =
        ::sendto(myFd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    if (sent != static_cast<ssize_t>(bytes.size())) fail("sendto");
}

std::string UdpPeer::receive() {
    if (!waitReadable(myFd)) {
        ADD_FAILURE() << "no datagram came";
        return std::string();
    }
    std::vector<char> bytes(65536);
    sockaddr_in from = {};
    socklen_t size = sizeof from;
    const ssize_t length =
        ::recvfrom(myFd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&from), &size);
    if (length < 0) fail("recvfrom");
    mySender = ntohl(from.sin_addr.s_addr);
    mySenderPort = ntohs(from.sin_port);
    return std::string(bytes.data(), static_cast<std::size_t>(length));
}

bool UdpPeer::isEmpty() {
    return !waitReadable(myFd, 0);
}

NwIpv4Addr ipv4(const std::string& dottedQuad) {
    NwIpv4Addr address = 0;
    if (!NwInetAddrFromString(dottedQuad.c_str(), &address))
        throw std::runtime_error("no address: " + dottedQuad);
    return address;
}

std::set<NwIpv4Addr> groupsJoinedOn(const std::string& interfaceName) {
    // An unindented line names the interface; indented ones below it begin with a group, in hexadecimal as
    // the host reads its four bytes.
    const NwIpv4Addr kAllHosts = 0xE0000001u;
    std::ifstream table("/proc/thread-self/net/igmp");
    std::set<NwIpv4Addr> groups;
    std::string line, index, name;
    while (std::getline(table, line)) {
        std::istringstream words(line);
        if (line.compare(0, 1, "\t") != 0) {
            words >> index >> name;
            name = name.substr(0, name.find(':'));
        } else if (name == interfaceName) {
            NwIpv4Addr networkOrder = 0;
            words >> std::hex >> networkOrder;
            groups.insert(ntohl(networkOrder));
        }
    }
    groups.erase(kAllHosts);
    return groups;
}

int freePort() {
    return UdpPeer(0).port();
}

bool waitReadable(int fd, int milliseconds) {
    pollfd entry = {fd, POLLIN, 0};
    int ready;
    do ready = ::poll(&entry, 1, milliseconds);
    while (ready < 0 && errno == EINTR);
    return ready > 0;
}

bool eventually(const std::function<bool()>& condition, int milliseconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

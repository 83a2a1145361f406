// SPDX-License-Identifier: BSD-3-Clause
// What the library knows of the host's network interfaces: addresses, masks, broadcast addresses, the default
// one.
#include <cvNetworkCompatibility/cvNetSocket.h>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "messages.h"
#include "network.h"
#include "process.h"

namespace {

// Answers in place of the system: the result of the call, or kAskTheSystem.
using IoctlAnswer = std::function<int(unsigned long request, ifreq* entry)>;
const int kAskTheSystem = 1;
IoctlAnswer answerInstead;

bool descriptorsAreUsedUp = false;

}  // namespace

// Stands before the system's ioctl in this program, the library included, so that questions fail when a test
// says so.
extern "C" __attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (answerInstead) {
        const int result = answerInstead(request, static_cast<ifreq*>(argument));
        if (result != kAskTheSystem) return result;
    }
    return static_cast<int>(::syscall(SYS_ioctl, fd, request, argument));
}

// The same for socket(). (A limit on the process would do, but it disturbs the sanitizers.)
extern "C" __attribute__((visibility("default"))) int socket(int domain, int type, int protocol) noexcept {
    if (!descriptorsAreUsedUp) return static_cast<int>(::syscall(SYS_socket, domain, type, protocol));
    errno = EMFILE;
    return -1;
}

namespace {

const char* const kNoneCapable = "Couldn't find an IP interface capable of broadcast.\n";

std::string notCapable(const std::string& name) {
    return name + " not an IP interface capable of broadcast.\n";
}

// From here to the end of the scope the system fails one request.
class Refuse {
public:
    Refuse(unsigned long refused, int error) {
        answerInstead = [=](unsigned long request, ifreq*) {
            if (request != refused) return kAskTheSystem;
            errno = error;
            return -1;
        };
    }
    ~Refuse() { answerInstead = nullptr; }
};

// From here to the end of the scope the system gives out no descriptor.
class NoMoreDescriptors {
public:
    NoMoreDescriptors() { descriptorsAreUsedUp = true; }
    ~NoMoreDescriptors() { descriptorsAreUsedUp = false; }
};

ifreq entryNamed(const std::string& name, int family = AF_INET) {
    ifreq entry = {};
    name.copy(entry.ifr_name, IFNAMSIZ - 1);
    entry.ifr_addr.sa_family = static_cast<sa_family_t>(family);
    return entry;
}

ifconf listOf(std::vector<ifreq>& entries) {
    ifconf list = {};
    list.ifc_len = static_cast<int>(entries.size() * sizeof(ifreq));
    list.ifc_req = entries.data();
    return list;
}

// The three questions, as statics of the class and as free functions.
struct Query {
    const char* name;
    NwIpv4Addr (*ask)(const char*);
    NwIpv4Addr (*askFree)(const char*);
};
const Query kQueries[] = {
    {"inetAddrOfDevice", NwNetSocket::inetAddrOfDevice, NwInetAddrOfDevice},
    {"inetBroadcastOfDevice", NwNetSocket::inetBroadcastOfDevice, NwInetBroadcastOfDevice},
    {"netMaskOfDevice", NwNetSocket::netMaskOfDevice, NwNetMaskOfDevice},
};

// Address, mask and broadcast address of an interface, each from both forms of the question.
struct Answers {
    NwIpv4Addr address, mask, broadcast;
};

Answers askAll(const char* name) {
    for (const Query& query : kQueries) EXPECT_EQ(query.askFree(name), query.ask(name)) << query.name;
    return {NwInetAddrOfDevice(name), NwNetMaskOfDevice(name), NwInetBroadcastOfDevice(name)};
}

std::string text(const Answers& answers) {
    return std::string(NwInetAddrString(answers.address)) + " " + NwInetAddrString(answers.mask) + " " +
           NwInetAddrString(answers.broadcast);
}

// Each test has a host for itself: loopback, and what the test adds.
class Interfaces : public testing::Test {
protected:
    void SetUp() override {
        REQUIRE_PRIVATE_NETWORK();
        ASSERT_TRUE(enterPrivateNetwork()) << privateNetworkProblem();
    }

    // An Ethernet-like interface without an address, down.
    void addInterface(const std::string& name) { run("ip link add " + name + " type veth"); }
    void addAddress(const std::string& name, const std::string& addressAndMore) {
        run("ip addr add " + addressAndMore + " dev " + name);
    }
    void up(const std::string& name) { run("ip link set " + name + " up"); }
    void addUp(const std::string& name, const std::string& addressAndMore) {
        addInterface(name);
        addAddress(name, addressAndMore);
        up(name);
    }
    // An interface that cannot broadcast. False where the system has none.
    bool addPointToPoint(const std::string& name, const std::string& address) {
        try {
            run("ip tuntap add dev " + name + " mode tun");
        } catch (const std::runtime_error&) {
            return false;
        }
        addAddress(name, address);
        up(name);
        return true;
    }

    // No message of any kind since the last look.
    void expectSilence() { EXPECT_EQ(messages.all(), ""); }
    // Just this warning, and nothing else.
    void expectWarning(const std::string& warning) {
        EXPECT_EQ(messages.warn(), warning);
        expectSilence();
    }

    Messages messages;
};

class UdpDescriptor {
public:
    UdpDescriptor() : myFd(::socket(AF_INET, SOCK_DGRAM, 0)) {}
    ~UdpDescriptor() { ::close(myFd); }
    operator int() const { return myFd; }

private:
    int myFd;
};

// --- what is a group ---

TEST(MulticastAddress, isOneWhoseTopFourBitsAre1110) {
    for (const char* group : {"224.0.0.0", "224.0.0.1", "230.1.2.3", "239.1.2.3", "239.255.255.255"}) {
        EXPECT_TRUE(NwIsMulticastAddr(ipv4(group))) << group;
        EXPECT_TRUE(NwNetSocket::isMulticastAddr(ipv4(group))) << group;
    }
    for (const char* other : {"0.0.0.0", "10.1.2.3", "14.0.0.1", "96.0.0.1", "127.0.0.1", "160.0.0.1",
                              "192.0.0.1", "223.255.255.255", "240.0.0.0", "255.255.255.255"}) {
        EXPECT_FALSE(NwIsMulticastAddr(ipv4(other))) << other;
        EXPECT_FALSE(NwNetSocket::isMulticastAddr(ipv4(other))) << other;
    }
}

// --- the default interface ---

TEST_F(Interfaces, theOnlyOneThatCanBroadcastIsTheDefault) {
    addUp("va", "192.168.1.20/24");
    EXPECT_EQ(text(askAll(nullptr)), "192.168.1.20 255.255.255.0 192.168.1.255");
    EXPECT_EQ(NwFirstHostInetAddr(), ipv4("192.168.1.20"));
    EXPECT_EQ(NwNetSocket::firstHostInetAddr(), ipv4("192.168.1.20"));
    expectSilence();
}

TEST_F(Interfaces, theFirstInTheSystemsOrderIsTheDefault) {
    addUp("vb", "10.9.0.2/16");
    addUp("va", "10.1.0.1/24");
    EXPECT_EQ(text(askAll(nullptr)), "10.9.0.2 255.255.0.0 10.9.255.255");
}

TEST_F(Interfaces, oneThatIsDownIsSkipped) {
    addInterface("va");
    addAddress("va", "10.1.0.1/24");
    addUp("vb", "10.2.0.1/24");
    EXPECT_EQ(text(askAll(nullptr)), "10.2.0.1 255.255.255.0 10.2.0.255");
    up("va");
    EXPECT_EQ(text(askAll(nullptr)), "10.1.0.1 255.255.255.0 10.1.0.255");
    run("ip link set va down");
    run("ip link set vb down");
    EXPECT_EQ(NwFirstHostInetAddr(), 0u);
    expectWarning(kNoneCapable);
}

TEST_F(Interfaces, oneWithoutAnAddressIsNotSeen) {
    addInterface("va");
    up("va");
    addUp("vb", "10.2.0.1/24");
    EXPECT_EQ(NwFirstHostInetAddr(), ipv4("10.2.0.1"));
    EXPECT_EQ(NwInetAddrOfDevice("va"), 0u);
    expectWarning(notCapable("va"));
}

TEST_F(Interfaces, oneThatCannotBroadcastIsSkipped) {
    if (!addPointToPoint("tun0", "10.5.0.1/24")) GTEST_SKIP() << "no tunnel interfaces on this system";
    EXPECT_EQ(NwFirstHostInetAddr(), 0u);
    expectWarning(kNoneCapable);
    addUp("va", "10.6.0.1/24");
    EXPECT_EQ(NwFirstHostInetAddr(), ipv4("10.6.0.1"));
    EXPECT_EQ(text(askAll("tun0")), "10.5.0.1 255.255.255.0 10.5.0.255");
    expectSilence();
}

TEST_F(Interfaces, aHostWithLoopbackAloneHasNoDefault) {
    for (const Query& query : kQueries) {
        EXPECT_EQ(query.ask(nullptr), 0u) << query.name;
        expectWarning(kNoneCapable);
        EXPECT_EQ(query.askFree(nullptr), 0u) << query.name;
        expectWarning(kNoneCapable);
    }
    EXPECT_EQ(NwFirstHostInetAddr(), 0u);
    expectWarning(kNoneCapable);
    EXPECT_EQ(NwNetSocket::firstHostInetAddr(), 0u);
    expectWarning(kNoneCapable);
}

TEST_F(Interfaces, quietSocketsKeepTheWarningsToThemselves) {
    Quiet quiet;
    for (const Query& query : kQueries) {
        EXPECT_EQ(query.ask(nullptr), 0u) << query.name;
        EXPECT_EQ(query.ask("va"), 0u) << query.name;
    }
    expectSilence();
}

// --- one interface by its name ---

TEST_F(Interfaces, aNamedOneIsNotTestedForBroadcast) {
    EXPECT_EQ(text(askAll("lo")), "127.0.0.1 255.0.0.0 127.255.255.255");
    addInterface("va");
    addAddress("va", "10.1.0.1/24");
    EXPECT_EQ(text(askAll("va")), "10.1.0.1 255.255.255.0 10.1.0.255");  // although it is down
    expectSilence();
}

TEST_F(Interfaces, aNamedOneIsNotAskedForItsFlags) {
    addUp("va", "10.1.0.1/24");
    Refuse flags(SIOCGIFFLAGS, EPERM);
    EXPECT_EQ(text(askAll("va")), "10.1.0.1 255.255.255.0 10.1.0.255");
    expectSilence();
}

// The three share the wording, although only one of them asks for a broadcast address.
TEST_F(Interfaces, anUnknownNameIsToldInTheSameWordsByAllThree) {
    for (const Query& query : kQueries) {
        EXPECT_EQ(query.ask("nosuch0"), 0u) << query.name;
        expectWarning("nosuch0 not an IP interface capable of broadcast.\n");
        EXPECT_EQ(query.askFree("nosuch0"), 0u) << query.name;
        expectWarning("nosuch0 not an IP interface capable of broadcast.\n");
    }
}

TEST_F(Interfaces, aNameMustBeTheWholeName) {
    addUp("veth15charslong", "10.1.0.1/24");  // as long as names get
    EXPECT_EQ(NwInetAddrOfDevice("veth15charslong"), ipv4("10.1.0.1"));
    for (const char* other :
         {"", "v", "veth15charslon", "veth15charslonG", "VETH15CHARSLONG", " veth15charslong",
          "veth15charslongX", "veth15charslong and more", "l", "loo", "%s%n"}) {
        EXPECT_EQ(NwInetAddrOfDevice(other), 0u) << other;
        expectWarning(notCapable(other));
    }
}

TEST_F(Interfaces, masksOfEveryWidth) {
    const struct {
        const char* address;
        const char* expected;
    } table[] = {
        {"10.11.12.13/32", "10.11.12.13 255.255.255.255 10.11.12.13"},
        {"10.11.12.13/31", "10.11.12.13 255.255.255.254 10.11.12.13"},
        {"10.11.12.12/31", "10.11.12.12 255.255.255.254 10.11.12.13"},
        {"10.11.12.13/30", "10.11.12.13 255.255.255.252 10.11.12.15"},
        {"10.11.12.13/25", "10.11.12.13 255.255.255.128 10.11.12.127"},
        {"10.11.12.13/24", "10.11.12.13 255.255.255.0 10.11.12.255"},
        {"10.11.12.13/23", "10.11.12.13 255.255.254.0 10.11.13.255"},
        {"10.11.12.13/16", "10.11.12.13 255.255.0.0 10.11.255.255"},
        {"10.11.12.13/8", "10.11.12.13 255.0.0.0 10.255.255.255"},
        {"10.11.12.13/1", "10.11.12.13 128.0.0.0 127.255.255.255"},
        {"10.11.12.13/0", "10.11.12.13 0.0.0.0 255.255.255.255"},
        {"192.168.255.254/17", "192.168.255.254 255.255.128.0 192.168.255.255"},
    };
    addInterface("va");
    up("va");
    for (const auto& row : table) {
        run("ip addr flush dev va");
        addAddress("va", row.address);
        EXPECT_EQ(text(askAll("va")), row.expected) << row.address;
        EXPECT_EQ(text(askAll(nullptr)), row.expected) << row.address;
    }
    expectSilence();
}

TEST_F(Interfaces, theBroadcastAddressIsComputedNotAsked) {
    addUp("va", "10.1.2.3/24 brd 10.1.2.77");
    addUp("vb", "10.1.3.3/24");  // the system was told no broadcast address at all
    EXPECT_EQ(NwInetBroadcastOfDevice("va"), ipv4("10.1.2.255"));
    EXPECT_EQ(NwInetBroadcastOfDevice(nullptr), ipv4("10.1.2.255"));
    EXPECT_EQ(NwInetBroadcastOfDevice("vb"), ipv4("10.1.3.255"));
}

TEST_F(Interfaces, aFurtherAddressIsReachedByItsLabel) {
    addUp("va", "10.1.0.1/24");
    addAddress("va", "10.2.0.1/16 label va:1");
    EXPECT_EQ(text(askAll("va:1")), "10.2.0.1 255.255.0.0 10.2.255.255");
    EXPECT_EQ(text(askAll("va")), "10.1.0.1 255.255.255.0 10.1.0.255");
    EXPECT_EQ(text(askAll(nullptr)), "10.1.0.1 255.255.255.0 10.1.0.255");
}

TEST_F(Interfaces, noneBeyondThe204thIsSeen) {
    const int kRoom = 8192 / static_cast<int>(sizeof(ifreq));
    ASSERT_EQ(kRoom, 204);
    addInterface("va");
    addUp("vb", "10.99.0.1/24");
    std::string commands;
    const int ofVa = kRoom - 2;  // beside loopback's and vb's
    for (int i = 0; i < ofVa; ++i) commands += "addr add 10.1." + std::to_string(i) + ".1/24 dev va\n";
    const std::string path = testing::TempDir() + "cv_addresses_" + std::to_string(::getpid());
    std::ofstream(path) << commands;
    run("ip -batch " + path);
    ::unlink(path.c_str());

    EXPECT_EQ(NwInetAddrOfDevice("vb"), ipv4("10.99.0.1"));
    EXPECT_EQ(NwFirstHostInetAddr(), ipv4("10.99.0.1"));
    expectSilence();
    addAddress("va", "10.2.0.1/24");
    EXPECT_EQ(NwInetAddrOfDevice("vb"), 0u);
    expectWarning(notCapable("vb"));
    EXPECT_EQ(NwFirstHostInetAddr(), 0u);
    expectWarning(kNoneCapable);
}

TEST_F(Interfaces, oneThatGoesAwayIsUnknownFromThenOn) {
    addUp("va", "10.1.0.1/24");
    EXPECT_EQ(NwInetAddrOfDevice("va"), ipv4("10.1.0.1"));
    run("ip link del va");
    EXPECT_EQ(NwInetAddrOfDevice("va"), 0u);
    expectWarning(notCapable("va"));
    EXPECT_EQ(NwFirstHostInetAddr(), 0u);
    expectWarning(kNoneCapable);
}

// --- refusals of the system ---

TEST_F(Interfaces, withoutADescriptorEachQueryReportsUnderItsOwnName) {
    addUp("va", "10.1.0.1/24");
    for (const Query& query : kQueries) {
        for (const char* device : {static_cast<const char*>(nullptr), "va"}) {
            NwIpv4Addr answer = 1;
            {
                NoMoreDescriptors none;
                answer = query.ask(device);
            }
            EXPECT_EQ(answer, 0u);
            expectWarning(systemReport(std::string(query.name) + " socket", EMFILE));
        }
    }
    {
        NoMoreDescriptors none;
        EXPECT_EQ(NwFirstHostInetAddr(), 0u);
    }
    expectWarning(systemReport("inetAddrOfDevice socket", EMFILE));
}

TEST_F(Interfaces, withoutADescriptorQuietQueriesSayNothing) {
    Quiet quiet;
    {
        NoMoreDescriptors none;
        for (const Query& query : kQueries) EXPECT_EQ(query.ask("lo"), 0u) << query.name;
    }
    expectSilence();
}

// Meant so: the descriptor of a query whose list cannot be had is not closed.
TEST_F(Interfaces, aListThatCannotBeHadLeavesTheDescriptorOpen) {
    for (const Query& query : kQueries) {
        for (const char* device : {static_cast<const char*>(nullptr), "lo"}) {
            const int before = openDescriptors();
            {
                Refuse list(SIOCGIFCONF, EPERM);
                EXPECT_EQ(query.ask(device), 0u) << query.name;
            }
            EXPECT_EQ(openDescriptors(), before + 1) << query.name;
            expectWarning(systemReport("getConfig failed to get host network config", EPERM));
        }
    }
}

TEST_F(Interfaces, aListThatCannotBeHadIsReportedEvenByQuietSockets) {
    Quiet quiet;
    Refuse list(SIOCGIFCONF, EPERM);
    EXPECT_EQ(NwFirstHostInetAddr(), 0u);
    expectWarning(systemReport("getConfig failed to get host network config", EPERM));
}

TEST_F(Interfaces, everyOtherQueryClosesItsDescriptor) {
    addUp("va", "10.1.0.1/24");
    const int before = openDescriptors();
    for (const Query& query : kQueries) {
        for (const char* device : {static_cast<const char*>(nullptr), "lo", "va", "nosuch0"})
            query.ask(device);
    }
    {
        Refuse address(SIOCGIFADDR, EPERM);
        NwInetAddrOfDevice("va");
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(Interfaces, anAddressThatCannotBeHadIsReported) {
    addUp("va", "10.1.0.1/24");
    const std::string report = systemReport("Couldn't get my address on interface.", EPERM);
    Refuse address(SIOCGIFADDR, EPERM);
    EXPECT_EQ(NwInetAddrOfDevice("va"), 0u);
    expectWarning(report);
    EXPECT_EQ(NwFirstHostInetAddr(), 0u);
    expectWarning(report);
    EXPECT_EQ(NwInetBroadcastOfDevice("va"), 0u);  // not the complement of the mask
    expectWarning(report);
    EXPECT_EQ(NwNetMaskOfDevice("va"), ipv4("255.255.255.0"));
    expectSilence();
    Quiet quiet;
    EXPECT_EQ(NwInetAddrOfDevice("va"), 0u);
    EXPECT_EQ(NwInetBroadcastOfDevice("va"), 0u);
    expectSilence();
}

TEST_F(Interfaces, aMaskThatCannotBeHadIsReported) {
    addUp("va", "10.1.0.1/24");
    const std::string report = systemReport("Couldn't get netmask on interface", EPERM);
    Refuse mask(SIOCGIFNETMASK, EPERM);
    EXPECT_EQ(NwNetMaskOfDevice("va"), 0u);
    expectWarning(report);
    EXPECT_EQ(NwInetBroadcastOfDevice("va"), 0u);  // not 255.255.255.255
    expectWarning(report);
    EXPECT_EQ(NwInetAddrOfDevice("va"), ipv4("10.1.0.1"));
    expectSilence();
    Quiet quiet;
    EXPECT_EQ(NwNetMaskOfDevice("va"), 0u);
    EXPECT_EQ(NwInetBroadcastOfDevice("va"), 0u);
    expectSilence();
}

TEST_F(Interfaces, flagsThatCannotBeHadMakeAnEntryIncapable) {
    addUp("va", "10.1.0.1/24");
    const std::string report = systemReport("Couldn't get network interface flags", EPERM);
    {
        Refuse flags(SIOCGIFFLAGS, EPERM);
        EXPECT_EQ(NwFirstHostInetAddr(), 0u);
        expectWarning(report + report + kNoneCapable);  // loopback, then va
        Quiet quiet;
        EXPECT_EQ(NwFirstHostInetAddr(), 0u);
        expectSilence();
    }
    EXPECT_EQ(NwFirstHostInetAddr(), ipv4("10.1.0.1"));
}

// --- the pieces ---

TEST_F(Interfaces, findIfrTakesTheFirstEntryOfThatNameWhateverItIs) {
    UdpDescriptor fd;
    std::vector<ifreq> entries = {entryNamed("aa"), entryNamed("nosuch0", AF_INET6), entryNamed("lo"),
                                  entryNamed("nosuch0")};
    ifconf list = listOf(entries);
    EXPECT_EQ(NwNetSocket::findIfr("nosuch0", fd, &list), &entries[1]);
    EXPECT_EQ(NwNetSocket::findIfr("lo", fd, &list), &entries[2]);
    EXPECT_EQ(NwNetSocket::findIfr("aa", -1, &list), &entries[0]);
    EXPECT_EQ(NwNetSocket::findIfr("a", fd, &list), nullptr);
    EXPECT_EQ(NwNetSocket::findIfr("aaa", fd, &list), nullptr);
    EXPECT_EQ(NwNetSocket::findIfr("", fd, &list), nullptr);
    expectSilence();
}

TEST_F(Interfaces, findIfrWithoutANameTakesTheFirstThatCanBroadcast) {
    addUp("va", "10.1.0.1/24");
    addUp("vb", "10.2.0.1/24");
    UdpDescriptor fd;
    std::vector<ifreq> entries = {entryNamed("lo"), entryNamed("va", AF_INET6), entryNamed("vb"),
                                  entryNamed("va")};
    ifconf list = listOf(entries);
    EXPECT_EQ(NwNetSocket::findIfr(nullptr, fd, &list), &entries[2]);
    entries.resize(2);
    list = listOf(entries);
    EXPECT_EQ(NwNetSocket::findIfr(nullptr, fd, &list), nullptr);
    expectSilence();
}

TEST_F(Interfaces, findIfrLooksOnlyAtWholeEntriesInsideTheList) {
    UdpDescriptor fd;
    std::vector<ifreq> entries = {entryNamed("aa"), entryNamed("bb")};
    ifconf list = listOf(entries);
    for (int length : {0, static_cast<int>(sizeof(ifreq)) - 1, -1, -static_cast<int>(sizeof(ifreq)),
                       std::numeric_limits<int>::min()}) {
        list.ifc_len = length;
        EXPECT_EQ(NwNetSocket::findIfr("aa", fd, &list), nullptr) << length;
    }
    list.ifc_len = static_cast<int>(2 * sizeof(ifreq)) - 1;
    EXPECT_EQ(NwNetSocket::findIfr("aa", fd, &list), &entries[0]);
    EXPECT_EQ(NwNetSocket::findIfr("bb", fd, &list), nullptr);
}

TEST_F(Interfaces, aNameThatFillsItsFieldIsNotReadBeyondIt) {
    UdpDescriptor fd;
    std::vector<ifreq> entries = {entryNamed("")};
    std::memset(entries[0].ifr_name, 'x', IFNAMSIZ);
    std::memset(&entries[0].ifr_addr, 'x', sizeof entries[0].ifr_addr);
    ifconf list = listOf(entries);
    EXPECT_EQ(NwNetSocket::findIfr("xxxxxxxxxxxxxxx", fd, &list), nullptr);  // 15: a shorter name
}

TEST_F(Interfaces, capableMeansUpAndBroadcastAndNotLoopback) {
    addUp("va", "10.1.0.1/24");
    UdpDescriptor fd;
    const struct {
        int flags;
        bool capable;
    } table[] = {
        {IFF_UP | IFF_BROADCAST, true},
        {IFF_UP | IFF_BROADCAST | IFF_RUNNING | IFF_MULTICAST | IFF_NOARP | IFF_PROMISC, true},
        {IFF_UP | IFF_BROADCAST | IFF_POINTOPOINT, true},
        {IFF_UP | IFF_BROADCAST | IFF_LOOPBACK, false},
        {IFF_BROADCAST, false},
        {IFF_BROADCAST | IFF_RUNNING | IFF_MULTICAST, false},
        {IFF_UP, false},
        {IFF_UP | IFF_LOOPBACK | IFF_RUNNING, false},
        {IFF_UP | IFF_POINTOPOINT | IFF_MULTICAST, false},
        {0, false},
    };
    for (const auto& row : table) {
        answerInstead = [&](unsigned long request, ifreq* entry) {
            if (request != SIOCGIFFLAGS) return kAskTheSystem;
            entry->ifr_flags = static_cast<short>(row.flags);
            return 0;
        };
        ifreq entry = entryNamed("va");
        EXPECT_EQ(NwNetSocket::capableOfIpBroadcast(&entry, fd), row.capable) << std::hex << row.flags;
        answerInstead = nullptr;
    }
    expectSilence();
}

TEST_F(Interfaces, capabilityOfRealInterfaces) {
    addUp("va", "10.1.0.1/24");
    addInterface("vdown");
    UdpDescriptor fd;
    ifreq entry = entryNamed("va");
    EXPECT_TRUE(NwNetSocket::capableOfIpBroadcast(&entry, fd));
    EXPECT_TRUE(entry.ifr_flags & IFF_UP) << "the flags stand where the address stood";
    entry = entryNamed("lo");
    EXPECT_FALSE(NwNetSocket::capableOfIpBroadcast(&entry, fd));
    entry = entryNamed("vdown");
    EXPECT_FALSE(NwNetSocket::capableOfIpBroadcast(&entry, fd));
    expectSilence();
}

TEST_F(Interfaces, anEntryOfAnotherFamilyIsNotEvenAsked) {
    ifreq entry = entryNamed("nosuch0", AF_INET6);
    EXPECT_FALSE(NwNetSocket::capableOfIpBroadcast(&entry, -1));
    entry = entryNamed("nosuch0", AF_UNSPEC);
    EXPECT_FALSE(NwNetSocket::capableOfIpBroadcast(&entry, -1));
    expectSilence();
}

TEST_F(Interfaces, entriesThatTheSystemDoesNotKnow) {
    UdpDescriptor fd;
    ifreq entry = entryNamed("nosuch0");
    EXPECT_FALSE(NwNetSocket::capableOfIpBroadcast(&entry, fd));
    expectWarning(systemReport("Couldn't get network interface flags", ENODEV));
    EXPECT_EQ(NwNetSocket::inetAddrOfIfr(&entry, fd), 0u);
    expectWarning(systemReport("Couldn't get my address on interface.", ENODEV));
    EXPECT_EQ(NwNetSocket::netMaskOfIfr(&entry, fd), 0u);
    expectWarning(systemReport("Couldn't get netmask on interface", ENODEV));
    EXPECT_EQ(NwNetSocket::inetBroadcastOfIfr(&entry, fd), 0u);
    expectWarning(systemReport("Couldn't get my address on interface.", ENODEV) +
                  systemReport("Couldn't get netmask on interface", ENODEV));
    EXPECT_FALSE(NwNetSocket::capableOfIpBroadcast(&(entry = entryNamed("lo")), -1));
    expectWarning(systemReport("Couldn't get network interface flags", EBADF));

    Quiet quiet;
    entry = entryNamed("nosuch0");
    EXPECT_FALSE(NwNetSocket::capableOfIpBroadcast(&entry, fd));
    EXPECT_EQ(NwNetSocket::inetAddrOfIfr(&entry, fd), 0u);
    EXPECT_EQ(NwNetSocket::netMaskOfIfr(&entry, fd), 0u);
    EXPECT_EQ(NwNetSocket::inetBroadcastOfIfr(&entry, fd), 0u);
    expectSilence();
}

TEST_F(Interfaces, valuesOfOneEntry) {
    addUp("va", "10.1.2.3/20");
    UdpDescriptor fd;
    ifreq entry = entryNamed("va");
    EXPECT_EQ(NwNetSocket::inetAddrOfIfr(&entry, fd), ipv4("10.1.2.3"));
    EXPECT_EQ(NwNetSocket::netMaskOfIfr(&entry, fd), ipv4("255.255.240.0"));
    EXPECT_EQ(NwNetSocket::inetBroadcastOfIfr(&entry, fd), ipv4("10.1.15.255"));
    expectSilence();
}

// --- the list ---

TEST_F(Interfaces, getConfigFillsTheListWhateverTheDeviceArgument) {
    addUp("va", "10.1.0.1/24");
    UdpDescriptor fd;
    for (const char* device : {static_cast<const char*>(nullptr), "va", "nosuch0"}) {
        std::vector<ifreq> entries(8);
        ifconf list = listOf(entries);
        EXPECT_EQ(NwSocket::getConfig(device, fd, &list), 1);
        EXPECT_EQ(list.ifc_len, static_cast<int>(2 * sizeof(ifreq)));
        EXPECT_STREQ(entries[0].ifr_name, "lo");
        EXPECT_STREQ(entries[1].ifr_name, "va");
    }
    expectSilence();
}

// --- what a socket makes of it ---

TEST_F(Interfaces, aSocketTakesItsDefaultsFromTheDefaultInterface) {
    addUp("va", "10.1.2.3/20");
    addUp("vb", "10.2.0.1/24");
    NwNetSocket socket(freePort(), static_cast<unsigned char>(2), 0u);
    EXPECT_TRUE(socket.isOk());
    EXPECT_EQ(socket.mcastDevice(), ipv4("10.1.2.3"));
    EXPECT_THAT(messages.info(), testing::EndsWith(" to 10.1.15.255\n"));
    expectSilence();
}

}  // namespace

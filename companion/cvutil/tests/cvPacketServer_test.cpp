// SPDX-License-Identifier: BSD-3-Clause
// Where servers are looked for, who counts as alive, and the sockets to them.
#include <cvutil/cvPacketServer.h>

#include <cvutil/cvOutput.h>
#include <cvutil/cvPacketServerMsgs.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "childProcess.h"
#include "ownNamespaces.h"

namespace {

// A directory of the test's own that goes with all that is in it.
class Directory {
public:
    Directory() {
        char name[] = "/tmp/cvutilXXXXXX";
        EXPECT_NE(::mkdtemp(name), nullptr);
        myPath = name;
    }
    ~Directory() {
        for (const std::string& name : entries()) ::unlink((*this / name).c_str());
        ::rmdir(myPath.c_str());
    }
    std::string operator/(const std::string& name) const { return myPath + "/" + name; }
    const char* path() const { return myPath.c_str(); }

    std::vector<std::string> entries() const {
        std::vector<std::string> names;
        DIR* const directory = ::opendir(myPath.c_str());
        if (!directory) return names;
        while (const dirent* entry = ::readdir(directory))
            if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
                names.push_back(entry->d_name);
        ::closedir(directory);
        return names;
    }

private:
    std::string myPath;
};

class Fd {
public:
    explicit Fd(int fd) : myFd(fd) {}
    ~Fd() { close(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    operator int() const { return myFd; }
    void close() {
        if (myFd >= 0) ::close(myFd);
        myFd = -1;
    }

private:
    int myFd;
};

// Texts of NwWarn while this lives.
class Warnings {
public:
    Warnings() : myFormer(NwWarn.rdbuf(myText.rdbuf())) {}
    ~Warnings() { NwWarn.rdbuf(myFormer); }
    std::string text() const { return myText.str(); }

private:
    std::ostringstream myText;
    std::streambuf* myFormer;
};

std::string namespaceNumber(const char* kind) {
    struct stat status;
    EXPECT_EQ(::stat((std::string("/proc/self/ns/") + kind).c_str(), &status), 0);
    return std::to_string(status.st_ino);
}

std::string nameOf(unsigned int port, int version) {
    return std::to_string(port) + ".v" + std::to_string(version) + "." + namespaceNumber("ipc") + "." +
           namespaceNumber("net");
}

std::string requestPath(unsigned int port, int version) {
    char path[NwPacketServerPathSize];
    EXPECT_EQ(NwPacketServerRequestPath(port, path, version), path);
    return path;
}

// Servers are looked for in a directory of the test's own.
class PacketServerPaths : public testing::Test {
protected:
    PacketServerPaths() { EXPECT_TRUE(NwSetPacketServerDirectory(directory.path())); }
    ~PacketServerPaths() override { NwSetPacketServerDirectory(nullptr); }

    int listenAs(unsigned int port, int version) {
        return NwOpenUnixDgram((directory / nameOf(port, version)).c_str(), NwUnixDgramBind, "server");
    }

    Directory directory;
};

TEST_F(PacketServerPaths, namePortVersionAndNamespaces) {
    EXPECT_EQ(requestPath(3000, 3), directory / nameOf(3000, 3));
    EXPECT_EQ(requestPath(65535, 2), directory / nameOf(65535, 2));
}

TEST_F(PacketServerPaths, pathInANamedDirectory) {
    char path[NwPacketServerPathSize] = "untouched";
    EXPECT_EQ(NwPacketServerPathIn("/somewhere", 1, path, 3), path);
    EXPECT_EQ(path, "/somewhere/" + nameOf(1, 3));
    std::strcpy(path, "untouched");
    EXPECT_EQ(NwPacketServerPathIn(nullptr, 1, path, 3), nullptr);
    EXPECT_EQ(NwPacketServerPathIn("", 1, path, 3), nullptr);
    EXPECT_EQ(NwPacketServerPathIn(("/" + std::string(200, 'd')).c_str(), 1, path, 3), nullptr);
    EXPECT_STREQ(path, "untouched");
}

TEST_F(PacketServerPaths, aDirectoryIsTakenOnlyIfEveryPathFits) {
    for (std::size_t length = 1; length < 200; ++length) {
        const std::string name = "/" + std::string(length - 1, 'd');
        const bool isTaken = NwSetPacketServerDirectory(name.c_str());
        char path[NwPacketServerPathSize];
        ASSERT_EQ(NwPacketServerPathIn(name.c_str(), 65535, path, 3) != nullptr, isTaken) << length;
        ASSERT_TRUE(isTaken || length > 40) << length;
        if (!isTaken) continue;
        ASSERT_EQ(path, name + "/" + nameOf(65535, 3));
    }
    EXPECT_EQ(requestPath(1, 3).substr(0, 3), "/dd") << "a name that is refused changes nothing";
}

TEST_F(PacketServerPaths, aliveIsOneWhileSomebodyListens) {
    EXPECT_EQ(NwPacketServerIsAlive(3000), 0);
    Fd server(listenAs(3000, 3));
    ASSERT_GE(server, 0);
    EXPECT_EQ(NwPacketServerIsAlive(3000), 1);
    EXPECT_EQ(NwPacketServerIsAlive(3001), 0);
    server.close();
    EXPECT_EQ(::access((directory / nameOf(3000, 3)).c_str(), F_OK), 0) << "the path of a killed server";
    EXPECT_EQ(NwPacketServerIsAlive(3000), 0);
}

TEST_F(PacketServerPaths, aliveIsMinusOneForAnOldServerAlone) {
    Fd old(listenAs(3000, 2));
    EXPECT_EQ(NwPacketServerIsAlive(3000), -1);
    Fd present(listenAs(3000, 3));
    EXPECT_EQ(NwPacketServerIsAlive(3000), 1);
    present.close();
    EXPECT_EQ(NwPacketServerIsAlive(3000), -1);
    old.close();
    EXPECT_EQ(NwPacketServerIsAlive(3000), 0);
}

TEST_F(PacketServerPaths, whatIsNoSocketIsNotAlive) {
    Fd file(::open((directory / nameOf(3000, 3)).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0666));
    EXPECT_EQ(NwPacketServerIsAlive(3000), 0);
}

TEST_F(PacketServerPaths, portsThatAreNoneAreNotAlive) {
    for (int port : {-1, 65536, 0x7FFFFFFF, -0x7FFFFFFF - 1})
        EXPECT_EQ(NwPacketServerIsAlive(port), 0) << port;
    Fd server(listenAs(0, 3));
    EXPECT_EQ(NwPacketServerIsAlive(0), 1);
}

TEST_F(PacketServerPaths, askingPrintsNothingAndLeavesErrno) {
    Warnings warnings;
    errno = 77;
    EXPECT_EQ(NwPacketServerIsAlive(3000), 0);
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(warnings.text(), "");
}

// --- where servers are without further ado, in a file system of the test's own ---

bool mountEmpty(const char* path) {
    return ::mount("none", path, "tmpfs", 0, nullptr) == 0;
}

// Runs where /run and /tmp are empty and the test's own; true if that was possible.
bool withEmptySystem(const std::function<void()>& body) {
    const int kNoNamespace = 99;
    const ChildResult result = runInChild([&] {
        if (!enterOwnNamespaces(CLONE_NEWNS) ||
            ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 || !mountEmpty("/run") ||
            !mountEmpty("/tmp"))
            ::_exit(kNoNamespace);
        ::umask(022);
        body();
        if (testing::Test::HasFailure()) ::_exit(1);
    });
    if (result.exitedWith(kNoNamespace)) return false;
    EXPECT_TRUE(result.exitedWith(kBodyReturned)) << result.output << result.errors;
    return true;
}

std::string ownDirectory() {
    return "/tmp/cvpacketserver-" + std::to_string(::geteuid());
}

TEST(PacketServerDirectories, theSystemsComesFirstIfSomebodyListensThere) {
    const bool isPossible = withEmptySystem([] {
        ::mkdir("/run/cvpacketserver", 0755);
        ::mkdir(ownDirectory().c_str(), 0700);
        const std::string systemPath = "/run/cvpacketserver/" + nameOf(3000, 3);
        const std::string ownPath = ownDirectory() + "/" + nameOf(3000, 3);
        EXPECT_EQ(requestPath(3000, 3), ownPath);
        Fd own(NwOpenUnixDgram(ownPath.c_str(), 0, "own"));
        EXPECT_EQ(NwPacketServerIsAlive(3000), 1);
        Fd systems(NwOpenUnixDgram(systemPath.c_str(), 0, "systems"));
        EXPECT_EQ(requestPath(3000, 3), systemPath);
        systems.close();
        EXPECT_EQ(requestPath(3000, 3), ownPath) << "nobody listens at the system's path any more";
    });
    if (!isPossible) GTEST_SKIP() << "no mount namespace here";
}

TEST(PacketServerDirectories, theSystemsThatForbidsThisUserIsNotPassedOver) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
    const bool isPossible = withEmptySystem([] {
        ::chmod("/tmp", 01777);
        ::mkdir("/run/cvpacketserver", 0755);
        const std::string systemPath = "/run/cvpacketserver/" + nameOf(3000, 3);
        Fd systems(NwOpenUnixDgram(systemPath.c_str(), 0, "systems"));
        ::chmod(systemPath.c_str(), 0600);
        ASSERT_EQ(::setuid(12345), 0);
        ::prctl(PR_SET_DUMPABLE, 1);  // so that it may look into its own /proc
        ::mkdir(ownDirectory().c_str(), 0700);
        EXPECT_EQ(requestPath(3000, 3), systemPath);
        EXPECT_EQ(NwPacketServerIsAlive(3000), 0) << "not for this user";
        const std::string ownPath = ownDirectory() + "/" + nameOf(3000, 3);
        Fd own(NwOpenUnixDgram(ownPath.c_str(), 0, "own"));
        EXPECT_EQ(requestPath(3000, 3), ownPath);
    });
    if (!isPossible) GTEST_SKIP() << "no mount namespace here";
}

TEST(PacketServerDirectories, anOwnOneThatOthersMayEnterDoesNotCount) {
    const bool isPossible = withEmptySystem([] {
        const std::string systemPath = "/run/cvpacketserver/" + nameOf(3000, 3);
        EXPECT_EQ(requestPath(3000, 3), systemPath) << "there is none";
        ::mkdir(ownDirectory().c_str(), 0755);
        Fd squatter(NwOpenUnixDgram((ownDirectory() + "/" + nameOf(3000, 3)).c_str(), 0, "squatter"));
        EXPECT_GE(squatter, 0);
        EXPECT_EQ(requestPath(3000, 3), systemPath) << "mode";
        EXPECT_EQ(NwPacketServerIsAlive(3000), 0);
        ::chmod(ownDirectory().c_str(), 0700);
        EXPECT_EQ(NwPacketServerIsAlive(3000), 1);
        ::rename(ownDirectory().c_str(), "/tmp/elsewhere");
        EXPECT_EQ(::symlink("/tmp/elsewhere", ownDirectory().c_str()), 0);
        EXPECT_EQ(requestPath(3000, 3), systemPath) << "link";
        ::unlink(ownDirectory().c_str());
        ::rename("/tmp/elsewhere", ownDirectory().c_str());
        const bool isAnothers = ::chown(ownDirectory().c_str(), 12345, 12345) == 0;  // root alone can
        EXPECT_EQ(requestPath(3000, 3) == systemPath, isAnothers) << "owner";
    });
    if (!isPossible) GTEST_SKIP() << "no mount namespace here";
}

TEST(PacketServerDirectories, theOwnOneIsMadePrivateAndOthersAreRefused) {
    const bool isPossible = withEmptySystem([] {
        char name[NwPacketServerPathSize] = "";
        EXPECT_TRUE(NwPacketServerOwnDirectory(name));
        EXPECT_EQ(name, ownDirectory());
        struct stat status;
        EXPECT_EQ(::stat(name, &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0700u);
        EXPECT_TRUE(NwPacketServerOwnDirectory(name)) << "it is there already";
        ::chmod(name, 0770);
        errno = 0;
        EXPECT_FALSE(NwPacketServerOwnDirectory(name));
        EXPECT_EQ(errno, EPERM);
        ::chmod(name, 0700);
        EXPECT_TRUE(NwPacketServerOwnDirectory(name));
        // A link to what would do.
        ::rename(name, "/tmp/elsewhere");
        EXPECT_EQ(::symlink("/tmp/elsewhere", ownDirectory().c_str()), 0);
        errno = 0;
        EXPECT_FALSE(NwPacketServerOwnDirectory(name));
        EXPECT_EQ(errno, EPERM);
        ::unlink(ownDirectory().c_str());
        // Another's.
        ::rename("/tmp/elsewhere", ownDirectory().c_str());
        if (::chown(ownDirectory().c_str(), 12345, 12345) != 0) return;  // root alone can
        errno = 0;
        EXPECT_FALSE(NwPacketServerOwnDirectory(name));
        EXPECT_EQ(errno, EPERM);
    });
    if (!isPossible) GTEST_SKIP() << "no mount namespace here";
}

// --- sockets ---

class UnixDgram : public testing::Test {
protected:
    std::string placeholder() {
        std::string name = directory / "cvcXXXXXX";
        ::close(::mkstemp(&name[0]));
        return name;
    }

    static std::string sendAndTake(int from, int to) {
        EXPECT_EQ(::send(from, "hello", 5, 0), 5);
        char bytes[16] = "";
        const ssize_t length = ::recv(to, bytes, sizeof bytes, MSG_DONTWAIT);
        return std::string(bytes, length > 0 ? static_cast<std::size_t>(length) : 0);
    }

    Directory directory;
};

TEST_F(UnixDgram, bindsOverTheFileThatMkstempMade) {
    const std::string path = placeholder();
    Fd bound(NwOpenUnixDgram(path.c_str(), 0, "test"));
    ASSERT_GE(bound, 0);
    Fd connected(NwOpenUnixDgram(path.c_str(), 1, "test"));
    ASSERT_GE(connected, 0);
    EXPECT_EQ(sendAndTake(connected, bound), "hello");
    EXPECT_EQ(directory.entries(), std::vector<std::string>({path.substr(path.rfind('/') + 1)}))
        << "nothing else is left";
}

TEST_F(UnixDgram, anybodyMaySendToABoundOneWhateverTheUmask) {
    const mode_t former = ::umask(0777);
    const std::string path = directory / "socket";
    Fd bound(NwOpenUnixDgram(path.c_str(), 0, "test"));
    ::umask(former);
    struct stat status;
    ASSERT_EQ(::lstat(path.c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 0777, 0666u);
}

TEST_F(UnixDgram, aLinkIsReplacedNotFollowed) {
    const std::string target = placeholder();
    const std::string link = directory / "link";
    ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);
    Fd bound(NwOpenUnixDgram(link.c_str(), 0, "test"));
    ASSERT_GE(bound, 0);
    struct stat status;
    ASSERT_EQ(::lstat(target.c_str(), &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    ASSERT_EQ(::lstat(link.c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
}

TEST_F(UnixDgram, descriptorsAreNotInheritedByProgramsStartedLater) {
    const std::string path = placeholder();
    Fd bound(NwOpenUnixDgram(path.c_str(), 0, "test"));
    Fd connected(NwOpenUnixDgram(path.c_str(), 1, "test"));
    EXPECT_TRUE(::fcntl(bound, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(::fcntl(connected, F_GETFD) & FD_CLOEXEC);
}

TEST_F(UnixDgram, aConnectedOneWaitsForRoomButNotForEver) {
    const std::string path = placeholder();
    Fd bound(NwOpenUnixDgram(path.c_str(), 0, "test"));
    Fd connected(NwOpenUnixDgram(path.c_str(), 1, "test"));
    timeval limit = {};
    socklen_t size = sizeof limit;
    ASSERT_EQ(::getsockopt(connected, SOL_SOCKET, SO_SNDTIMEO, &limit, &size), 0);
    EXPECT_EQ(limit.tv_sec, 5);
    EXPECT_EQ(limit.tv_usec, 0);
    EXPECT_FALSE(::fcntl(connected, F_GETFL) & O_NONBLOCK);
}

// What is sent while the receiver has no room is given up after 5 s, also while signals come all the time.
TEST_F(UnixDgram, aReceiverThatMakesNoRoomHoldsNobodyUpForEver) {
    const std::string path = placeholder();
    Fd bound(NwOpenUnixDgram(path.c_str(), 0, "test"));
    Fd plain(NwOpenUnixDgram(path.c_str(), 1, "test"));
    Fd disturbed(NwOpenUnixDgram(path.c_str(), 1, "test"));
    while (::send(plain, "f", 1, MSG_DONTWAIT) == 1) {
    }
    struct sigaction action = {};
    struct sigaction former;
    action.sa_handler = [](int) {};
    ::sigaction(SIGUSR1, &action, &former);
    const auto start = std::chrono::steady_clock::now();
    const auto since = [start] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    double plainTime = 0;
    double disturbedTime = 0;
    std::atomic<bool> isBack{false};
    std::thread plainSender([&] {
        EXPECT_EQ(::send(plain, "x", 1, 0), -1);
        EXPECT_EQ(errno, EAGAIN);
        plainTime = since();
    });
    std::thread disturbedSender([&] {
        EXPECT_EQ(NwCsFilterMsg(disturbed, 1, 1, 7, 8).send(), -1);
        disturbedTime = since();
        isBack = true;
    });
    const pthread_t target = disturbedSender.native_handle();
    while (!isBack && since() < 30) {
        ::pthread_kill(target, SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    plainSender.join();
    char byte;
    while (!isBack) ::recv(bound, &byte, 1, MSG_DONTWAIT);  // it would not end by itself
    disturbedSender.join();
    ::sigaction(SIGUSR1, &former, nullptr);
    EXPECT_GE(plainTime, 4.9);
    EXPECT_LE(plainTime, 25);
    EXPECT_GE(disturbedTime, 4.9);
    EXPECT_LE(disturbedTime, 25);
}

TEST_F(UnixDgram, failuresSayWhatAndWhy) {
    struct Case {
        std::string path;
        int action;
        int error;
        std::string text;
    };
    const std::string stale = placeholder();
    Fd(NwOpenUnixDgram(stale.c_str(), 0, "test")).close();
    const std::string none = directory / "none";
    const std::string nowhere = directory / "no/such/directory";
    const std::string tooLong = "/tmp/" + std::string(103, 'p');
    const Case cases[] = {
        {stale, 1, ECONNREFUSED, "name: cannot connect to " + stale + ": Connection refused\n"},
        {none, 1, ENOENT, "name: cannot connect to " + none + ": No such file or directory\n"},
        {nowhere, 0, ENOENT, "name: cannot bind to " + nowhere + ": No such file or directory\n"},
        {tooLong, 0, ENAMETOOLONG, "name: cannot bind to " + tooLong + ": File name too long\n"},
        {tooLong, 1, ENAMETOOLONG, "name: cannot connect to " + tooLong + ": File name too long\n"},
        {"", 0, EINVAL, "name: cannot bind to : Invalid argument\n"},
        {"", 1, EINVAL, "name: cannot connect to : Invalid argument\n"},
        {none, 2, EINVAL, "name: cannot bind to " + none + ": Invalid argument\n"},
    };
    for (const Case& one : cases) {
        Warnings warnings;
        errno = 0;
        EXPECT_EQ(NwOpenUnixDgram(one.path.c_str(), one.action, "name"), -1);
        EXPECT_EQ(errno, one.error) << one.text;
        EXPECT_EQ(warnings.text(), one.text);
    }
    Warnings warnings;
    EXPECT_EQ(NwOpenUnixDgram(nullptr, 0, "name"), -1);
    EXPECT_EQ(warnings.text(), "name: cannot bind to no path: Invalid argument\n");
}

TEST_F(UnixDgram, withoutANameAFailureIsSilent) {
    Warnings warnings;
    EXPECT_EQ(NwOpenUnixDgram((directory / "none").c_str(), 1, nullptr), -1);
    EXPECT_EQ(warnings.text(), "");
}

TEST_F(UnixDgram, whatCannotBeReplacedLeavesNothingBehind) {
    const std::string taken = directory / "directory";
    ASSERT_EQ(::mkdir(taken.c_str(), 0700), 0);
    EXPECT_EQ(NwOpenUnixDgram(taken.c_str(), 0, nullptr), -1);
    EXPECT_EQ(directory.entries(), std::vector<std::string>({"directory"}));
    ::rmdir(taken.c_str());
}

TEST_F(UnixDgram, theLongestPathThatAnAddressHolds) {
    const std::string path = directory / std::string(107 - std::strlen(directory.path()) - 1, 'p');
    ASSERT_EQ(path.size(), 107u);
    Fd bound(NwOpenUnixDgram(path.c_str(), 0, "test"));
    ASSERT_GE(bound, 0);
    Fd connected(NwOpenUnixDgram(path.c_str(), 1, "test"));
    EXPECT_EQ(sendAndTake(connected, bound), "hello");
}

// The name beside it, under which a socket is born, has 9 bytes.
TEST_F(UnixDgram, aShortNameCountsAsNineBytesInBinding) {
    const std::size_t longest = 107;
    for (const std::size_t room : {9u, 8u}) {  // what an address leaves for the last component
        const std::string below =
            directory / std::string(longest - room - 1 - std::strlen(directory.path()) - 1, 'd');
        ASSERT_EQ(::mkdir(below.c_str(), 0700), 0);
        for (const std::size_t length : {std::size_t(1), std::size_t(8), room}) {
            const std::string path = below + "/" + std::string(length, 'n');
            ASSERT_LE(path.size(), longest);
            errno = 0;
            Fd bound(NwOpenUnixDgram(path.c_str(), 0, nullptr));
            EXPECT_EQ(bound >= 0, room >= 9) << path;
            if (bound < 0) {
                EXPECT_EQ(errno, ENAMETOOLONG);
            }
            ::unlink(path.c_str());
        }
        EXPECT_EQ(::rmdir(below.c_str()), 0) << "nothing is left";
    }
}

// The promise of mkstemp's placeholder: nobody finds the name free.
TEST_F(UnixDgram, aSquatterNeverFindsTheNameFree) {
    const std::string path = placeholder();
    std::atomic<bool> isOver{false};
    int squats = 0;
    std::thread squatter([&] {
        while (!isOver) {
            const int fd = ::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
            if (fd < 0) continue;
            ++squats;
            ::close(fd);
        }
    });
    for (int i = 0; i < 2000; ++i) Fd(NwOpenUnixDgram(path.c_str(), 0, "test"));
    isOver = true;
    squatter.join();
    EXPECT_EQ(squats, 0);
}

}  // namespace

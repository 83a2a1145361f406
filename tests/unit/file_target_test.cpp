// SPDX-License-Identifier: BSD-3-Clause
// Where received files are written: names that peers choose, what is in their way, file systems that refuse.
// Writes fail by appointment.
#include <cvNetworkCompatibility/cvFileTransport.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "file_receive.h"
#include "file_transfer.h"
#include "messages.h"
#include "network.h"
#include "process.h"
#include "tcp_peer.h"

// --- writes that fail by appointment --------------------------------------------------------------------

namespace {

// What each next write to a regular file does: takes so many bytes, or fails with so much below 0.
std::deque<long> theAppointedWrites;
std::function<void()> beforeAppointedWrite;

bool isRegularFile(int fd) {
    struct stat status;
    return ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t write(int fd, const void* bytes, size_t count) {
    if (!theAppointedWrites.empty() && isRegularFile(fd)) {
        const long appointed = theAppointedWrites.front();
        theAppointedWrites.pop_front();
        if (const std::function<void()> work = beforeAppointedWrite) work();
        if (appointed < 0) {
            errno = static_cast<int>(-appointed);
            return -1;
        }
        count = std::min(count, static_cast<size_t>(appointed));
    }
    return ::syscall(SYS_write, fd, bytes, count);
}

namespace {

typedef FileReceive FileTarget;

}  // namespace

// --- where it is written --------------------------------------------------------------------------------

TEST_F(FileTarget, anExistingFileIsReplaced) {
    dir.write("inbox/file", "something much longer");
    ASSERT_EQ(::chmod(inInbox("file").c_str(), 0640), 0);
    deliver(fileBytes("file", "new"));
    EXPECT_EQ(contentsOf(inInbox("file")), "new");
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(FileTarget, aNewFileHasTheRightsThatTheUmaskLeaves) {
    const mode_t former = ::umask(027);
    deliver(fileBytes("file", "data"));
    ::umask(former);
    struct stat status;
    ASSERT_EQ(::stat(inInbox("file").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST_F(FileTarget, theTargetDirectoryIsMade) {
    EXPECT_TRUE(std::filesystem::is_directory(inbox())) << "by the constructor";
    receiver.setTargetDirectory(dir / "other/place");
    EXPECT_EQ(receiver.targetDirectory(), NwFilename(dir / "other/place"));
    EXPECT_TRUE(std::filesystem::is_directory(dir / "other/place"));
    deliver(fileBytes("file", "data"));
    EXPECT_EQ(dir.contents("other/place/file"), "data");
    EXPECT_EQ(arrived, std::vector<std::string>{dir / "other/place/file"});
}

TEST_F(FileTarget, anEmptyTargetIsTheCurrentDirectory) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    receiver.setTargetDirectory("");
    deliver(fileBytes("file", "data"));
    std::filesystem::current_path(before);
    EXPECT_EQ(dir.contents("file"), "data");
    EXPECT_EQ(arrived, std::vector<std::string>{"file"});
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(FileTarget, aDirectoryThatIsGoneLosesTheFileAlone) {
    ASSERT_EQ(::rmdir(inbox().c_str()), 0);
    deliver(fileBytes("file", "data"));
    EXPECT_EQ(messages.warn(), cantCreate(inInbox("file")));
    EXPECT_TRUE(arrived.empty());
    EXPECT_EQ(receiver.transfersUnderWay(), 0u);
    EXPECT_FALSE(dir.has("inbox")) << "only setting it makes it";
    receiver.setTargetDirectory(inbox());
    expectGoesOn();
}

TEST_F(FileTarget, aDirectoryThatNeverCouldBeMadeLosesTheFileAlone) {
    dir.write("file", "in the way");
    receiver.setTargetDirectory(dir / "file/below");
    EXPECT_EQ(messages.warn(), "");
    EXPECT_EQ(receiver.targetDirectory(), NwFilename(dir / "file/below"));
    deliver(fileBytes("x", "data"));
    EXPECT_EQ(messages.warn(), cantCreate(dir / "file/below/x"));
    EXPECT_EQ(dir.contents("file"), "in the way");
}

TEST_F(FileTarget, aDirectoryWithoutPermissionLosesTheFileAlone) {
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(inbox().c_str(), 0555), 0);
    const bool ran = asNobody([&] {
        deliver(fileBytes("file", "data"));
        EXPECT_EQ(messages.warn(), cantCreate(inInbox("file")));
        EXPECT_FALSE(dir.has("inbox/file"));
    });
    ::chmod(inbox().c_str(), 0755);
    if (!ran) GTEST_SKIP() << "no second user to act as";
    expectGoesOn();
}

TEST_F(FileTarget, aFileWithoutPermissionIsKept) {
    dir.write("inbox/file", "kept");
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(inbox().c_str(), 0777), 0);
    ASSERT_EQ(::chmod(inInbox("file").c_str(), 0444), 0);
    const bool ran = asNobody([&] {
        deliver(fileBytes("file", "data"));
        EXPECT_EQ(messages.warn(), cantCreate(inInbox("file")));
    });
    if (!ran) GTEST_SKIP() << "no second user to act as";
    EXPECT_EQ(contentsOf(inInbox("file")), "kept");
}

TEST_F(FileTarget, aDirectoryReplacedMeanwhileGetsTheNextFile) {
    ASSERT_TRUE(NwMakeDirectory(dir / "elsewhere"));
    ASSERT_EQ(::rename(inbox().c_str(), (dir / "former").c_str()), 0);
    ASSERT_EQ(::symlink("elsewhere", inbox().c_str()), 0);
    deliver(fileBytes("file", "data"));
    EXPECT_EQ(dir.contents("elsewhere/file"), "data") << "the directory may be reached by a link";
    ASSERT_EQ(::unlink(inbox().c_str()), 0);
    dir.write("inbox", "a file now");
    deliver(fileBytes("file", "new"));
    EXPECT_EQ(messages.warn(), cantCreate(inInbox("file")));
    EXPECT_EQ(dir.contents("inbox"), "a file now");
}

TEST_F(FileTarget, whatIsNoRegularFileIsLeftAlone) {
    dir.write("victim", "kept");
    dir.write("inbox/inner", "kept");
    const std::pair<const char*, std::string> links[] = {{"link-out", "../victim"},
                                                         {"link-in", "inner"},
                                                         {"link-to-nothing", "../nowhere"},
                                                         {"link-to-itself", "link-to-itself"},
                                                         {"link-to-directory", dir.path()}};
    for (const auto& link : links) ASSERT_EQ(::symlink(link.second.c_str(), inInbox(link.first).c_str()), 0);
    ASSERT_EQ(::mkdir(inInbox("directory").c_str(), 0755), 0);
    ASSERT_EQ(::mkfifo(inInbox("fifo").c_str(), 0600), 0);
    ASSERT_EQ(::mkfifo(inInbox("read-fifo").c_str(), 0600), 0);
    const int reader = ::open(inInbox("read-fifo").c_str(), O_RDONLY | O_NONBLOCK);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    inInbox("socket").copy(address.sun_path, sizeof address.sun_path - 1);
    const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const bool hasDevice = ::mknod(inInbox("device").c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0;

    const auto before = dir.tree();
    std::vector<std::string> names = {"directory", "fifo", "read-fifo", "socket"};
    for (const auto& link : links) names.push_back(link.first);
    const int descriptors = openDescriptors();
    if (hasDevice) names.push_back("device");
    for (const std::string& name : names) {
        ASSERT_TRUE(dir.has("inbox/" + name)) << name;
        const Quiet quiet;
        deliver(fileBytes(name, "data"));
        EXPECT_EQ(messages.warn(), cantCreate(inInbox(name)));
    }
    char byte;
    EXPECT_LE(::read(reader, &byte, 1), 0) << "nothing went through the fifo";
    const int connections = 2 * static_cast<int>(names.size());  // both ends of each
    EXPECT_EQ(openDescriptors(), descriptors + connections);
    ::close(reader);
    ::close(socket);
    EXPECT_EQ(dir.tree(), before);
    EXPECT_TRUE(arrived.empty());
    expectGoesOn();
}

// A link put in place at any moment is never followed: each file is there as a file, or it is not written.
TEST_F(FileTarget, aLinkThatComesAndGoesIsNeverFollowed) {
    dir.write("victim", "kept");
    const std::string link = dir / "link", plain = dir / "plain";
    std::atomic<bool> isOver{false};
    std::atomic<int> flips{0};
    std::thread flipper([&] {
        while (!isOver) {
            (void)!::symlink("../victim", link.c_str());
            ::rename(link.c_str(), inInbox("file").c_str());
            std::ofstream(plain).put('x');
            ::rename(plain.c_str(), inInbox("file").c_str());
            ::unlink(inInbox("file").c_str());
            ++flips;
        }
    });
    const Quiet quiet;
    int written = 0, refused = 0;
    const int files = kIsSanitized ? 300 : 1500, atMost = 100000;
    for (int i = 0; i < files || ((!written || !refused || flips < 100) && i < atMost); ++i) {
        arrived.clear();
        deliver(fileBytes("file", "from the peer"));
        peers.clear();
        const std::string warnings = messages.warn();
        ++(arrived.empty() ? refused : written);
        EXPECT_EQ(warnings, arrived.empty() ? cantCreate(inInbox("file")) : "");
        messages.debug();
    }
    isOver = true;
    flipper.join();
    EXPECT_EQ(dir.contents("victim"), "kept");
    EXPECT_GT(written, 0) << "it came between links";
    EXPECT_GT(refused, 0) << "it met a link";
}

TEST_F(FileTarget, aFileThatIsLostTakesNoOtherOfItsConnectionAlong) {
    ASSERT_EQ(::mkdir(inInbox("taken").c_str(), 0755), 0);
    deliver(FirstMessage(1, "other", "a").announcing(3).bytes() + fileBytes("taken", "data", 2) +
            laterMessage(1, "b") + laterMessage(1, "c"));
    EXPECT_EQ(messages.warn(), cantCreate(inInbox("taken")));
    EXPECT_EQ(contentsOf(inInbox("other")), "abc");
    theAppointedWrites = {-ENOSPC};
    deliver(FirstMessage(1, "more", "a").announcing(2).bytes() + fileBytes("unwritten", "data", 2) +
            laterMessage(1, "b"));
    EXPECT_EQ(messages.warn(), errorWriting(inInbox("unwritten")));
    EXPECT_EQ(contentsOf(inInbox("more")), "ab");
    EXPECT_EQ(arrived, (std::vector<std::string>{inInbox("other"), inInbox("more")}));
}

TEST_F(FileTarget, aFullFileSystemLosesTheFileAlone) {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("none", inbox().c_str(), "tmpfs", 0, "size=64k") != 0)
        GTEST_SKIP() << "needs a mount namespace: " << std::strerror(errno);
    const std::string data = randomBytes(200000);
    deliver(streamOf(kId, "file", data, NwMaxPacketSize()));
    EXPECT_EQ(messages.warn(), errorWriting(inInbox("file")));
    EXPECT_FALSE(dir.has("inbox/file")) << "nothing partial stays";
    EXPECT_TRUE(arrived.empty());
    EXPECT_EQ(receiver.transfersUnderWay(), 0u);
    expectGoesOn();
    ::umount(inbox().c_str());
}

TEST_F(FileTarget, aFileLargerThanTheProcessMayWriteIsLostAlone) {
    rlimit former;
    ::getrlimit(RLIMIT_FSIZE, &former);
    void (*const formerAction)(int) = ::signal(SIGXFSZ, SIG_IGN);
    const rlimit small = {1000, former.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &small);
    deliver(fileBytes("file", std::string(1001, 'x')));
    ::setrlimit(RLIMIT_FSIZE, &former);
    ::signal(SIGXFSZ, formerAction);
    EXPECT_EQ(messages.warn(), errorWriting(inInbox("file")));
    EXPECT_FALSE(dir.has("inbox/file"));
    expectGoesOn();
}

TEST_F(FileTarget, aFailedWriteIsToldWhileSocketsAreQuiet) {
    const Quiet quiet;
    const int before = openDescriptors();
    theAppointedWrites = {-EIO};
    deliver(fileBytes("file", "data"));
    EXPECT_EQ(messages.warn(), errorWriting(inInbox("file")));
    const int connection = 2;  // both of its ends
    EXPECT_EQ(openDescriptors(), before + connection);
}

TEST_F(FileTarget, shortAndInterruptedWritesGoOn) {
    theAppointedWrites = {3, -EINTR, -EINTR, 1, 2};
    deliver(fileBytes("file", "0123456789"));
    EXPECT_TRUE(theAppointedWrites.empty());
    EXPECT_EQ(contentsOf(inInbox("file")), "0123456789");
    EXPECT_EQ(messages.warn(), "");
    EXPECT_EQ(arrived.size(), 1u);
}

TEST_F(FileTarget, aWriteThatFailsLeavesNothing) {
    const std::deque<long> failures[] = {{-EIO}, {3, -ENOSPC}, {9, -EINTR, -EDQUOT}, {5, 0}};
    for (const std::deque<long>& failure : failures) {
        dir.write("inbox/file", "former");
        theAppointedWrites = failure;
        const Quiet quiet;
        deliver(fileBytes("file", "0123456789"));
        EXPECT_TRUE(theAppointedWrites.empty());
        EXPECT_EQ(messages.warn(), errorWriting(inInbox("file")));
        EXPECT_FALSE(dir.has("inbox/file"));
        EXPECT_EQ(receiver.transfersUnderWay(), 0u);
    }
    EXPECT_TRUE(arrived.empty());
    expectGoesOn();
}

// While a write fails, another process puts something else in the file's place.
TEST_F(FileTarget, whatTookThePlaceOfAPartialFileIsKept) {
    theAppointedWrites = {3, -ENOSPC};
    beforeAppointedWrite = [&] {
        beforeAppointedWrite = nullptr;
        const std::deque<long> later = std::exchange(theAppointedWrites, {});
        dir.write("other", "kept");
        ASSERT_EQ(::rename((dir / "other").c_str(), inInbox("file").c_str()), 0);
        theAppointedWrites = later;
    };
    deliver(fileBytes("file", "0123456789"));
    EXPECT_EQ(messages.warn(), errorWriting(inInbox("file")));
    EXPECT_EQ(contentsOf(inInbox("file")), "kept");
    EXPECT_TRUE(arrived.empty());
}

// --- names ----------------------------------------------------------------------------------------------

namespace {

struct NameRow {
    std::string sent;
    std::string written;  // in the target directory; "" when the message is refused
};

std::vector<NameRow> names() {
    const std::string longest(255, 'n');
    return {
        {"plain", "plain"},
        {"tile 7.dat", "tile 7.dat"},
        {" ", " "},
        {"/etc/passwd", "passwd"},
        {"/absolute", "absolute"},
        {"//absolute", "absolute"},
        {"relative/name", "name"},
        {"./name", "name"},
        {"a//b", "b"},
        {"../outside", "outside"},
        {"../../outside", "outside"},
        {"a/../../outside", "outside"},
        {"../inbox/../outside", "outside"},
        {"/proc/self/cwd/outside", "outside"},
        {"..a", "..a"},
        {"...", "..."},
        {".hidden", ".hidden"},
        {"..\\..\\outside", "..\\..\\outside"},
        {"C:\\outside", "C:\\outside"},
        {"~", "~"},
        {"~/outside", "outside"},
        {"$HOME", "$HOME"},
        {"-rf", "-rf"},
        {"a;b", "a;b"},
        {"`id`", "`id`"},
        {"|cat", "|cat"},
        {"*", "*"},
        {"%s%n%x", "%s%n%x"},
        {"a\nb", "a\nb"},
        {"a\rb", "a\rb"},
        {"\x1B[31mred", "\x1B[31mred"},
        {"\x01\x7F", "\x01\x7F"},
        {"\xC3\xA9t\xC3\xA9", "\xC3\xA9t\xC3\xA9"},
        {"\xFF\xFE", "\xFF\xFE"},
        {"\xC0\xAE\xC0\xAE/x", "x"},  // ".." in two overlong letters
        {longest, longest},
        {std::string(3000, 'd') + "/" + longest, longest},
        {"", ""},
        {".", ""},
        {"..", ""},
        {"/", ""},
        {"///", ""},
        {"a/", ""},
        {"a/.", ""},
        {"a/..", ""},
        {"../..", ""},
        {"../inbox/", ""},
    };
}

}  // namespace

TEST_F(FileTarget, aNameIsItsLastComponentOrNone) {
    for (const NameRow& row : names()) {
        SCOPED_TRACE(testing::PrintToString(row.sent.substr(0, 40)));
        if (row.written.empty()) {
            expectRefused(fileBytes(row.sent, "data"));
            continue;
        }
        messages.warn();
        const Quiet quiet;
        deliver(fileBytes(row.sent, "data"));
        EXPECT_EQ(messages.warn(), "");
        const std::map<std::string, std::string> wanted = {{"inbox", "directory"},
                                                           {"inbox/" + row.written, "data"}};
        EXPECT_EQ(dir.tree(), wanted);
        EXPECT_EQ(arrived, std::vector<std::string>{inInbox(row.written)});
        arrived.clear();
        ::unlink(inInbox(row.written).c_str());
    }
}

TEST_F(FileTarget, aNameThatTheSystemRefusesIsReported) {
    const std::string name(256, 'n');
    deliver(fileBytes(name, "data"));
    EXPECT_EQ(messages.warn(), cantCreate(inInbox(name)));
    expectGoesOn();
}

TEST_F(FileTarget, namesInWarningsCannotSteerATerminal) {
    ASSERT_EQ(::mkdir(inInbox("\x1B[31m\r\n").c_str(), 0755), 0);
    deliver(fileBytes("\x1B[31m\r\n", "data"));
    EXPECT_EQ(messages.warn(), cantCreate(inInbox("\\x1B[31m\\x0D\\x0A")));
}

TEST_F(FileTarget, aNameEndsAtItsNul) {
    const std::string data = "/../x";
    deliver(FirstMessage(kId, "file", data).bytes());
    EXPECT_EQ(contentsOf(inInbox("file")), data) << "what follows is data";
}

// SPDX-License-Identifier: BSD-3-Clause
// The transporter around its files: callbacks and what they may do, derived classes, ports, its end, and
// whole files from one transporter to another.
#include <cvNetworkCompatibility/cvFileTransport.h>
#include <cvNetworkCompatibility/cvTcpSocket.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
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

// --- callbacks ------------------------------------------------------------------------------------------

namespace {

typedef NwFileTransporter::FileTransferedCallback Callback;

// What callbacks share with their test.
struct Stage {
    std::vector<std::string> calls;
    NwFileTransporter* transporter = nullptr;
    std::function<void(const std::string& path)> action;
};
Stage* theStage;

template <int N>
void numbered(const NwFilename&, void* data) {
    theStage->calls.push_back(std::to_string(N) + (data ? static_cast<const char*>(data) : ""));
}

void acting(const NwFilename& path, void*) {
    theStage->calls.push_back("acting");
    theStage->action(path.c_str());
}

class FileCallbacks : public FileReceive {
protected:
    FileCallbacks() {
        theStage = &stage;
        receiver.removeFileTransferedCallback(note, nullptr);
    }
    // Whether this process has the file open.
    static bool isOpen(const std::string& path) {
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            if (std::filesystem::read_symlink(entry.path(), gone) == path) return true;
        }
        return false;
    }
    Stage stage;
    char first[6] = "first", second[7] = "second";
};

}  // namespace

TEST_F(FileCallbacks, areCalledInTheOrderOfTheirAddresses) {
    std::vector<Callback> all = {numbered<0>, numbered<1>, numbered<2>, numbered<3>};
    for (const Callback cb : {all[2], all[0], all[3], all[1]})
        receiver.addFileTransferedCallback(cb, nullptr);
    deliver(fileBytes("file", "data"));
    std::sort(all.begin(), all.end());
    std::vector<std::string> wanted;
    for (const Callback cb : all) {
        Stage other;
        theStage = &other;
        cb("", nullptr);
        wanted.push_back(other.calls[0]);
    }
    EXPECT_EQ(stage.calls, wanted);
}

TEST_F(FileCallbacks, aSecondRegistrationReplacesTheData) {
    receiver.addFileTransferedCallback(numbered<0>, first);
    receiver.addFileTransferedCallback(numbered<0>, second);
    deliver(fileBytes("file", "data"));
    EXPECT_EQ(stage.calls, std::vector<std::string>{"0second"});
}

TEST_F(FileCallbacks, areRemovedWhateverTheData) {
    receiver.addFileTransferedCallback(numbered<0>, first);
    receiver.addFileTransferedCallback(numbered<1>, first);
    receiver.removeFileTransferedCallback(numbered<0>, second);
    receiver.removeFileTransferedCallback(numbered<2>, first);
    deliver(fileBytes("file", "data"));
    EXPECT_EQ(stage.calls, std::vector<std::string>{"1first"});
}

TEST_F(FileCallbacks, areCalledForEachFileThatIsWritten) {
    receiver.addFileTransferedCallback(numbered<0>, nullptr);
    deliver(fileBytes("one", "a"));
    deliver(fileBytes("one", "b"));
    deliver(fileBytes("empty", ""));
    EXPECT_EQ(stage.calls.size(), 3u);
}

TEST_F(FileCallbacks, findTheFileCompleteAndStillOpen) {
    receiver.addFileTransferedCallback(acting, nullptr);
    std::string contents;
    bool wasOpen = false;
    stage.action = [&](const std::string& path) {
        contents = contentsOf(path);
        wasOpen = isOpen(path);
    };
    const std::string data = randomBytes(100000);
    deliver(streamOf(kId, "file", data, NwMaxPacketSize()));
    EXPECT_TRUE(contents == data);
    EXPECT_TRUE(wasOpen);
    EXPECT_FALSE(isOpen(inInbox("file")));
}

TEST_F(FileCallbacks, findTheTransferStillThere) {
    receiver.addFileTransferedCallback(acting, nullptr);
    std::size_t underWay = 0;
    stage.action = [&](const std::string&) { underWay = receiver.transfersUnderWay(); };
    deliver(fileBytes("file", "data"));
    EXPECT_EQ(underWay, 1u);
    EXPECT_EQ(receiver.transfersUnderWay(), 0u);
}

TEST_F(FileCallbacks, mayUnregisterAny) {
    for (const Callback cb : {numbered<0>, numbered<1>, numbered<2>})
        receiver.addFileTransferedCallback(cb, nullptr);
    receiver.addFileTransferedCallback(acting, nullptr);
    stage.action = [&](const std::string&) {
        for (const Callback cb : {numbered<0>, numbered<1>, numbered<2>, Callback(acting)})
            receiver.removeFileTransferedCallback(cb, nullptr);
    };
    deliver(fileBytes("file", "data"));
    EXPECT_EQ(stage.calls.back(), "acting") << "none is called behind it";
    const std::size_t calls = stage.calls.size();
    deliver(fileBytes("file", "data"));
    EXPECT_EQ(stage.calls.size(), calls);
}

TEST_F(FileCallbacks, mayRegisterOthersAndThemselves) {
    receiver.addFileTransferedCallback(acting, nullptr);
    stage.action = [&](const std::string&) {
        receiver.removeFileTransferedCallback(acting, nullptr);
        receiver.addFileTransferedCallback(acting, nullptr);
        receiver.addFileTransferedCallback(numbered<0>, first);
    };
    deliver(fileBytes("file", "data"));
    EXPECT_EQ(std::count(stage.calls.begin(), stage.calls.end(), "acting"), 1);
    stage.calls.clear();
    deliver(fileBytes("file", "data"));
    EXPECT_EQ(std::count(stage.calls.begin(), stage.calls.end(), "acting"), 1);
    EXPECT_EQ(std::count(stage.calls.begin(), stage.calls.end(), "0first"), 1);
}

TEST_F(FileCallbacks, mayChangeTheTargetDirectory) {
    receiver.addFileTransferedCallback(acting, nullptr);
    stage.action = [&](const std::string&) { receiver.setTargetDirectory(dir / "next"); };
    deliver(fileBytes("file", "one"));
    deliver(fileBytes("file", "two"));
    EXPECT_EQ(contentsOf(inInbox("file")), "one");
    EXPECT_EQ(dir.contents("next/file"), "two");
}

// A receive within a receive: the inner connection comes to its end first.
TEST_F(FileCallbacks, mayTick) {
    receiver.addFileTransferedCallback(acting, nullptr);
    TcpPeer inner = connect();  // accepted behind the outer one, below
    std::vector<std::string> order;
    std::deque<TcpPeer> later;
    stage.action = [&](const std::string& path) {
        order.push_back("begin " + path);
        if (order.size() == 1) {
            later.push_back(connect());
            later.back().sendAll(fileBytes("inner", "data", kId + 1));
            receiver.tick();
        }
        order.push_back("end " + path);
    };
    inner.sendAll(fileBytes("outer", "data"));
    receiver.tick();
    EXPECT_EQ(order, (std::vector<std::string>{"begin " + inInbox("outer"), "begin " + inInbox("inner"),
                                               "end " + inInbox("inner"), "end " + inInbox("outer")}));
    EXPECT_EQ(receiver.connections(), 2);
    EXPECT_EQ(receiver.transfersUnderWay(), 0u);
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(FileCallbacks, aNestedTickNeverRemovesTheConnectionBeingReceivedFrom) {
    receiver.addFileTransferedCallback(acting, nullptr);
    TcpPeer peer = connect();
    bool isFirst = true;
    stage.action = [&](const std::string&) {
        if (!isFirst) return;
        isFirst = false;
        // A test would find the connection broken by now; it is left to the receive that is using it.
        peer.reset();
        for (int i = 0; i < 3; ++i) receiver.tick();
        EXPECT_EQ(receiver.connections(), 1);
    };
    peer.sendAll(FirstMessage(1, "open", "a").announcing(2).bytes() + fileBytes("whole", "data"));
    const Quiet quiet;
    receiver.tick();
    EXPECT_EQ(messages.warn(), kSocketError);
    EXPECT_EQ(receiver.connections(), 0);
    EXPECT_EQ(contentsOf(inInbox("whole")), "data");
    EXPECT_FALSE(dir.has("inbox/open"));
}

TEST_F(FileCallbacks, aNestedReceiveEndsWithItsOwnTransfers) {
    receiver.addFileTransferedCallback(acting, nullptr);
    std::vector<std::string> order;
    std::deque<TcpPeer> later;
    stage.action = [&](const std::string& path) {
        order.push_back(path);
        if (order.size() > 1) return;
        later.push_back(connect());
        later.back().sendAll(fileBytes("inner", "data", 7));
        receiver.tick();  // transfer 1 is under way meanwhile, and is not waited for
        EXPECT_EQ(receiver.transfersUnderWay(), 2u);
    };
    deliver(FirstMessage(1, "open", "a").announcing(2).bytes() + fileBytes("whole", "data", 2) +
            laterMessage(1, "b"));
    EXPECT_EQ(order, (std::vector<std::string>{inInbox("whole"), inInbox("inner"), inInbox("open")}));
    EXPECT_EQ(contentsOf(inInbox("open")), "ab");
}

TEST_F(FileCallbacks, aTransferOfAnotherConnectionIsOutOfReach) {
    receiver.addFileTransferedCallback(acting, nullptr);
    std::deque<TcpPeer> later;
    const std::string intrusions[] = {laterMessage(1, "X"), fileBytes("taken-over", "X", 1),
                                      fileBytes("me-too", "X", 2)};
    stage.action = [&](const std::string& path) {
        if (path != inInbox("whole")) return;
        for (const std::string& intrusion : intrusions) {
            messages.warn();
            later.push_back(connect());
            later.back().sendAll(intrusion);
            receiver.tick();
            EXPECT_EQ(messages.warn(), kMalformed);
            expectEnded(later.back());
        }
        EXPECT_EQ(receiver.transfersUnderWay(), 2u) << "those of the first connection";
    };
    deliver(FirstMessage(1, "open", "a").announcing(2).bytes() + fileBytes("whole", "data", 2) +
            laterMessage(1, "b"));
    EXPECT_EQ(dir.tree(), (std::map<std::string, std::string>{
                              {"inbox", "directory"}, {"inbox/open", "ab"}, {"inbox/whole", "data"}}));
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(FileCallbacks, maySendAFile) {
    receiver.addFileTransferedCallback(acting, nullptr);
    dir.write("answer", "thank you");
    stage.action = [&](const std::string& path) {
        if (path == inInbox("file")) {
            EXPECT_TRUE(receiver.sendFile(dir / "answer", kLoopback));
        }
    };
    deliver(fileBytes("file", "data"));
    EXPECT_EQ(contentsOf(inInbox("answer")), "thank you") << "accepted before the same tick ended";
    EXPECT_EQ(stage.calls.size(), 2u);
}

TEST_F(FileCallbacks, anExceptionOfTheirsPassesThroughAndLeavesNothing) {
    receiver.addFileTransferedCallback(acting, nullptr);
    stage.action = [&](const std::string&) { throw 42; };
    TcpPeer peer = connect();
    peer.sendAll(FirstMessage(1, "open", "a").announcing(2).bytes() + fileBytes("file", "data"));
    EXPECT_THROW(receiver.tick(), int);
    EXPECT_EQ(receiver.transfersUnderWay(), 0u);
    receiver.removeFileTransferedCallback(acting, nullptr);
    receiver.addFileTransferedCallback(note, &arrived);
    expectGoesOn();
}

// --- warnings -------------------------------------------------------------------------------------------

namespace {

typedef std::vector<std::string> Lines;

class FileWarnings : public FileReceive {
protected:
    bool send(const std::string& path, int port) { return receiver.sendFile(path, kLoopback, port); }

    const Quiet quiet;  // the sockets' own reports are not looked at
    FlushedWarnings warnings;
};

}  // namespace

// Each is one line, and is out when the call returns, whatever the stream leads to.
TEST_F(FileWarnings, ofReceivingAreFlushedWithTheirEndOfLine) {
    deliver(laterMessage(kId, "data"));
    EXPECT_EQ(warnings.take(), Lines{kMalformed});
    deliverAndClose(FirstMessage(kId, "name", "").announcing(5).bytes());
    EXPECT_EQ(warnings.take(), Lines{kSocketError});
    ASSERT_EQ(::mkdir(inInbox("name").c_str(), 0755), 0);
    deliver(fileBytes("name", "data"));
    EXPECT_EQ(warnings.take(), Lines{cantCreate(inInbox("name"))});
    NwFileTransportObject& incomplete = receiver.transportObject(1);
    incomplete.fileName = "incomplete";
    incomplete.dataSize = 1;
    receiver.finishFile(incomplete);
    EXPECT_EQ(warnings.take(), Lines{errorWriting(inInbox("incomplete"))});
    const StallLimits limits(30, 0.05);
    deliver("");
    EXPECT_EQ(warnings.take(), Lines{kNoProgress});
    NwFileTransporter none(4000, true, 0, inbox(), nullptr);
    EXPECT_EQ(warnings.take(),
              Lines{"Corvane(NwFileTransporter) Could not find a free port in range 4000 to 4000\n"});
}

TEST_F(FileWarnings, ofSendingAreFlushedWithTheirEndOfLine) {
    EXPECT_FALSE(send(dir / "missing", 1));
    EXPECT_EQ(warnings.take(),
              Lines{"Corvane(NwFileTransporter): error opening file " + (dir / "missing") + "\n"});
    const std::string path = dir.write("file", randomBytes(16 << 20));
    EXPECT_FALSE(send(path, 65536));
    EXPECT_EQ(warnings.take(), Lines{"Corvane(NwFileTransporter): Could not create socket send() to addr "
                                     "127.0.0.1 port= 65536\n"});
    const StallLimits limits(0.05, 0);
    TcpListener listener;
    EXPECT_FALSE(send(path, listener.port())) << "nobody reads";
    EXPECT_EQ(warnings.take(), Lines{"Corvane(NwFileTransporter): no progress sending file " + path + "\n"});

    class Unreadable : public NwFileTransporter {
    public:
        Unreadable() : NwFileTransporter(-1, false, 0, "", nullptr) {}
        bool readFileToBuffer(std::ifstream&, std::vector<char>&, int, int&, NwFileTransportFlags&) override {
            return false;
        }
    } unreadable;
    EXPECT_FALSE(unreadable.sendFile(path, kLoopback, listener.port()));
    EXPECT_EQ(warnings.take(), Lines{"Corvane(NwFileTransporter) error reading file " + path + "\n"});
}

// --- derived classes ------------------------------------------------------------------------------------

namespace {

class Derived : public Receiver {
public:
    using Receiver::Receiver;

    void receiveFile(NwTcpSocket* sock) override {
        ++receives;
        NwFileTransporter::receiveFile(sock);
    }
    NwFileTransportObject& transportObject(int id) override {
        asked.push_back(id);
        if (useOwn) return own;
        return NwFileTransporter::transportObject(id);
    }
    void finishFile(NwFileTransportObject& obj) override {
        finished.push_back(obj);
        if (atFinish) atFinish(obj);
        if (!keepsSilent) NwFileTransporter::finishFile(obj);
    }

    int receives = 0;
    std::vector<int> asked;
    std::vector<NwFileTransportObject> finished;
    NwFileTransportObject own;
    std::function<void(NwFileTransportObject&)> atFinish;
    bool useOwn = false, keepsSilent = false;
};

class FileDerived : public FileReceive {
protected:
    void give(const std::string& bytes) {
        TcpPeer peer(derived.port());
        peer.sendAll(bytes);
        derived.tick();
    }
    Derived derived{inbox()};
};

}  // namespace

TEST_F(FileDerived, seesEachStep) {
    FirstMessage first(kId, "path/file", "da");
    first.announcing(4).flags = 0xA1B2C3D4u;
    first.fileSize = 99;
    give(first.bytes() + laterMessage(kId, "ta"));
    EXPECT_EQ(derived.receives, 1);
    EXPECT_EQ(derived.asked, std::vector<int>(2, static_cast<int>(kId)));
    ASSERT_EQ(derived.finished.size(), 1u);
    const NwFileTransportObject& obj = derived.finished[0];
    EXPECT_EQ(obj.identifier, static_cast<std::int32_t>(kId));
    EXPECT_EQ(obj.fileName, NwFilename("file"));
    EXPECT_EQ(obj.fileSize, 99u);
    EXPECT_EQ(obj.dataSize, 4);
    EXPECT_EQ(obj.bytesReceived, 4);
    EXPECT_EQ(std::string(obj.data.data(), obj.data.size()), std::string("data\0", 5)) << "and one zero byte";
    EXPECT_EQ(obj.flags, 0xA1B2C3D4u);
    EXPECT_EQ(contentsOf(inInbox("file")), "data");
}

TEST_F(FileDerived, anEmptyTransferHasItsZeroByteToo) {
    give(fileBytes("empty", ""));
    ASSERT_EQ(derived.finished.size(), 1u);
    EXPECT_EQ(derived.finished[0].data, std::vector<char>(1, '\0'));
}

TEST_F(FileDerived, mayTransformWhatIsWritten) {
    derived.atFinish = [](NwFileTransportObject& obj) {
        const std::string unpacked = "unpacked text";
        obj.data.assign(unpacked.begin(), unpacked.end());
        obj.dataSize = static_cast<std::int64_t>(unpacked.size());
        obj.fileName = "renamed";
    };
    give(fileBytes("packed", "u13"));
    EXPECT_EQ(contentsOf(inInbox("renamed")), "unpacked text");
    EXPECT_FALSE(dir.has("inbox/packed"));
}

TEST_F(FileDerived, bytesThatItDoesNotHaveAreNotWritten) {
    for (const std::int64_t size :
         {std::int64_t(5), std::int64_t(1) << 40, std::int64_t(-1), INT64_MIN, INT64_MAX}) {
        derived.atFinish = [&](NwFileTransportObject& obj) {
            obj.data.assign(4, 'x');
            obj.dataSize = size;
        };
        const Quiet quiet;
        give(fileBytes("file", "data"));
        EXPECT_EQ(messages.warn(), errorWriting(inInbox("file"))) << size;
        EXPECT_FALSE(dir.has("inbox/file"));
    }
}

TEST_F(FileDerived, aNameOfItsOwnStaysInTheDirectory) {
    dir.write("victim", "kept");
    for (const std::string& name :
         {dir / "victim", std::string("/"), std::string(), std::string(".."), std::string(".")}) {
        derived.atFinish = [&](NwFileTransportObject& obj) { obj.fileName = name; };
        const Quiet quiet;
        give(fileBytes("file", "data"));
        EXPECT_EQ(messages.warn(), cantCreate(NwFilename::combine(inbox(), name).c_str()));
    }
    EXPECT_EQ(dir.contents("victim"), "kept");
}

TEST_F(FileDerived, thatWritesNothingEndsTheTransferAllTheSame) {
    derived.keepsSilent = true;
    give(fileBytes("file", "data"));
    EXPECT_EQ(derived.finished.size(), 1u);
    EXPECT_FALSE(dir.has("inbox/file"));
    EXPECT_EQ(derived.transfersUnderWay(), 0u);
    derived.keepsSilent = false;
    give(fileBytes("file", "data"));
    EXPECT_EQ(contentsOf(inInbox("file")), "data");
}

TEST_F(FileDerived, mayKeepTransfersOfItsOwn) {
    derived.useOwn = true;
    derived.own.identifier = 5;
    give(FirstMessage(kId, "file", "da").announcing(4).bytes() + laterMessage(kId, "ta"));
    EXPECT_EQ(contentsOf(inInbox("file")), "data");
    EXPECT_EQ(derived.transfersUnderWay(), 0u);
}

TEST_F(FileDerived, receiveFileMayBeCalledForAnyConnection) {
    TcpListener listener;
    TcpPeer peer(listener.port());
    NwTcpSocket socket(listener.acceptFd(), kLoopback, 0);
    peer.sendAll(fileBytes("file", "data"));
    derived.receiveFile(&socket);
    EXPECT_EQ(contentsOf(inInbox("file")), "data");

    peer.sendAll(fileBytes("file", "again"));
    NwFileTransporter::receiveFileCb(&socket, static_cast<NwFileTransporter*>(&derived));
    EXPECT_EQ(contentsOf(inInbox("file")), "again");
    EXPECT_EQ(derived.receives, 2) << "the virtual one is called";
}

// --- transfers as values --------------------------------------------------------------------------------

TEST(FileTransportObject, isZeroAndEmptyAtTheStart) {
    const NwFileTransportObject obj;
    EXPECT_EQ(obj.identifier, 0);
    EXPECT_EQ(obj.fileName, NwFilename());
    EXPECT_EQ(obj.fileSize, 0u);
    EXPECT_EQ(obj.dataSize, 0);
    EXPECT_EQ(obj.bytesReceived, 0);
    EXPECT_TRUE(obj.data.empty());
    EXPECT_EQ(obj.flags, 0u);
    EXPECT_FALSE(obj.headerSeen);
}

TEST(FileTransportObject, isCopiedFieldByField) {
    NwFileTransportObject obj;
    obj.identifier = -5;
    obj.fileName = "name";
    obj.fileSize = 0xFFFFFFFFu;
    obj.dataSize = std::int64_t(1) << 40;
    obj.bytesReceived = (std::int64_t(1) << 40) - 1;
    obj.data = {'a', 'b'};
    obj.flags = static_cast<NwFileTransporter::NwFileTransportFlags>(0x80000001u);
    obj.headerSeen = true;
    NwFileTransportObject assigned;
    assigned = obj;
    for (const NwFileTransportObject& copy : {NwFileTransportObject(obj), assigned}) {
        EXPECT_EQ(copy.identifier, -5);
        EXPECT_EQ(copy.fileName, NwFilename("name"));
        EXPECT_EQ(copy.fileSize, 0xFFFFFFFFu);
        EXPECT_EQ(copy.dataSize, std::int64_t(1) << 40);
        EXPECT_EQ(copy.bytesReceived, (std::int64_t(1) << 40) - 1);
        EXPECT_EQ(copy.data, obj.data);
        EXPECT_NE(copy.data.data(), obj.data.data());
        EXPECT_EQ(copy.flags, 0x80000001u);
        EXPECT_TRUE(copy.headerSeen);
    }
}

namespace {

typedef FileReceive FileTransfers;

}  // namespace

TEST_F(FileTransfers, transportObjectBeginsATransferOrFindsIt) {
    NwFileTransportObject& obj = receiver.transportObject(-7);
    EXPECT_EQ(obj.identifier, -7);
    EXPECT_EQ(obj.fileSize, 0u);
    EXPECT_TRUE(obj.data.empty());
    EXPECT_EQ(&receiver.transportObject(-7), &obj);
    EXPECT_EQ(receiver.transfersUnderWay(), 1u);
}

TEST_F(FileTransfers, aTransferBegunByTheApplicationIsGoneOnWith) {
    receiver.transportObject(5);
    deliver(fileBytes("file", "data", 5));
    EXPECT_EQ(contentsOf(inInbox("file")), "data");
    EXPECT_EQ(receiver.transfersUnderWay(), 0u);
}

TEST_F(FileTransfers, finishFileWritesWhatTheApplicationHas) {
    NwFileTransportObject& obj = receiver.transportObject(5);
    receiver.transportObject(6);
    obj.fileName = "made-here";
    obj.dataSize = 4;
    obj.data = {'d', 'a', 't', 'a', '\0'};
    receiver.finishFile(obj);
    EXPECT_EQ(contentsOf(inInbox("made-here")), "data");
    EXPECT_EQ(arrived, std::vector<std::string>{inInbox("made-here")});
    EXPECT_EQ(receiver.transfers.count(5), 0u);
    EXPECT_EQ(receiver.transfers.count(6), 1u) << "others stay";
}

TEST_F(FileTransfers, aFileIsReceivedWhileItsConnectionIsAccepted) {
    TcpPeer peer = connect();
    peer.sendAll(fileBytes("file", "data"));
    receiver.mySocketMgr->processConnections();
    EXPECT_EQ(contentsOf(inInbox("file")), "data");
    EXPECT_EQ(arrived.size(), 1u) << "before any walk over the connections";
}

// --- ports ----------------------------------------------------------------------------------------------

namespace {

class FilePorts : public testing::Test {
protected:
    // The first of so many ports in a row that nobody listens on.
    static int freePorts(int count) {
        for (int first = 20000; first < 60000; first += count) {
            std::vector<std::unique_ptr<NwTcpSocketMgr>> all;
            for (int i = 0; i < count; ++i) all.emplace_back(new NwTcpSocketMgr(first + i));
            if (std::all_of(all.begin(), all.end(), [](const auto& m) { return m->isOk(); })) return first;
        }
        throw std::runtime_error("no free ports");
    }
    // Whether files can be sent to that port.
    bool listens(int port, NwFileTransporter& transporter) {
        TcpPeer peer(port);
        peer.sendAll(fileBytes("file", std::to_string(port)));
        transporter.tick();
        return dir.contents("inbox/file") == std::to_string(port);
    }
    std::string inbox() const { return dir / "inbox"; }

    Messages messages;
    Directory dir;
};

}  // namespace

TEST_F(FilePorts, theGivenOneIsTakenWhenItIsFree) {
    const int first = freePorts(2);
    for (const bool search : {false, true}) {
        int port = 0;
        NwFileTransporter transporter(first, search, 2, inbox(), &port);
        EXPECT_EQ(port, first);
        EXPECT_EQ(transporter.port(), first);
        EXPECT_TRUE(listens(first, transporter));
    }
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(FilePorts, busyOnesAreSkipped) {
    const int first = freePorts(4);
    NwFileTransporter one(first, false, 0, inbox(), nullptr);
    NwTcpSocketMgr two(first + 1);
    int port = 0;
    NwFileTransporter transporter(first, true, 3, inbox(), &port);
    EXPECT_EQ(port, first + 2);
    EXPECT_EQ(transporter.port(), first + 2);
    EXPECT_TRUE(listens(first + 2, transporter));
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(FilePorts, theRangeEndsBeforePortPlusRange) {
    const int first = freePorts(3);
    NwFileTransporter one(first, false, 0, dir.path(), nullptr),
        two(first + 1, false, 0, dir.path(), nullptr);
    int port = 0;
    NwFileTransporter none(first, true, 2, inbox(), &port);
    EXPECT_EQ(port, -1);
    EXPECT_EQ(none.port(), -1);
    EXPECT_EQ(messages.warn(), "") << "nothing is printed when all are taken";
    EXPECT_TRUE(dir.has("inbox")) << "made before ports are tried";
    none.tick();
    none.setTargetDirectory(dir / "other");
    none.addFileTransferedCallback(note, nullptr);
    EXPECT_TRUE(dir.has("other"));
}

TEST_F(FilePorts, withoutASearchTheGivenOneAloneIsTried) {
    const int first = freePorts(2);
    NwFileTransporter one(first, false, 0, inbox(), nullptr);
    int port = 0;
    NwFileTransporter none(first, false, 5, inbox(), &port);
    EXPECT_EQ(port, -1);
    EXPECT_EQ(none.port(), -1);
    EXPECT_EQ(messages.warn(), "");
    none.tick();
}

TEST_F(FilePorts, withoutASearchTheRangeDoesNotMatter) {
    for (const int range : {0, -1, INT_MIN, INT_MAX}) {
        int port = 0;
        NwFileTransporter transporter(0, false, range, inbox(), &port);
        EXPECT_GT(port, 0);
    }
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(FilePorts, anEmptyRangeIsReported) {
    const struct {
        int port, range;
        const char* text;
    } rows[] = {{4000, 0, "4000 to 4000\n"},
                {4000, -3, "4000 to 3997\n"},
                {-1, 0, "-1 to -1\n"},
                {INT_MIN, INT_MIN, "-2147483648 to -4294967296\n"}};
    for (const auto& row : rows)
        for (const bool isQuiet : {false, true}) {
            NwSocket::setQuietSockets(isQuiet);
            int port = 0;
            NwFileTransporter none(row.port, true, row.range, inbox(), &port);
            EXPECT_EQ(
                messages.warn(),
                std::string("Corvane(NwFileTransporter) Could not find a free port in range ") + row.text);
            EXPECT_EQ(port, -1);
            EXPECT_EQ(none.port(), -1);
            none.tick();
        }
    NwSocket::setQuietSockets(false);
}

TEST_F(FilePorts, whatIsNoPortIsNotTakenModulo65536) {
    for (const int given : {65536, 65536 + 20000, 1 << 20, INT_MAX, -1, -45536, INT_MIN}) {
        for (const bool search : {false, true}) {
            int port = 0;
            NwFileTransporter none(given, search, 5, inbox(), &port);
            if (search && given == -1) continue;  // its range has port 0
            EXPECT_EQ(port, -1) << given;
            EXPECT_EQ(none.port(), -1);
        }
    }
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(FilePorts, aSearchStopsAtTheLastPort) {
    REQUIRE_PRIVATE_NETWORK();
    int port = 0;
    NwFileTransporter last(65535, true, INT_MAX, inbox(), &port);
    EXPECT_EQ(port, 65535);
    NwFileTransporter none(65535, true, INT_MAX, inbox(), &port);
    EXPECT_EQ(port, -1);
    NwFileTransporter choice(INT_MIN, true, INT_MAX, inbox(), &port);
    EXPECT_EQ(port, -1) << "a range of negative numbers";
}

TEST_F(FilePorts, portZeroIsTheSystemsChoice) {
    int port = 0;
    NwFileTransporter transporter(0, true, 1, inbox(), &port);
    EXPECT_GT(port, 0);
    EXPECT_EQ(transporter.port(), port);
    EXPECT_TRUE(listens(port, transporter));
}

TEST_F(FilePorts, aPortThatIsRefusedForAnotherReasonIsReportedAndSkipped) {
    REQUIRE_PRIVATE_NETWORK();
    const char* const setting = "/proc/sys/net/ipv4/ip_unprivileged_port_start";
    const std::string former = contentsOf(setting);
    // Ports below 1024 need a right that is given up for a moment, in a child.
    if (former.empty()) GTEST_SKIP() << "no " << setting;
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (::getuid() == 0 && ::setresuid(65534, 65534, 65534) != 0) ::_exit(77);
        const std::string report = systemReport("NwSocketMgr Constructor:", EACCES);
        bool isRight = true;
        for (const bool isQuiet : {false, true}) {
            NwSocket::setQuietSockets(isQuiet);
            int port = 0;
            NwFileTransporter transporter(1022, true, 4, "/tmp", &port);
            isRight = isRight && port == 1024 && messages.warn() == report + report;
        }
        ::syscall(SYS_exit_group, isRight ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no second user to act as";
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

// --- the end --------------------------------------------------------------------------------------------

TEST_F(FilePorts, destructionClosesEverythingSilently) {
    int port = 0;
    const int before = openDescriptors();
    {
        std::unique_ptr<Receiver> transporter(new Receiver(inbox()));
        port = transporter->port();
        TcpPeer peer(port), waiting(port);
        peer.sendAll(fileBytes("file", "data"));
        waiting.close();
        transporter->tick();
        messages.all();
        transporter->transportObject(7).data.assign(1000, 'x');
        transporter.reset();
        EXPECT_EQ(messages.all(), "") << "incomplete transfers go silently";
        EXPECT_EQ(peer.receiveToEnd().size() % 4, 0u) << "the connection is closed; tests may have come";
    }
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(dir.tree(),
              (std::map<std::string, std::string>{{"inbox", "directory"}, {"inbox/file", "data"}}));
    NwFileTransporter again(port, false, 0, inbox(), nullptr);
    EXPECT_EQ(again.port(), port) << "the port is free";
}

TEST_F(FilePorts, noDescriptorIsLeftBehindByFilesOrFailures) {
    Receiver receiver(inbox());
    const int before = openDescriptors();
    const Quiet quiet;
    ASSERT_EQ(::mkdir((inbox() + "/directory").c_str(), 0755), 0);
    for (const std::string& bytes :
         {fileBytes("file", "data"), fileBytes("directory", "data"), fileBytes("..", "x"),
          laterMessage(1, "x"), fileBytes("file", "data").substr(0, 20)}) {
        {
            TcpPeer peer(receiver.port());
            peer.sendAll(bytes);
        }
        receiver.tick();
    }
    EXPECT_TRUE(eventually([&] {
        receiver.tick();
        return receiver.connections() == 0;
    }));
    EXPECT_EQ(openDescriptors(), before);
}

// --- from transporter to transporter --------------------------------------------------------------------

namespace {

// Ticks on a thread of its own while it lives.
class Running {
public:
    explicit Running(NwFileTransporter& transporter)
        : myThread([this, &transporter] {
              while (!myStop) {
                  transporter.tick();
                  std::this_thread::sleep_for(std::chrono::microseconds(200));
              }
          }) {}
    ~Running() {
        myStop = true;
        myThread.join();
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

private:
    std::atomic<bool> myStop{false};
    std::thread myThread;
};

void count(const NwFilename&, void* counter) {
    ++*static_cast<std::atomic<int>*>(counter);
}

class FileExchange : public testing::Test {
protected:
    FileExchange() {
        receiver.addFileTransferedCallback(count, &arrived);
        NwSetOutputLevel(NwOutputWarn);
    }
    bool waitFor(int files) {
        return eventually([&] { return arrived >= files; });
    }
    std::string received(const std::string& name) { return dir.contents("inbox/" + name); }

    Messages messages;
    Quiet quiet;
    Directory dir;
    Receiver receiver{dir / "inbox"};
    NwFileTransporter sender{0, false, 0, dir / "outbox", nullptr};
    std::atomic<int> arrived{0};
};

}  // namespace

TEST_F(FileExchange, everySizeAroundTheCutsArrives) {
    const Running running(receiver);
    int sent = 0;
    for (const int limit : {31, 64, 1500, 15000, 70000}) {
        const std::string name = "tile.dat";
        const int first = limit - 21 - static_cast<int>(name.size()), later = limit - 8;
        for (const int size :
             {1, first - 1, first, first + 1, first + later, first + later + 1, first + 20 * later}) {
            if (size < 1) continue;
            EXPECT_TRUE(waitFor(sent));
            theMaxPacketSize = limit;
            const std::string data =
                randomBytes(static_cast<std::size_t>(size), static_cast<unsigned int>(sent));
            ASSERT_TRUE(sender.sendFile(dir.write("outbox/" + name, data), kLoopback, receiver.port()));
            ASSERT_TRUE(waitFor(++sent)) << size << " in " << limit;
            EXPECT_TRUE(received(name) == data) << size << " in " << limit;
        }
    }
    theMaxPacketSize = 15000;
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(FileExchange, anEmptyFileIsNeverHeardOf) {
    {
        const Running running(receiver);
        ASSERT_TRUE(sender.sendFile(dir.write("outbox/empty", ""), kLoopback, receiver.port()));
        ASSERT_TRUE(sender.sendFile(dir.write("outbox/next", "x"), kLoopback, receiver.port()));
        ASSERT_TRUE(waitFor(1));
    }
    EXPECT_FALSE(dir.has("inbox/empty"));
    EXPECT_EQ(messages.warn(), kSocketError) << "a connection that ends without a file";
}

TEST_F(FileExchange, aLargeFileArrivesWhole) {
    const std::size_t size = std::size_t(kIsSanitized ? 20 : 300) << 20;
    if (dir.room() < 2 * size + (64u << 20)) GTEST_SKIP() << "no room for two files of " << size << " bytes";
    const std::string data = randomBytes(size);
    const std::string path = dir.write("outbox/large", data);
    const Running running(receiver);
    ASSERT_TRUE(sender.sendFile(path, kLoopback, receiver.port()));
    ASSERT_TRUE(waitFor(1));
    EXPECT_TRUE(received("large") == data);
}

TEST_F(FileExchange, twoSendersAtOnce) {
    const std::string one = randomBytes(3000000, 1), two = randomBytes(2000000, 2);
    const std::string first = dir.write("outbox/one", one), second = dir.write("outbox/two", two);
    const Running running(receiver);
    std::thread other([&] {
        NwFileTransporter another(0, false, 0, dir / "outbox", nullptr);
        EXPECT_TRUE(another.sendFile(second, kLoopback, receiver.port()));
    });
    EXPECT_TRUE(sender.sendFile(first, kLoopback, receiver.port()));
    other.join();
    ASSERT_TRUE(waitFor(2));
    EXPECT_TRUE(received("one") == one);
    EXPECT_TRUE(received("two") == two);
}

TEST_F(FileExchange, fiveHundredFilesInARow) {
    const int files = 500;
    const Running running(receiver);
    for (int i = 0; i < files; ++i) {
        const std::string name = std::to_string(i);
        const std::string data =
            randomBytes(static_cast<std::size_t>(1 + i * 37 % 40000), static_cast<unsigned int>(i));
        ASSERT_TRUE(sender.sendFile(dir.write("outbox/" + name, data), kLoopback, receiver.port())) << i;
    }
    ASSERT_TRUE(waitFor(files));
    for (int i = 0; i < files; ++i)
        EXPECT_TRUE(received(std::to_string(i)) == dir.contents("outbox/" + std::to_string(i)));
    EXPECT_EQ(arrived, files);
    EXPECT_EQ(messages.warn(), "");
}

TEST_F(FileExchange, bothWaysBetweenTwoTransporters) {
    std::atomic<int> back{0};
    sender.addFileTransferedCallback(count, &back);
    dir.write("there", "to");
    dir.write("back", "fro");
    ASSERT_TRUE(sender.sendFile(dir / "there", kLoopback, receiver.port()));
    receiver.tick();
    ASSERT_TRUE(receiver.sendFile(dir / "back", kLoopback, sender.port()));
    sender.tick();
    EXPECT_EQ(received("there"), "to");
    EXPECT_EQ(dir.contents("outbox/back"), "fro");
    EXPECT_EQ(back, 1);
}

TEST_F(FileExchange, toItselfByItsOwnPort) {
    ASSERT_TRUE(receiver.sendFile(dir.write("outbox/file", "data"), kLoopback));
    receiver.tick();
    EXPECT_EQ(received("file"), "data");
}

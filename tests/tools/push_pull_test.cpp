// SPDX-License-Identifier: BSD-3-Clause
// `cvnet push` and `cvnet pull`, with each other and with raw sockets on the other side: what arrives, what
// is on the wire, what their users are told.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <thread>

#include "captures.h"
#include "cvnet_process.h"
#include "network.h"
#include "tcp_peer.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

namespace fs = std::filesystem;

namespace {

using Strings = std::vector<std::string>;
using Json = nlohmann::json;

const size_t kMoreThanBuffersHold = 40000000;
const size_t kLongestMessage = 15000;  // the library's default, which every receiver takes

std::string randomBytes(size_t count) {
    std::mt19937_64 engine(4711);
    std::string bytes(count, '\0');
    for (char& byte : bytes) byte = static_cast<char>(engine());
    return bytes;
}

// --- messages by hand ------------------------------------------------------------------------------------

std::string field(size_t value) {
    std::string bytes;
    for (const int shift : {24, 16, 8, 0}) bytes += static_cast<char>(value >> shift);
    return bytes;
}

size_t fieldAt(const std::string& bytes, size_t offset) {
    size_t value = 0;
    for (size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<unsigned char>(bytes.at(offset + i));
    return value;
}

std::string message(const std::string& behindLength) {
    return field(behindLength.size() + 4) + behindLength;
}

std::string firstMessage(const std::string& name, size_t dataSize, const std::string& data, size_t id = 77) {
    return message(field(id) + field(dataSize) + field(dataSize) + field(0) + name + '\0' + data);
}

std::string laterMessage(const std::string& data, size_t id = 77) {
    return message(field(id) + data);
}

// What a stream of messages carries.
struct Transfer {
    explicit Transfer(const std::string& stream) {
        for (size_t at = 0; at < stream.size(); at += lengths.back()) {
            lengths.push_back(fieldAt(stream, at));
            size_t start = at + 8;
            if (lengths.size() == 1) {
                id = fieldAt(stream, at + 4);
                fileSize = fieldAt(stream, at + 8);
                dataSize = fieldAt(stream, at + 12);
                flags = fieldAt(stream, at + 16);
                name = stream.c_str() + at + 20;
                start = at + 20 + name.size() + 1;
            }
            EXPECT_EQ(fieldAt(stream, at + 4), id);
            data += stream.substr(start, at + lengths.back() - start);
        }
    }
    std::vector<size_t> lengths;
    size_t id = 0, fileSize = 0, dataSize = 0, flags = 0;
    std::string name, data;
};

// --- the fixture -----------------------------------------------------------------------------------------

// A directory with files to push, and one that pull puts them into.
class PushPull : public testing::Test {
protected:
    PushPull() { fs::create_directory(inbox()); }

    std::string inbox() const { return myDirectory.path("inbox"); }
    std::string path(const std::string& name) const { return myDirectory.path(name); }
    // A file to push.
    std::string file(const std::string& name, const std::string& bytes) const {
        writeFile(path(name), bytes);
        return path(name);
    }
    std::string received(const std::string& name) const {
        std::ifstream in(inbox() + "/" + name, std::ios::binary);
        std::ostringstream bytes;
        bytes << in.rdbuf();
        return bytes.str();
    }
    Strings inboxNames() const {
        Strings names;
        for (const auto& entry : fs::directory_iterator(inbox())) names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

    // `cvnet pull` into the inbox on a port of the kernel's choice.
    std::unique_ptr<CvnetProcess> startPull(Arguments further = {},
                                            CvnetProcess::Where where = CvnetProcess::inPipes) {
        further.insert(further.begin(), {"pull", "--dir", inbox(), "--port", "0"});
        auto pull = std::make_unique<CvnetProcess>(further, where);
        myPort = pull->listeningPort();
        return pull;
    }
    Arguments pushTo(int port, Arguments further) const {
        further.insert(further.begin(), "push");
        further.insert(further.end(), {"--to", "127.0.0.1:" + std::to_string(port)});
        return further;
    }
    CvnetResult push(const Arguments& further) const { return cvnet(pushTo(myPort, further)); }
    static CvnetResult end(CvnetProcess& process, int signal = SIGINT) {
        process.signal(signal);
        return process.finish();
    }

    TestDirectory myDirectory;
    int myPort = 0;
};

void expectLines(const std::string& text, const std::vector<testing::Matcher<std::string>>& lines) {
    EXPECT_THAT(linesOf(text), testing::ElementsAreArray(lines)) << text;
}

// Even for root, a file's permissions count.
void obeyPermissions() {
    ::prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE);
    ::prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH);
}

const char* const kBar = "% [#";

// Messages of one byte, until the receiver has taken one and shows it; says how many.
int sendUntilABarShows(TcpPeer& peer, CvnetProcess& pull) {
    const int most = 1000;
    int sent = 0;
    for (; sent < most && !pull.outputHas(kBar); ++sent) peer.sendAll(laterMessage("y"));
    EXPECT_LT(sent, most) << pull.output();
    return sent;
}

// Waits until the sender has filled the connection and is held in the middle of its file.
void waitUntilNothingMoreComes(const TcpPeer& peer) {
    int before = -1;
    EXPECT_TRUE(eventually([&] {
        int now = 0;
        ::ioctl(peer.fd(), FIONREAD, &now);
        const bool isFull = now > 0 && now == before;
        before = now;
        ::usleep(100000);  // a sender that runs fills megabytes in that time
        return isFull;
    }));
}

const char* const kSecondsAndRate = " in [0-9]+\\.[0-9]{3} s, .*/s";

}  // namespace

// --- files arrive ----------------------------------------------------------------------------------------

TEST_F(PushPull, filesArriveWholeAndAreToldAtBothEnds) {
    const std::string large = randomBytes(3000000);
    const auto pull = startPull();
    const CvnetResult pushed = push({file("tile_7.dat", large), file("one", "1")});
    EXPECT_EQ(pushed.exitStatus, 0) << pushed.errors;
    expectLines(pushed.output,
                {StartsWith("pushing 2 files to 127.0.0.1:" + std::to_string(myPort)),
                 MatchesRegex(std::string("tile_7.dat: 3000000 bytes") + kSecondsAndRate),
                 MatchesRegex(std::string("one: 1 byte") + kSecondsAndRate),
                 MatchesRegex(std::string("pushed 2 of 2 files, 3000001 bytes") + kSecondsAndRate)});
    EXPECT_EQ(pushed.errors, "");
    EXPECT_TRUE(pull->waitForOutput("one: "));
    const CvnetResult pulled = end(*pull);
    EXPECT_EQ(pulled.exitStatus, 0);
    const std::string from = " from 127\\.0\\.0\\.1:[0-9]+";
    expectLines(pulled.output,
                {"listening on port " + std::to_string(myPort) + ", files go to " + inbox(),
                 MatchesRegex("tile_7.dat: 3000000 bytes" + from + kSecondsAndRate),
                 MatchesRegex("one: 1 byte" + from + kSecondsAndRate),
                 MatchesRegex(std::string("pulled 2 files, 3000001 bytes") + kSecondsAndRate)});
    EXPECT_EQ(pulled.errors, "");
    EXPECT_THAT(inboxNames(), ElementsAre("one", "tile_7.dat"));
    EXPECT_TRUE(received("tile_7.dat") == large);
    EXPECT_EQ(received("one"), "1");
}

TEST_F(PushPull, jsonTellsTheSame) {
    const auto pull = startPull({"--json"});
    const CvnetResult pushed =
        push({"--json", file("a", "four"), file("b", ""), path("missing"), "--stall", "5"});
    EXPECT_EQ(pushed.exitStatus, 1);
    const auto lines = jsonLines(pushed.output);
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_EQ(lines[0], (Json{{"event", "pushing"}, {"to", "127.0.0.1"}, {"port", myPort}, {"files", 3}}));
    EXPECT_EQ(lines[1].value("event", ""), "file");
    EXPECT_EQ(lines[1].value("name", ""), "a");
    EXPECT_EQ(lines[1].value("path", ""), path("a"));
    EXPECT_EQ(lines[1].value("bytes", -1), 4);
    EXPECT_GT(lines[1].value("seconds", 0.0), 0.0);
    EXPECT_DOUBLE_EQ(lines[1].value("bytesPerSecond", 0.0), 4 / lines[1].value("seconds", 0.0));
    EXPECT_EQ(lines[1].value("acknowledged", false), true);
    EXPECT_FALSE(lines[1].contains("error"));
    EXPECT_EQ(lines[2].value("note", ""), "empty, nothing was sent");
    EXPECT_TRUE(lines[2].contains("acknowledged"));
    EXPECT_TRUE(lines[2]["acknowledged"].is_null()) << "there was nothing to acknowledge";
    EXPECT_EQ(lines[2].value("bytes", -1), 0);
    EXPECT_EQ(lines[3].value("acknowledged", true), false);
    EXPECT_EQ(lines[3].value("error", ""), "No such file or directory");
    EXPECT_TRUE(lines[3]["bytesPerSecond"].is_null());
    const Json totals = lines[4];
    EXPECT_EQ(totals.value("event", ""), "totals");
    EXPECT_EQ(totals.value("files", -1), 2);
    EXPECT_EQ(totals.value("failed", -1), 1);
    EXPECT_EQ(totals.value("notTried", -1), 0);
    EXPECT_EQ(totals.value("empty", -1), 1);
    EXPECT_EQ(totals.value("bytes", -1), 4);
    EXPECT_GT(totals.value("seconds", 0.0), 0.0);

    EXPECT_TRUE(pull->waitForOutput("\"file\""));
    TcpPeer broken(myPort);
    broken.sendAll(firstMessage("lost", 1000, "x") + laterMessage("y"));
    broken.close();
    EXPECT_TRUE(pull->waitForOutput("\"lost\""));
    const auto pulled = jsonLines(end(*pull).output);
    ASSERT_EQ(pulled.size(), 4U);
    EXPECT_EQ(pulled[0], (Json{{"event", "listening"}, {"port", myPort}, {"dir", inbox()}}));
    EXPECT_EQ(pulled[1].value("event", ""), "file");
    EXPECT_EQ(pulled[1].value("name", ""), "a");
    EXPECT_EQ(pulled[1].value("path", ""), inbox() + "/a");
    EXPECT_EQ(pulled[1].value("from", ""), "127.0.0.1");
    EXPECT_GT(pulled[1].value("port", 0), 0);
    EXPECT_EQ(pulled[1].value("bytes", -1), 4);
    EXPECT_DOUBLE_EQ(pulled[1].value("bytesPerSecond", 0.0), 4 / pulled[1].value("seconds", 0.0));
    EXPECT_EQ(pulled[2].value("event", ""), "lost");
    EXPECT_EQ(pulled[2].value("name", ""), "lost");
    EXPECT_EQ(pulled[2].value("from", ""), "127.0.0.1");
    EXPECT_EQ(pulled[2].value("reason", ""), "the connection ended too early");
    EXPECT_EQ(pulled[3].value("event", ""), "totals");
    EXPECT_EQ(pulled[3].value("files", -1), 1);
    EXPECT_EQ(pulled[3].value("lost", -1), 1);
    EXPECT_EQ(pulled[3].value("bytes", -1), 4);
}

// While the files are pushed, another thread makes them longer and shorter: what was looked at first is not
// what is sent.
TEST_F(PushPull, pushTellsTheBytesThatItSent) {
    const std::string changing = file("changing", "x");
    std::atomic<bool> isOver{false};
    std::thread changer([&] {
        for (off_t size = 0; !isOver; size = (size + 1) % 100) (void)!::truncate(changing.c_str(), size);
    });
    const auto pull = startPull({"--json"});
    Arguments arguments(100, changing);
    arguments.push_back("--json");
    std::vector<int> sent;
    for (const Json& line : jsonLines(push(arguments).output)) {
        const bool arrives =
            line.value("event", "") == "file" && line.value("bytes", 0) > 0 && !line.contains("error");
        if (arrives) sent.push_back(line.value("bytes", -1));
    }
    isOver = true;
    changer.join();
    ASSERT_GT(sent.size(), 0U);
    file("last", "l");
    EXPECT_EQ(push({path("last")}).exitStatus, 0);
    EXPECT_TRUE(pull->waitForOutput("\"last\""));
    std::vector<int> received;
    for (const Json& line : jsonLines(end(*pull).output))
        if (line.value("name", "") == "changing") received.push_back(line.value("bytes", -1));
    EXPECT_EQ(sent, received);
}

TEST_F(PushPull, quietPrintsTotalsOnly) {
    const auto pull = startPull({"--quiet", "--once", "1"});
    const CvnetResult pushed = push({"--quiet", file("a", "four")});
    EXPECT_EQ(pushed.exitStatus, 0);
    expectLines(pushed.output, {StartsWith("pushed 1 of 1 file, 4 bytes")});
    expectLines(pull->finish().output,
                {StartsWith("listening on port "), StartsWith("pulled 1 file, 4 bytes")});
}

TEST_F(PushPull, anExistingFileIsReplaced) {
    const auto pull = startPull({"--once", "2"});
    EXPECT_EQ(push({file("log", "a long first edition")}).exitStatus, 0);
    EXPECT_EQ(push({file("log", "second")}).exitStatus, 0);
    EXPECT_EQ(pull->finish().exitStatus, 0);
    EXPECT_EQ(received("log"), "second");
}

TEST_F(PushPull, twoPushesAtOnceBothArrive) {
    const std::string first = randomBytes(5000000);
    const std::string second(5000000, 'b');
    const auto pull = startPull({"--once", "2"});
    CvnetProcess one(pushTo(myPort, {file("first", first)}));
    CvnetProcess two(pushTo(myPort, {file("second", second)}));
    EXPECT_EQ(one.finish().exitStatus, 0);
    EXPECT_EQ(two.finish().exitStatus, 0);
    EXPECT_EQ(pull->finish().exitStatus, 0);
    EXPECT_TRUE(received("first") == first);
    EXPECT_TRUE(received("second") == second);
}

TEST_F(PushPull, onceEndsAfterSoManyFiles) {
    const auto pull = startPull({"--once", "2"});
    EXPECT_EQ(push({file("a", "1"), file("b", "2")}).exitStatus, 0);
    const CvnetResult result = pull->finish();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.output, HasSubstr("pulled 2 files"));
    EXPECT_EQ(push({file("c", "3")}).exitStatus, 1) << "nobody listens any more";
    EXPECT_THAT(inboxNames(), ElementsAre("a", "b"));
}

TEST_F(PushPull, onceLeavesFurtherConnectionsAlone) {
    const auto pull = startPull({"--once", "1"});
    pull->signal(SIGSTOP);
    TcpPeer first(myPort);
    first.sendAll(firstMessage("a", 1, "1"));
    TcpPeer second(myPort);
    second.sendAll(firstMessage("b", 1, "2"));
    pull->signal(SIGCONT);
    EXPECT_EQ(pull->finish().exitStatus, 0);
    EXPECT_THAT(inboxNames(), ElementsAre("a"));
}

TEST_F(PushPull, namesWithControlCharactersAreShownEscaped) {
    const std::string name = "\x1b[31mred\n\xff.txt";
    const auto pull = startPull({"--once", "1"});
    const CvnetResult pushed = push({file(name, "x"), path("\x07")});
    EXPECT_THAT(pushed.output, HasSubstr("\n\\x1B[31mred\\x0A\\xFF.txt: 1 byte"));
    EXPECT_THAT(pushed.errors, HasSubstr("/\\x07: No such file"));
    EXPECT_THAT(pull->finish().output, HasSubstr("\n\\x1B[31mred\\x0A\\xFF.txt: 1 byte"));
    EXPECT_EQ(received(name), "x");
}

// --- push ------------------------------------------------------------------------------------------------

TEST_F(PushPull, pushSendsMessagesThatEveryReceiverTakes) {
    TcpListener listener;
    const std::string bytes = randomBytes(40000);
    CvnetProcess pushing(pushTo(listener.port(), {file("some.name", bytes)}));
    TcpPeer peer = listener.accept();
    const Transfer transfer(peer.receiveToEnd());
    EXPECT_EQ(pushing.finish().exitStatus, 0);
    EXPECT_THAT(transfer.lengths, ElementsAre(kLongestMessage, kLongestMessage, 40000 + 30 + 8 + 8 - 30000));
    EXPECT_EQ(transfer.name, "some.name");
    EXPECT_EQ(transfer.fileSize, bytes.size());
    EXPECT_EQ(transfer.dataSize, bytes.size());
    EXPECT_EQ(transfer.flags, 0U);
    EXPECT_TRUE(transfer.data == bytes);
}

TEST_F(PushPull, pushSaysThatAnEmptyFileIsNotAnnounced) {
    TcpListener listener;
    CvnetProcess pushing(pushTo(listener.port(), {file("void", "")}));
    EXPECT_EQ(listener.accept().receiveToEnd(), "");
    const CvnetResult result = pushing.finish();
    EXPECT_EQ(result.exitStatus, 0);
    expectLines(
        result.output,
        {StartsWith("pushing 1 file"), "void: empty, so nothing was sent: the receiver does not hear of it",
         MatchesRegex("pushed 1 of 1 file, 0 bytes in .*; 1 empty and not announced")});

    const auto pull = startPull();
    EXPECT_EQ(push({path("void")}).exitStatus, 0);
    EXPECT_TRUE(pull->waitForError("left before a file had begun"));
    const CvnetResult pulled = end(*pull);
    EXPECT_THAT(pulled.output, AllOf(HasSubstr("pulled 0 files"), Not(HasSubstr("lost"))));
    EXPECT_EQ(linesOf(pulled.errors).size(), 1U) << pulled.errors;
    EXPECT_THAT(inboxNames(), ElementsAre());
}

TEST_F(PushPull, pushGoesOnBehindFilesThatCannotBeSent) {
    fs::create_directory(path("folder"));
    ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
    file("secret", "x");
    fs::permissions(path("secret"), fs::perms::none);
    file("huge", "");
    fs::resize_file(path("huge"), std::uintmax_t{1} << 31);
    const auto pull = startPull({"--once", "2"});
    CvnetProcess pushing(pushTo(myPort, {file("first", "1"), path("folder"), path("folder/"), path("missing"),
                                         path("pipe"), path("secret"), path("huge"), file("last", "2")}),
                         CvnetProcess::inPipes, obeyPermissions);
    const CvnetResult result = pushing.finish();
    EXPECT_EQ(result.exitStatus, 1);
    const std::string start = "cvnet push: " + path("");
    expectLines(result.errors,
                {start + "folder: is a directory: name the files in it",
                 start + "folder/: is a directory: name the files in it",
                 start + "missing: No such file or directory", start + "pipe: is no regular file",
                 start + "secret: Permission denied",
                 start + "huge: is too large: 2147483648 bytes, and a transfer carries 2147483647"});
    EXPECT_THAT(result.output, HasSubstr("\npushed 2 of 8 files, 2 bytes in "));
    EXPECT_EQ(pull->finish().exitStatus, 0);
    EXPECT_THAT(inboxNames(), ElementsAre("first", "last"));
}

TEST_F(PushPull, aFileThatEndsBeforeItsSizeIsNotSent) {
    const std::string shorter = "/sys/class/net/lo/mtu";  // says 4096 bytes
    if (!fs::exists(shorter)) GTEST_SKIP() << "no " << shorter;
    TcpListener listener;
    const CvnetResult result = cvnet(pushTo(listener.port(), {shorter}));
    EXPECT_EQ(result.exitStatus, 1);
    expectLines(result.errors,
                {MatchesRegex("cvnet push: .*mtu: cannot be read whole: [0-9]+ of 4096 bytes came")});
}

TEST_F(PushPull, pushWarnsOfFilesThatReplaceEachOther) {
    fs::create_directory(path("other"));
    const auto pull = startPull({"--once", "2"});
    const CvnetResult result = push({file("same", "1"), file("other/same", "2")});
    EXPECT_EQ(result.exitStatus, 0);
    expectLines(
        result.errors,
        {"cvnet push: warning: several of the files are called same: the receiver keeps the last one"});
    pull->finish();
    EXPECT_EQ(received("same"), "2");
}

TEST_F(PushPull, pushToADeadPortFailsForEachFile) {
    const std::string to = "127.0.0.1:" + std::to_string(freeTcpPort());
    const CvnetResult result = cvnet({"push", file("a", "1"), file("b", "2"), "--to", to});
    EXPECT_EQ(result.exitStatus, 1);
    const std::string refused = ": cannot connect to " + to + ": Connection refused";
    expectLines(result.errors, {"cvnet push: " + path("a") + refused, "cvnet push: " + path("b") + refused});
    EXPECT_THAT(result.output, HasSubstr("\npushed 0 of 2 files, 0 bytes"));
}

TEST_F(PushPull, aReceiverThatBreaksTheConnectionIsAFailure) {
    TcpListener listener;
    CvnetProcess pushing(
        pushTo(listener.port(), {file("large", std::string(kMoreThanBuffersHold, 'x')), file("next", "n")}));
    {
        TcpPeer peer = listener.accept();
        peer.receive(100000);
        peer.reset();
    }
    EXPECT_EQ(Transfer(listener.accept().receiveToEnd()).data, "n") << "it goes on with the next";
    const CvnetResult result = pushing.finish();
    EXPECT_EQ(result.exitStatus, 1);
    expectLines(result.errors, {MatchesRegex("cvnet push: .*large: the connection broke: "
                                             "(Connection reset by peer|Broken pipe)")});
    EXPECT_THAT(result.output, HasSubstr("\npushed 1 of 2 files, 1 byte"));
}

// However a push ends in the middle of a file, its totals and one line of what happened are there.
TEST_F(PushPull, aPushThatFailsInTheMiddlePrintsTotalsAndOneErrorLine) {
    const std::string large = file("large", std::string(kMoreThanBuffersHold, 'x'));
    for (const bool isGone : {true, false}) {
        for (const char* format : {"--json", "--quiet"}) {
            SCOPED_TRACE(std::string(isGone ? "gone " : "stalled ") + format);
            TcpListener listener;
            CvnetProcess pushing(
                pushTo(listener.port(), {file("first", "1"), large, format, "--stall", "0.3"}));
            listener.accept().receiveToEnd();
            TcpPeer peer = listener.accept();
            peer.receive(100000);
            if (isGone) peer.reset();
            const CvnetResult result = pushing.finish();
            EXPECT_EQ(result.exitStatus, 1);
            expectLines(result.errors, {StartsWith("cvnet push: " + large + ": ")});
            if (std::string(format) == "--quiet") {
                expectLines(result.output, {StartsWith("pushed 1 of 2 files, 1 byte in ")});
                continue;
            }
            const auto lines = jsonLines(result.output);
            ASSERT_EQ(lines.size(), 4U);
            EXPECT_EQ(lines[2].value("acknowledged", true), false);
            EXPECT_GE(lines[2].value("bytes", 0U), 100000 - kLongestMessage);
            EXPECT_LT(lines[2].value("bytes", kMoreThanBuffersHold), kMoreThanBuffersHold);
            EXPECT_NE(lines[2].value("error", ""), "");
            EXPECT_EQ(lines[3].value("event", ""), "totals");
            EXPECT_EQ(lines[3].value("files", -1), 1);
            EXPECT_EQ(lines[3].value("failed", -1), 1);
            EXPECT_EQ(lines[3].value("bytes", -1), 1);
        }
    }
}

TEST_F(PushPull, aKilledReceiverIsAFailure) {
    const auto pull = startPull();
    pull->signal(SIGSTOP);  // so that it cannot take the file before it dies
    CvnetProcess pushing(pushTo(myPort, {file("large", std::string(kMoreThanBuffersHold, 'x'))}));
    EXPECT_TRUE(pushing.waitForOutput("pushing"));
    pull->signal(SIGKILL);
    EXPECT_EQ(pull->finish().signal, SIGKILL);
    const CvnetResult result = pushing.finish();
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(linesOf(result.errors).size(), 1U) << result.errors;
    EXPECT_THAT(inboxNames(), ElementsAre());
}

TEST_F(PushPull, aReceiverThatNeverReadsIsGivenUp) {
    TcpListener listener;
    const CvnetResult result = cvnet(
        pushTo(listener.port(), {file("large", std::string(kMoreThanBuffersHold, 'x')), "--stall", "0.3"}));
    EXPECT_EQ(result.exitStatus, 1);
    expectLines(result.errors,
                {"cvnet push: " + path("large") + ": the receiver has taken nothing for 0.3 s"});
}

// The kernel here holds all of it, the one there but a part.
TEST_F(PushPull, whatTheOtherHostHasNotAcknowledgedIsAFailure) {
    TcpListener listener(kLoopback, 1);
    const CvnetResult result =
        cvnet(pushTo(listener.port(), {file("small", std::string(14000, 'x')), "--stall", "0.3"}));
    EXPECT_EQ(result.exitStatus, 1);
    expectLines(result.errors, {MatchesRegex("cvnet push: .*small: the receiver's host has acknowledged "
                                             "nothing for 0.3 s, [0-9]+ bytes are left")});
}

TEST_F(PushPull, pushWaitsForTheAcknowledgement) {
    TcpListener listener(kLoopback, 1);
    CvnetProcess pushing(pushTo(listener.port(), {file("small", std::string(14000, 'x'))}));
    TcpPeer peer = listener.accept();
    const std::string start = peer.receive(100);
    EXPECT_FALSE(pushing.outputHas("14000 bytes"));
    EXPECT_EQ(Transfer(start + peer.receiveToEnd()).data.size(), 14000U);
    const CvnetResult result = pushing.finish();
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("\nsmall: 14000 bytes in "));
}

TEST_F(PushPull, aConnectionThatBreaksBeforeTheAcknowledgementIsAFailure) {
    TcpListener listener(kLoopback, 1);
    CvnetProcess pushing(pushTo(listener.port(), {file("small", std::string(14000, 'x'))}));
    TcpPeer peer = listener.accept();
    peer.receive(100);
    peer.reset();
    const CvnetResult result = pushing.finish();
    EXPECT_EQ(result.exitStatus, 1);
    expectLines(result.errors,
                {MatchesRegex("cvnet push: .*small: the connection broke: Connection reset by peer")});
}

TEST_F(PushPull, aSignalEndsAPushInTheMiddle) {
    for (const int signal : {SIGINT, SIGTERM}) {
        TcpListener listener;
        CvnetProcess pushing(
            pushTo(listener.port(), {"--json", "--stall", "0", file("first", "n"),
                                     file("large", std::string(kMoreThanBuffersHold, 'x')), path("last")}));
        listener.accept().receiveToEnd();
        TcpPeer peer = listener.accept();
        peer.receive(100000);
        waitUntilNothingMoreComes(peer);
        const CvnetResult result = end(pushing, signal);
        EXPECT_EQ(result.exitStatus, 1) << signal << result.signal;
        expectLines(result.errors, {"cvnet push: " + path("large") + ": interrupted"});
        const Json totals = eventOf(jsonLines(result.output), "totals");
        EXPECT_EQ(totals.value("files", -1), 1);
        EXPECT_EQ(totals.value("failed", -1), 1);
        EXPECT_EQ(totals.value("notTried", -1), 1);
    }
}

// --- pull ------------------------------------------------------------------------------------------------

TEST_F(PushPull, searchTakesTheNextFreePort) {
    TcpListener taken;
    const std::string port = std::to_string(taken.port());
    CvnetProcess pull({"pull", "--dir", inbox(), "--port", port, "--search", "50"});
    const int found = pull.listeningPort();
    EXPECT_GT(found, taken.port());
    EXPECT_LT(found, taken.port() + 50);
    EXPECT_EQ(cvnet(pushTo(found, {file("a", "1")})).exitStatus, 0);
    EXPECT_TRUE(pull.waitForOutput("a: 1 byte"));
    EXPECT_EQ(end(pull).errors, "");
}

TEST_F(PushPull, aPortThatIsTakenIsAClearLine) {
    TcpListener taken;
    const std::string port = std::to_string(taken.port());
    for (const Arguments& further : {Arguments{}, Arguments{"--search", "1"}}) {
        Arguments arguments = {"pull", "--dir", inbox(), "--port", port};
        arguments.insert(arguments.end(), further.begin(), further.end());
        const CvnetResult result = cvnet(arguments);
        EXPECT_EQ(result.exitStatus, 1);
        expectLines(result.errors, {StartsWith("cvnet pull: cannot listen on port " + port +
                                               ": Address already in use, it is open in process " +
                                               std::to_string(::getpid()))});
        EXPECT_EQ(result.output, "");
    }
}

TEST_F(PushPull, aSearchThatFindsNothingNamesItsPorts) {
    TcpListener taken;
    const std::string port = std::to_string(taken.port());
    CvnetProcess neighbour({"pull", "--dir", inbox(), "--port", std::to_string(taken.port() + 1)});
    if (!neighbour.waitForOutput("listening")) GTEST_SKIP() << "the neighbouring port was not to be had";
    const CvnetResult result = cvnet({"pull", "--dir", inbox(), "--port", port, "--search", "2"});
    EXPECT_EQ(result.exitStatus, 1);
    expectLines(result.errors, {"cvnet pull: cannot listen on any port of " + port + " to " +
                                std::to_string(taken.port() + 1) + ": Address already in use"});
}

TEST_F(PushPull, aDirectoryThatCannotBeWrittenIsAClearLine) {
    const std::string file = this->file("file", "x");
    const CvnetResult missing = cvnet({"pull", "--dir", path("missing"), "--port", "0"});
    EXPECT_EQ(missing.exitStatus, 1);
    expectLines(missing.errors,
                {"cvnet pull: cannot put files into " + path("missing") + ": No such file or directory"});
    EXPECT_FALSE(fs::exists(path("missing")));
    const CvnetResult noDirectory = cvnet({"pull", "--dir", file, "--port", "0"});
    EXPECT_EQ(noDirectory.exitStatus, 1);
    expectLines(noDirectory.errors, {"cvnet pull: cannot put files into " + file + ": Not a directory"});
    fs::permissions(inbox(), fs::perms::owner_read | fs::perms::owner_exec);
    CvnetProcess unwritable({"pull", "--dir", inbox(), "--port", "0"}, CvnetProcess::inPipes,
                            obeyPermissions);
    const CvnetResult result = unwritable.finish();
    EXPECT_EQ(result.exitStatus, 1);
    expectLines(result.errors, {"cvnet pull: cannot put files into " + inbox() + ": Permission denied"});
}

TEST_F(PushPull, aSignalEndsAPullThatWaits) {
    for (const int signal : {SIGINT, SIGTERM}) {
        const auto pull = startPull();
        const CvnetResult result = end(*pull, signal);
        EXPECT_EQ(result.exitStatus, 0) << signal;
        EXPECT_THAT(result.output, HasSubstr("\npulled 0 files, 0 bytes"));
        EXPECT_EQ(result.errors, "");
    }
}

TEST_F(PushPull, aSignalEndsAPullInTheMiddleOfAFileAndNothingPartialStays) {
    for (const int signal : {SIGINT, SIGTERM}) {
        const auto pull = startPull({"--stall", "0"}, CvnetProcess::onTerminal);
        EXPECT_EQ(push({file("whole", "w")}).exitStatus, 0);
        TcpPeer peer(myPort);
        peer.sendAll(firstMessage("half", 100000, std::string(50000, 'x')));
        sendUntilABarShows(peer, *pull);
        const CvnetResult result = end(*pull, signal);
        EXPECT_EQ(result.exitStatus, 0) << signal;
        EXPECT_THAT(result.output, HasSubstr("cvnet pull: warning: half from 127.0.0.1:" +
                                             std::to_string(peer.port()) + " is lost: interrupted\r\n"));
        EXPECT_THAT(result.output, HasSubstr("pulled 1 file, 1 byte"));
        EXPECT_THAT(inboxNames(), ElementsAre("whole"));
    }
}

TEST_F(PushPull, aSignalEndsAPullThatASilentPeerHolds) {
    const auto pull = startPull({"--stall", "0"});
    TcpPeer first(myPort);
    first.sendAll(firstMessage("a", 1, "1"));
    TcpPeer silent(myPort);
    ASSERT_TRUE(pull->waitForOutput("a: 1 byte"));
    const CvnetResult result = end(*pull);
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.errors, "") << "nothing was lost";
}

TEST_F(PushPull, aTransferThatBreaksOffLeavesNothingAndTheNextArrives) {
    const auto pull = startPull();
    TcpPeer peer(myPort);
    peer.sendAll(firstMessage("half", 1000000, "start") + laterMessage("more"));
    const std::string from = std::to_string(peer.port());
    peer.close();
    TcpPeer cut(myPort);
    cut.sendAll(field(5000) + field(1) + "a message that does not end");
    const std::string cutFrom = std::to_string(cut.port());
    cut.close();
    EXPECT_EQ(push({file("next", "n")}).exitStatus, 0);
    ASSERT_TRUE(pull->waitForOutput("next: "));
    const CvnetResult result = end(*pull);
    EXPECT_EQ(result.exitStatus, 0);
    expectLines(result.errors, {"cvnet pull: warning: half from 127.0.0.1:" + from +
                                    " is lost: the connection ended too early",
                                "cvnet pull: warning: 127.0.0.1:" + cutFrom +
                                    " connected and left before a file had begun, as with an empty file"});
    EXPECT_THAT(result.output, AllOf(HasSubstr("pulled 1 file"), HasSubstr("; 1 lost\n")));
    EXPECT_THAT(inboxNames(), ElementsAre("next"));
}

TEST_F(PushPull, whatIsNoTransferIsRefusedWithTheReason) {
    const struct {
        std::string bytes;
        const char* reason;
    } tried[] = {
        {field(3), "the connection ended too early (bad packet length 3)"},
        {message(field(1)), "these are no messages of a file transfer"},
        {firstMessage("..", 4, "evil"), "these are no messages of a file transfer"},
        {firstMessage("long", 3, "four"), "these are no messages of a file transfer"},
    };
    const auto pull = startPull();
    for (const auto& attempt : tried) {
        TcpPeer peer(myPort);
        peer.sendAll(attempt.bytes);
        EXPECT_TRUE(pull->waitForError("from 127.0.0.1:" + std::to_string(peer.port()) +
                                       " is lost: " + attempt.reason + "\n"))
            << pull->errors();
    }
    EXPECT_EQ(linesOf(end(*pull).errors).size(), std::size(tried));
    EXPECT_THAT(inboxNames(), ElementsAre());
}

TEST_F(PushPull, aNameWithDirectoriesStaysInTheInbox) {
    const auto pull = startPull({"--once", "1"});
    TcpPeer peer(myPort);
    peer.sendAll(firstMessage("../../outside", 2, "in"));
    EXPECT_EQ(pull->finish().exitStatus, 0);
    EXPECT_EQ(received("outside"), "in");
    EXPECT_FALSE(fs::exists(path("outside")));
}

TEST_F(PushPull, whatCannotBeCreatedIsLostWithTheReason) {
    fs::create_directory(inbox() + "/taken");
    const auto pull = startPull({"--once", "1"});
    EXPECT_EQ(push({file("taken", "1"), file("other", "2")}).exitStatus, 0) << "its kernel has taken both";
    const CvnetResult result = pull->finish();
    EXPECT_EQ(result.exitStatus, 0);
    expectLines(result.errors, {MatchesRegex("cvnet pull: warning: taken from 127.0.0.1:[0-9]+ is lost: it "
                                             "cannot be created .*")});
    EXPECT_THAT(inboxNames(), ElementsAre("other", "taken"));
}

TEST_F(PushPull, aPeerThatStallsIsDropped) {
    const auto pull = startPull({"--stall", "0.2"});
    TcpPeer silent(myPort);
    EXPECT_TRUE(pull->waitForError("a file from 127.0.0.1:" + std::to_string(silent.port()) +
                                   " is lost: nothing more came for 0.2 s\n"));
    silent.receiveToEnd();
    TcpPeer half(myPort);
    half.sendAll(firstMessage("half", 100, "x") + laterMessage("y"));
    EXPECT_TRUE(pull->waitForError("half from 127.0.0.1:" + std::to_string(half.port()) +
                                   " is lost: nothing more came for 0.2 s\n"));
    EXPECT_EQ(push({file("next", "n")}).exitStatus, 0);
    EXPECT_TRUE(pull->waitForOutput("next: 1 byte"));
    EXPECT_EQ(linesOf(end(*pull).errors).size(), 2U);
    EXPECT_THAT(inboxNames(), ElementsAre("next"));
}

TEST_F(PushPull, pullTakesLongerMessagesThanTheDefault) {
    const std::string bytes = randomBytes(200000);
    const auto pull = startPull({"--once", "1"});
    TcpPeer peer(myPort);
    peer.sendAll(firstMessage("wide", bytes.size(), bytes));
    EXPECT_EQ(pull->finish().exitStatus, 0);
    EXPECT_TRUE(received("wide") == bytes);
}

TEST_F(PushPull, aConnectionIsClosedWhenItsFileHasArrived) {
    const auto pull = startPull();
    TcpPeer peer(myPort);
    peer.sendAll(firstMessage("a", 1, "1"));
    EXPECT_EQ(peer.receiveToEnd(), "");
    EXPECT_TRUE(pull->waitForOutput("a: 1 byte"));
}

TEST_F(PushPull, anIdlePullSleeps) {
    const auto pull = startPull();
    EXPECT_EQ(push({file("a", "1")}).exitStatus, 0);
    EXPECT_TRUE(pull->waitForOutput("a: 1 byte"));
    const auto switches = [&] {
        std::ifstream status("/proc/" + std::to_string(pull->pid()) + "/status");
        std::ostringstream text;
        text << status.rdbuf();
        const std::string all = text.str();
        const std::string sleeping = all.find("State:\tS") == std::string::npos ? "awake " : "asleep ";
        return sleeping + all.substr(all.find("voluntary_ctxt_switches"));
    };
    // A poll every tenth of a second would show.
    EXPECT_TRUE(eventually([&] {
        const std::string before = switches();
        ::usleep(500000);
        return before.rfind("asleep", 0) == 0 && switches() == before;
    }));
}

TEST_F(PushPull, aReaderThatGoesAwayEndsAPull) {
    const auto pull = startPull();
    pull->closeOutput();
    const CvnetResult result = pull->finish();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.errors, "");
}

// --- on a terminal ---------------------------------------------------------------------------------------

namespace {

// Reads so slowly that the bar shows, then the rest.
std::string takeSlowly(TcpListener& listener, CvnetProcess& pushing, size_t size) {
    TcpPeer peer = listener.accept();
    size_t taken = 0;
    for (; taken < size / 2 && !pushing.outputHas(kBar); taken += 200000) peer.receive(200000);
    peer.receiveToEnd();
    return pushing.finish().output;
}

}  // namespace

TEST_F(PushPull, onATerminalPushShowsABar) {
    TcpListener listener;
    CvnetProcess pushing(
        pushTo(listener.port(), {file("la\x1brge", std::string(kMoreThanBuffersHold, 'x')), path("none")}),
        CvnetProcess::onTerminal);
    const std::string output = takeSlowly(listener, pushing, kMoreThanBuffersHold);
    EXPECT_THAT(output, testing::ContainsRegex("[0-9]+% \\[#+\\.*\\] [0-9.]+ of 40\\.0 MB, [0-9.]+ [kM]B/s, "
                                               "[0-9]+:[0-9][0-9] left  1/2 la\\\\x1Brge\r\n"));
    EXPECT_THAT(output, HasSubstr("\x1b[1A\x1b[J"));
    EXPECT_THAT(output, HasSubstr("\x1b[1mpushed 1 of 2 files"));
    EXPECT_THAT(output, Not(HasSubstr("la\x1brge")));
}

TEST_F(PushPull, noBarInAPipeNorWithQuietAndJson) {
    const std::string large = file("large", std::string(kMoreThanBuffersHold, 'x'));
    for (const Arguments& further : {Arguments{}, Arguments{"--quiet"}, Arguments{"--json"}}) {
        TcpListener listener;
        Arguments arguments = {large};
        arguments.insert(arguments.end(), further.begin(), further.end());
        CvnetProcess pushing(pushTo(listener.port(), arguments),
                             further.empty() ? CvnetProcess::inPipes : CvnetProcess::onTerminal);
        TcpPeer peer = listener.accept();
        ::usleep(300000);  // longer than a bar waits before it shows
        peer.receiveToEnd();
        const CvnetResult result = pushing.finish();
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_THAT(result.output, Not(HasSubstr("% ["))) << further.empty();
    }
}

TEST_F(PushPull, noColoursWhereTheyAreNotWanted) {
    TcpListener listener;
    CvnetProcess pushing(pushTo(listener.port(), {file("large", std::string(kMoreThanBuffersHold, 'x'))}),
                         CvnetProcess::onTerminal, [] { setVariable("NO_COLOR", "1"); });
    const std::string output = takeSlowly(listener, pushing, kMoreThanBuffersHold);
    EXPECT_THAT(output, AllOf(HasSubstr(kBar), HasSubstr("\r\npushed 1 of 1"), Not(HasSubstr("\x1b[1m"))));
}

TEST_F(PushPull, onATerminalPullShowsABar) {
    const auto pull = startPull({"--once", "1"}, CvnetProcess::onTerminal);
    TcpPeer peer(myPort);
    peer.sendAll(firstMessage("slow", 100000, std::string(50000, 'x')));
    int sent = sendUntilABarShows(peer, *pull);
    for (; sent < 50000; sent += 10000)
        peer.sendAll(laterMessage(std::string(std::min(10000, 50000 - sent), 'z')));
    const CvnetResult result = pull->finish();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.output, testing::ContainsRegex("50% \\[######\\.{6}\\] 50\\.[0-9] of 100\\.0 kB, "
                                                      "[0-9.]+ (kB|bytes)/s, [0-9:?]+ left  slow\r\n"));
    EXPECT_THAT(result.output, HasSubstr("\x1b[1mpulled 1 file, 100000 bytes"));
}

// --- usage -----------------------------------------------------------------------------------------------

TEST_F(PushPull, argumentsThatMakeNoSenseAreUsageErrors) {
    const struct {
        Arguments arguments;
        const char* words;
    } wrong[] = {
        {{"push", "--to", "127.0.0.1:4000"}, "FILE is required"},
        {{"push", "a"}, "--to is required"},
        {{"push", "a", "--to", "127.0.0.1"}, "--to: '127.0.0.1' is no HOST:PORT"},
        {{"push", "a", "--to", "127.0.0.1:0"}, "--to: '127.0.0.1:0' is no HOST:PORT"},
        {{"push", "a", "--to", "127.0.0.1:65536"}, "is no HOST:PORT"},
        {{"push", "a", "--to", ":4000"}, "is no HOST:PORT"},
        {{"push", "a", "--to", "127.0.0.1:4000", "--stall", "-1"}, "--stall: -1 is not in the range"},
        {{"push", "a", "--to", "127.0.0.1:4000", "--stall", "nan"}, "--stall: nan is not in the range"},
        {{"pull", "--port", "0"}, "--dir is required"},
        {{"pull", "--dir", "."}, "--port is required"},
        {{"pull", "--dir", ".", "--port", "65536"}, "--port: Value 65536 not in range"},
        {{"pull", "--dir", ".", "--port", "0", "--search", "0"}, "--search: Value 0 not in range"},
        {{"pull", "--dir", ".", "--port", "0", "--once", "0"}, "--once: 0 is no whole number from 1 on"},
        {{"pull", "--dir", ".", "--port", "0", "--stall", "x"}, "--stall"},
        {{"pull", "--dir", ".", "--port", "0", "file"}, "file"},
    };
    for (const auto& attempt : wrong) {
        const CvnetResult result = cvnet(attempt.arguments);
        EXPECT_EQ(result.exitStatus, 2) << attempt.words;
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(linesOf(result.errors).size(), 1U) << result.errors;
        EXPECT_THAT(result.errors,
                    AllOf(StartsWith("cvnet " + attempt.arguments.front() + ": "), HasSubstr(attempt.words)));
    }
}

TEST_F(PushPull, hostsMayBeNames) {
    const auto pull = startPull({"--once", "1"});
    const CvnetResult pushed = cvnet({"push", file("a", "1"), "--to", "localhost:" + std::to_string(myPort)});
    EXPECT_EQ(pushed.exitStatus, 0) << pushed.errors;
    EXPECT_EQ(pull->finish().exitStatus, 0);
    const CvnetResult unknown = cvnet({"push", path("a"), "--to", "no..such..host:4000"});
    EXPECT_EQ(unknown.exitStatus, 1);
    expectLines(unknown.errors, {StartsWith("cvnet push: cannot look up no..such..host: ")});
}

TEST_F(PushPull, helpNamesEveryOptionAndAnExample) {
    const CvnetResult pushHelp = cvnet({"push", "--help"});
    for (const char* word : {"FILE", "--to HOST:PORT", "--stall S", "--json", "--quiet", "Examples:\n"})
        EXPECT_THAT(pushHelp.output, HasSubstr(word));
    const CvnetResult pullHelp = cvnet({"pull", "--help"});
    for (const char* word :
         {"--dir DIR", "--port P", "--search N", "--once N", "--stall S", "--json", "--quiet", "Examples:\n"})
        EXPECT_THAT(pullHelp.output, HasSubstr(word));
}

// SPDX-License-Identifier: BSD-3-Clause
// `cvnet recv` with a raw socket as the sender: what it shows, counts, saves, warns of, and how it ends.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <set>

#include "captures.h"
#include "cvnet_process.h"
#include "network.h"
#include "packets.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

namespace {

using Strings = std::vector<std::string>;

Arguments with(Arguments first, const Arguments& further) {
    first.insert(first.end(), further.begin(), further.end());
    return first;
}

// A receiver on a port of its own, and a peer that sends to it.
class Recv : public testing::Test {
protected:
    // Starts a receiver, sends these datagrams, and waits for its end (which arguments must bring about).
    CvnetResult receive(const Arguments& further, const Strings& datagrams) {
        CvnetProcess receiver(with({"recv", "--port", "0", "--idle", "1"}, further));
        const int port = receiver.listeningPort();
        for (const std::string& datagram : datagrams) myPeer.send(datagram, port);
        return receiver.finish();
    }
    nlohmann::json totals(const Arguments& further, const Strings& datagrams) {
        const CvnetResult result = receive(with({"--json", "--quiet"}, further), datagrams);
        EXPECT_EQ(result.exitStatus, 0) << result.errors;
        return eventOf(jsonLines(result.output), "totals");
    }

    UdpPeer myPeer;
    TestDirectory myDirectory;
};

struct SavedFrame {
    std::string bytes;
    timeval time;
};

std::vector<SavedFrame> savedFrames(const std::string& path) {
    std::vector<SavedFrame> frames;
    char problem[PCAP_ERRBUF_SIZE] = "";
    pcap_t* capture = pcap_open_offline(path.c_str(), problem);
    EXPECT_NE(capture, nullptr) << problem;
    if (capture == nullptr) return frames;
    EXPECT_EQ(pcap_datalink(capture), DLT_RAW);
    pcap_pkthdr* header;
    const unsigned char* bytes;
    int result;
    while ((result = pcap_next_ex(capture, &header, &bytes)) == 1) {
        frames.push_back({std::string(reinterpret_cast<const char*>(bytes), header->caplen), header->ts});
    }
    EXPECT_EQ(result, PCAP_ERROR_BREAK) << pcap_geterr(capture);
    pcap_close(capture);
    return frames;
}

// RFC 1071, over data whose checksum field is filled in: 0xFFFF when it is right.
unsigned onesSum(const std::string& bytes) {
    unsigned long sum = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        sum += static_cast<unsigned long>(static_cast<unsigned char>(bytes[i])) << (i % 2 == 0 ? 8 : 0);
    }
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<unsigned>(sum);
}

void expectError(const CvnetResult& result, int exitStatus, const std::string& words) {
    EXPECT_EQ(result.exitStatus, exitStatus) << result.errors;
    EXPECT_EQ(linesOf(result.errors).size(), 1U) << result.errors;
    EXPECT_THAT(result.errors, AllOf(StartsWith("cvnet recv: "), HasSubstr(words)));
}

}  // namespace

TEST_F(Recv, anyFreePortIsNobodyElses) {
    REQUIRE_PRIVATE_NETWORK();
    const char* const range = "/proc/sys/net/ipv4/ip_local_port_range";
    const std::string former = readFile(range);
    if (!(std::ofstream(range) << "40000 40005" << std::flush)) GTEST_SKIP() << range << " cannot be set";
    std::vector<std::unique_ptr<CvnetProcess>> receivers;
    std::set<int> ports;
    for (int i = 0; i < 5; ++i) {
        receivers.push_back(std::make_unique<CvnetProcess>(Arguments{"recv", "--port", "0"}));
        ports.insert(receivers.back()->listeningPort());
    }
    EXPECT_EQ(ports.size(), 5U) << testing::PrintToString(ports);
    std::ofstream(range) << former;
}

TEST_F(Recv, printsALineForEachPdu) {
    std::string entityState = pdu(144, 0, 7, 3, 1);
    entityState.replace(12, 6, u16(10) + u16(20) + u16(30));
    const CvnetResult result = receive({"--count", "2"}, {entityState + pdu(40, 0, 7, 3, 72)});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_EQ(result.errors, "");
    const Strings lines = linesOf(result.output);
    ASSERT_EQ(lines.size(), 5U) << result.output;
    EXPECT_THAT(lines[0], MatchesRegex("listening on port [0-9]+"));
    const std::string start =
        "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9]+ 127\\.0\\.0\\.1:" + std::to_string(myPeer.port()) + " +";
    EXPECT_THAT(lines[1],
                MatchesRegex(start + "DIS 7 exercise 3 +Entity State \\(1\\) +144 bytes entity 10:20:30"));
    EXPECT_THAT(lines[2], MatchesRegex(start + "DIS 7 exercise 3 +Attribute \\(72\\) +40 bytes"));
    EXPECT_THAT(lines[3],
                StartsWith("received 2 PDUs in 1 datagram (2.00 a datagram), 184 bytes from 1 source"));
    EXPECT_EQ(lines[4],
              "refused by filters: 0; undivided rests: 0; cut: 0; too short: 0; mixed bundles: 0; dropped by "
              "the kernel: 0");
}

TEST_F(Recv, printsJsonLines) {
    std::string entityState = pdu(144, 0, 6, 3, 1);
    entityState.replace(12, 6, u16(10) + u16(20) + u16(30));
    const double before = static_cast<double>(::time(nullptr));
    const CvnetResult result = receive({"--count", "2", "--json"}, {entityState, withLength(pdu(50), 60)});
    const auto lines = jsonLines(result.output);
    ASSERT_EQ(lines.size(), 4U) << result.output;
    EXPECT_EQ(lines[0]["event"], "listening");
    EXPECT_GT(lines[0]["port"].get<int>(), 0);
    EXPECT_EQ(lines[1]["event"], "pdu");
    EXPECT_GE(lines[1]["time"].get<double>(), before);
    EXPECT_LE(lines[1]["time"].get<double>(), before + 60);
    EXPECT_EQ(lines[1]["source"], "127.0.0.1");
    EXPECT_EQ(lines[1]["port"], myPeer.port());
    EXPECT_EQ(lines[1]["version"], 6);
    EXPECT_EQ(lines[1]["exercise"], 3);
    EXPECT_EQ(lines[1]["type"], 1);
    EXPECT_EQ(lines[1]["typeName"], "Entity State");
    EXPECT_EQ(lines[1]["length"], 144);
    EXPECT_EQ(lines[1]["entity"], nlohmann::json({{"site", 10}, {"application", 20}, {"entity", 30}}));
    EXPECT_FALSE(lines[1].contains("odd"));
    EXPECT_EQ(lines[2]["odd"], "cut");
    EXPECT_EQ(lines[2]["declaredLength"], 60);
    EXPECT_EQ(lines[3]["event"], "totals");
    EXPECT_EQ(lines[3]["pdus"], 1);
    EXPECT_EQ(lines[3]["cut"], 1);
    EXPECT_EQ(lines[3]["kernelDrops"], 0);
}

TEST_F(Recv, printsATableByTypeExerciseAndSource) {
    const CvnetResult result = receive({"--summary", "--count", "3"},
                                       {pdu(144, 0, 7, 1, 1) + pdu(100, 0, 7, 1, 20), pdu(144, 0, 7, 2, 1)});
    const Strings lines = linesOf(result.output);
    ASSERT_EQ(lines.size(), 10U) << result.output;
    EXPECT_THAT(lines[1], MatchesRegex("by +PDUs +datagrams +bytes +PDUs/s +kB/s"));
    for (std::size_t i = 1; i < 8; ++i) EXPECT_LE(lines[i].size(), 79U) << "80 columns: " << lines[i];
    EXPECT_THAT(lines[2], MatchesRegex("type +1 Entity State +2 +2 +288 .*"));
    EXPECT_THAT(lines[3], MatchesRegex("type +20 Data +1 +1 +100 .*"));
    EXPECT_THAT(lines[4], MatchesRegex("exercise +1 +2 +1 +244 .*"));
    EXPECT_THAT(lines[5], MatchesRegex("exercise +2 +1 +1 +144 .*"));
    EXPECT_THAT(lines[6],
                MatchesRegex("source +127\\.0\\.0\\.1:" + std::to_string(myPeer.port()) + " +3 +2 +388 .*"));
    EXPECT_THAT(lines[7], MatchesRegex("total +3 +2 +388 .*"));
    EXPECT_THAT(result.output, Not(HasSubstr("\x1b")));
}

TEST_F(Recv, redrawsItsTableOnATerminal) {
    CvnetProcess receiver({"recv", "--port", "0", "--summary"}, CvnetProcess::onTerminal);
    const int port = receiver.listeningPort();
    myPeer.send(pdu(144), port);
    EXPECT_TRUE(receiver.waitForOutput("1 Entity State"));
    EXPECT_TRUE(receiver.waitForOutput("\r\x1b["));  // to the first column: an echoed ^C has moved on
    EXPECT_TRUE(receiver.waitForOutput("A\x1b[J"));
    EXPECT_TRUE(receiver.waitForOutput("\r\ndropped by the kernel: "));  // a line of its own, never cut off
    receiver.signal(SIGINT);
    const CvnetResult result = receiver.finish();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.output, HasSubstr("received 1 PDU in 1 datagram"));
}

TEST_F(Recv, filtersByExerciseVersionTypeAndAddress) {
    const Strings traffic = {pdu(20, 0, 6, 1, 1), pdu(21, 0, 6, 2, 2), pdu(22, 0, 7, 3, 20),
                             pdu(23, 0, 7, 1, 72)};
    const struct {
        Arguments filter;
        int bytes;  // those of the packets that come through tell which they are
        int refused;
    } table[] = {
        {{}, 86, 0},
        {{"--exercise", "1"}, 43, 2},
        {{"--exercise", "1,2"}, 64, 1},
        {{"--exercise", "1", "--exercise", "2"}, 64, 1},
        {{"--exercise", "!1"}, 43, 2},
        {{"--exercise", "!1,3"}, 21, 3},
        {{"--exercise", "0"}, 0, 4},
        {{"--version", "7"}, 45, 2},
        {{"--version", "!7"}, 41, 2},
        {{"--type", "1"}, 20, 3},
        {{"--type", "Entity State,attribute"}, 43, 2},
        {{"--type", "!fire"}, 65, 1},
        {{"--from", "127.0.0.1"}, 86, 0},
        {{"--from", "127.0.0.2"}, 0, 4},
        {{"--from", "!127.0.0.1"}, 0, 4},
        {{"--from", "!127.0.0.2"}, 86, 0},
        {{"--version", "7", "--exercise", "1", "--type", "72", "--from", "127.0.0.1"}, 23, 3},
    };
    // All receivers listen at the same time: the test takes one idle second, not one for each row.
    std::vector<std::unique_ptr<CvnetProcess>> receivers;
    for (const auto& row : table) {
        receivers.push_back(std::make_unique<CvnetProcess>(
            with({"recv", "--port", "0", "--json", "--quiet", "--idle", "3"}, row.filter)));
    }
    for (const auto& receiver : receivers) {
        const int port = receiver->listeningPort();
        for (const std::string& datagram : traffic) myPeer.send(datagram, port);
    }
    for (size_t i = 0; i < receivers.size(); ++i) {
        SCOPED_TRACE(testing::PrintToString(table[i].filter));
        const CvnetResult result = receivers[i]->finish();
        EXPECT_EQ(result.exitStatus, 0) << result.errors;
        const auto line = eventOf(jsonLines(result.output), "totals");
        EXPECT_EQ(line["bytes"], table[i].bytes);
        EXPECT_EQ(line["refused"], table[i].refused);
        EXPECT_EQ(line["datagramsRead"], 4);
    }
}

TEST_F(Recv, showsAnUndividedRestWithTheOptionThatSplitsIt) {
    const std::string mixed = pdu(144, 1, 7, 1, 1) + pdu(100, 2, 7, 2, 1) + pdu(50, 3, 7, 2, 1);
    const CvnetResult whole = receive({"--count", "2"}, {mixed});
    EXPECT_THAT(
        whole.output,
        AllOf(HasSubstr("150 bytes"), HasSubstr("UNDIVIDED REST: its length field says 100"),
              HasSubstr("--no-header-test"), HasSubstr("received 1 PDU and 1 packet that is no whole PDU"),
              HasSubstr("undivided rests: 1"), HasSubstr("mixed bundles: 1")));
    EXPECT_EQ(whole.errors, "") << "the library's warning is part of the tool's own lines";
    const CvnetResult split = receive({"--count", "3", "--no-header-test"}, {mixed});
    EXPECT_THAT(split.output, AllOf(HasSubstr("received 3 PDUs in 1 datagram"), Not(HasSubstr("UNDIVIDED")),
                                    Not(HasSubstr("hint"))));
}

TEST_F(Recv, countsWhatIsOdd) {
    const auto line = totals(
        {}, {pdu(144) + "shorter", "short", "", withLength(pdu(60), 61), withLength(pdu(60), 0), pdu(30)});
    EXPECT_EQ(line["pdus"], 2);
    EXPECT_EQ(line["tooShort"], 2);
    EXPECT_EQ(line["empty"], 1);
    EXPECT_EQ(line["cut"], 1);
    EXPECT_EQ(line["undivided"], 1);
    EXPECT_EQ(line["datagramsRead"], 6);
}

TEST_F(Recv, takesTheLargestDatagramWhole) {
    const std::string largest = withLength(pdu(65507), 65507);
    EXPECT_EQ(totals({"--count", "1"}, {largest})["bytes"], 65507);
}

TEST_F(Recv, endsAfterItsCount) {
    EXPECT_EQ(totals({"--count", "2"}, {pdu(20), pdu(20), pdu(20)})["pdus"], 2);
}

TEST_F(Recv, endsAfterItsSecondsOrWhenIdle) {
    for (const char* option : {"--seconds", "--idle"}) {
        const auto start = std::chrono::steady_clock::now();
        const CvnetResult result = cvnet({"recv", "--port", "0", option, "0.3"});
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
        EXPECT_THAT(result.output, HasSubstr("received 0 PDUs in 0 datagrams"));
    }
}

TEST_F(Recv, endsWithTotalsOnSignals) {
    for (int number : {SIGINT, SIGTERM, SIGHUP}) {
        CvnetProcess receiver({"recv", "--port", "0"});
        myPeer.send(pdu(144), receiver.listeningPort());
        ASSERT_TRUE(receiver.waitForOutput("Entity State"));
        receiver.signal(number);
        const CvnetResult result = receiver.finish();
        EXPECT_EQ(result.exitStatus, 0) << number;
        EXPECT_EQ(result.errors, "");
        EXPECT_THAT(result.output,
                    AllOf(HasSubstr("received 1 PDU in 1 datagram"), HasSubstr("dropped by the kernel: 0")));
    }
}

TEST_F(Recv, outlivesItsTerminalUnderNohup) {
    CvnetProcess receiver({"recv", "--port", "0", "--count", "2"}, CvnetProcess::inPipes,
                          [] { std::signal(SIGHUP, SIG_IGN); });
    const int port = receiver.listeningPort();
    receiver.signal(SIGHUP);
    myPeer.send(pdu(144), port);
    ASSERT_TRUE(receiver.waitForOutput("Entity State"));
    myPeer.send(pdu(144), port);
    EXPECT_EQ(receiver.finish().exitStatus, 0);
}

TEST_F(Recv, endsQuietlyWhenItsReaderGoesAway) {
    for (const bool withTraffic : {true, false}) {
        CvnetProcess receiver({"recv", "--port", "0"});
        const int port = receiver.listeningPort();
        if (withTraffic) {
            receiver.signal(SIGSTOP);  // so that it meets the closed pipe while writing
            myPeer.send(pdu(144), port);
        }
        receiver.closeOutput();
        receiver.signal(SIGCONT);
        const CvnetResult result = receiver.finish();
        EXPECT_EQ(result.exitStatus, 0) << withTraffic;
        EXPECT_EQ(result.signal, 0);
        EXPECT_EQ(result.errors, "");
    }
}

TEST_F(Recv, saysWhenItsOutputCannotBeWritten) {
    const auto full = [] { ::dup2(::open("/dev/full", O_WRONLY), STDOUT_FILENO); };
    const CvnetResult result = CvnetProcess({"recv", "--port", "0"}, CvnetProcess::inPipes, full).finish();
    expectError(result, 1, "cannot write to standard output: No space left on device");
}

TEST_F(Recv, savesWhatItDeliversWithTimesAndAddresses) {
    const std::string path = myDirectory.path("saved.pcap");
    const Strings packets = {pdu(144, 1), pdu(145, 2), pdu(65507, 3)};
    const long before = ::time(nullptr);
    CvnetProcess receiver({"recv", "--port", "0", "--write", path, "--count", "3", "--type", "1"});
    const int port = receiver.listeningPort();
    myPeer.send(packets[0] + packets[1] + pdu(20, 0, 7, 1, 2), port);
    myPeer.send(packets[2], port);
    EXPECT_EQ(receiver.finish().exitStatus, 0);

    const std::vector<SavedFrame> frames = savedFrames(path);
    ASSERT_EQ(frames.size(), 3U);
    for (size_t i = 0; i < frames.size(); ++i) {
        const std::string& frame = frames[i].bytes;
        EXPECT_EQ(frame.substr(28), packets[i]);
        EXPECT_EQ(frame.substr(0, 4),
                  "\x45" + std::string(1, '\0') + u16(static_cast<unsigned>(frame.size())));
        EXPECT_EQ(frame[9], 17);
        EXPECT_EQ(frame.substr(12, 8), u32(kLoopback) + u32(kLoopback));
        EXPECT_EQ(frame.substr(20, 6), u16(static_cast<unsigned>(myPeer.port())) +
                                           u16(static_cast<unsigned>(port)) +
                                           u16(static_cast<unsigned>(packets[i].size() + 8)));
        EXPECT_EQ(onesSum(frame.substr(0, 20)), 0xFFFFU);
        const std::string pseudoHeader = frame.substr(12, 8) + u16(17) + frame.substr(24, 2);
        EXPECT_EQ(onesSum(pseudoHeader + frame.substr(20)), 0xFFFFU);
        EXPECT_GE(frames[i].time.tv_sec, before);
        EXPECT_LE(frames[i].time.tv_sec, before + 60);
    }
}

TEST_F(Recv, saysWhenACaptureCannotBeWritten) {
    expectError(cvnet({"recv", "--port", "0", "--write", "/dev/full"}), 1,
                "cannot write /dev/full: No space left on device");
    expectError(cvnet({"recv", "--port", "0", "--write", myDirectory.path("no/such/folder")}), 1,
                "No such file or directory");
    expectError(cvnet({"recv", "--port", "0", "--write", myDirectory.path("")}), 1, "Is a directory");
}

TEST_F(Recv, leavesAnOldCaptureAloneWhenItCannotListen) {
    const std::string path = myDirectory.path("old.pcap");
    std::ofstream(path) << "old";
    expectError(cvnet({"recv", "--bind", "192.0.2.77", "--port", "3000", "--write", path}), 1, "192.0.2.77");
    EXPECT_EQ(readFile(path), "old");
}

TEST_F(Recv, namesTheFullDiskThatALargeCaptureMeetsFirst) {
    const auto limit = [] {
        const rlimit size = {100000, 100000};
        ::setrlimit(RLIMIT_FSIZE, &size);
    };
    CvnetProcess receiver({"recv", "--port", "0", "--write", myDirectory.path("saved.pcap"), "--quiet"},
                          CvnetProcess::inPipes, limit);
    const int port = receiver.listeningPort();
    for (int i = 0; i < 3; ++i) myPeer.send(pdu(60000, i), port);  // more than stdio holds back
    expectError(receiver.finish(), 1, "File too large");
}

TEST_F(Recv, leavesAReadableCaptureWhenTheDiskIsFull) {
    const std::string path = myDirectory.path("saved.pcap");
    const rlim_t room = 24 + 3 * (16 + 28 + 1000) + 500;  // three frames and a half
    const auto limit = [&] {
        const rlimit size = {room, room};
        ::setrlimit(RLIMIT_FSIZE, &size);
    };
    CvnetProcess receiver({"recv", "--port", "0", "--write", path, "--quiet"}, CvnetProcess::inPipes, limit);
    const int port = receiver.listeningPort();
    // One after the other: what is on the disk when it refuses is known.
    for (int i = 0; i < 3; ++i) {
        myPeer.send(pdu(1000, i), port);
        const long long size = 24 + (i + 1) * (16 + 28 + 1000);
        ASSERT_TRUE(eventually([&] { return static_cast<long long>(readFile(path).size()) == size; })) << i;
    }
    myPeer.send(pdu(1000, 3), port);
    const CvnetResult result = receiver.finish();
    expectError(result, 1, "File too large; what is there ends with a whole packet");
    EXPECT_THAT(result.output, HasSubstr("received 4 PDUs"));
    ASSERT_EQ(savedFrames(path).size(), 3U);
    EXPECT_EQ(savedFrames(path)[2].bytes.substr(28), pdu(1000, 2));
}

TEST_F(Recv, tellsWhatTheKernelDropped) {
    CvnetProcess receiver({"recv", "--port", "0", "--rcvbuf", "1", "--json"});
    const int port = receiver.listeningPort();
    receiver.signal(SIGSTOP);
    const int sent = 200;
    for (int i = 0; i < sent; ++i) myPeer.send(pdu(1000), port);
    receiver.signal(SIGCONT);
    // Once this one has come, everything before it has come or been dropped.
    int more = 0;
    ASSERT_TRUE(eventually([&] {
        myPeer.send(pdu(999), port);
        ++more;
        return receiver.outputHas("\"length\":999");
    }));
    receiver.signal(SIGINT);
    const auto lines = jsonLines(receiver.finish().output);
    int arrived = 0;
    for (const auto& line : lines) arrived += line.value("length", 0) == 1000;
    const int dropped = eventOf(lines, "totals")["kernelDrops"];
    EXPECT_LT(arrived, sent);
    EXPECT_GE(dropped, sent - arrived);
    EXPECT_LE(dropped, sent - arrived + more);
}

TEST_F(Recv, saysWhenTheKernelGrantsASmallerBuffer) {
    const CvnetResult result = cvnet({"recv", "--port", "0", "--rcvbuf", "2000000000", "--seconds", "0.1"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.errors,
                AllOf(StartsWith("cvnet recv: warning: the kernel granted a receive buffer of "),
                      HasSubstr("rmem_max")));
}

TEST_F(Recv, warnsOfAnotherProcessOnThePortByName) {
    CvnetProcess first({"recv", "--port", "0"});
    const std::string port = std::to_string(first.listeningPort());
    const CvnetResult second = cvnet({"recv", "--port", port, "--seconds", "0.1"});
    EXPECT_EQ(second.exitStatus, 0);
    EXPECT_EQ(second.errors, "cvnet recv: warning: port " + port + " is already open in process " +
                                 std::to_string(first.pid()) +
                                 " (cvnet): a unicast datagram reaches only one of them\n");
    // Another address of the port is no neighbour.
    CvnetProcess bound({"recv", "--port", "0", "--bind", "127.0.0.2"});
    const CvnetResult elsewhere = cvnet(
        {"recv", "--port", std::to_string(bound.listeningPort()), "--bind", "127.0.0.3", "--seconds", "0.1"});
    EXPECT_EQ(elsewhere.errors, "");
}

TEST_F(Recv, saysWhoHoldsAPortThatCannotBeShared) {
    const UdpPeer holder(kLoopback);
    const std::string port = std::to_string(holder.port());
    const CvnetResult result = cvnet({"recv", "--port", port});
    expectError(result, 1,
                "cannot listen on port " + port + ": Address already in use, it is open in process " +
                    std::to_string(::getpid()) + " (");
    EXPECT_EQ(result.output, "");
}

TEST_F(Recv, bindsToAnAddress) {
    CvnetProcess receiver({"recv", "--port", "0", "--bind", "127.0.0.2", "--json", "--count", "1"});
    const int port = receiver.listeningPort();
    myPeer.send(pdu(20), port, 0x7F000002);
    EXPECT_EQ(receiver.finish().exitStatus, 0);
    expectError(cvnet({"recv", "--port", "0", "--bind", "10.1.2.3"}), 1,
                "cannot listen on port 0 of 10.1.2.3: Cannot assign requested address");
}

TEST_F(Recv, joinsGroupsOnAnInterface) {
    REQUIRE_PRIVATE_NETWORK();
    CvnetProcess receiver(
        {"recv", "--port", "0", "--group", "239.1.2.3,239.1.2.4", "--interface", "lo", "--count", "2"});
    const std::string port = std::to_string(receiver.listeningPort());
    EXPECT_THAT(receiver.output(), HasSubstr(", group 239.1.2.3, group 239.1.2.4 on 127.0.0.1"));
    const std::string groups = readFile("/proc/self/net/igmp");
    EXPECT_THAT(groups, AllOf(HasSubstr("030201EF"), HasSubstr("040201EF")));
    for (const char* group : {"239.1.2.3", "239.1.2.4"}) {
        EXPECT_EQ(cvnet({"send", "--synthetic", "1", "--count", "1", "--to", group, "--interface", "lo",
                         "--port", port})
                      .exitStatus,
                  0);
    }
    EXPECT_EQ(receiver.finish().exitStatus, 0);
}

TEST_F(Recv, bindsToAGroup) {
    REQUIRE_PRIVATE_NETWORK();
    CvnetProcess receiver({"recv", "--port", "0", "--bind", "239.1.2.3", "--interface", "lo", "--idle", "5",
                           "--json", "--count", "1"});
    const int port = receiver.listeningPort();
    myPeer.send(pdu(20), port);  // unicast does not reach it
    EXPECT_EQ(cvnet({"send", "--synthetic", "1", "--count", "1", "--to", "239.1.2.3", "--interface", "lo",
                     "--port", std::to_string(port)})
                  .exitStatus,
              0);
    const auto line = eventOf(jsonLines(receiver.finish().output), "totals");
    EXPECT_EQ(line["bytes"], 144);
    EXPECT_EQ(line["datagramsRead"], 1);
}

TEST_F(Recv, saysWhyAGroupCannotBeJoined) {
    REQUIRE_PRIVATE_NETWORK();
    expectError(cvnet({"recv", "--group", "239.1.2.3"}), 1,
                "no interface can broadcast, so there is no default one to join 239.1.2.3 on");
    expectError(cvnet({"recv", "--group", "239.1.2.3", "--interface", "eth7"}), 1, "is called eth7");
    std::string many = "224.1.0.0";
    for (int i = 1; i < 40; ++i) many += ",224.1.0." + std::to_string(i);
    expectError(cvnet({"recv", "--port", "0", "--group", many, "--interface", "lo"}), 1,
                "cannot join 224.1.0.20 on 127.0.0.1: No buffer space available");
}

TEST_F(Recv, refusesArgumentsThatMakeNoSense) {
    const struct {
        Arguments arguments;
        const char* words;
    } table[] = {
        {{"--port", "65536"}, "--port"},
        {{"--port", "x"}, "--port"},
        {{"--group", "10.1.2.3"}, "--group: 10.1.2.3 is no multicast address"},
        {{"--group", "group"}, "--group: 'group' is no IPv4 address"},
        {{"--bind", "localhost"}, "--bind: 'localhost' is no IPv4 address"},
        {{"--bind", "127.0.0.1", "--group", "239.1.2.3"}, "--bind 127.0.0.1"},
        {{"--exercise", "256"}, "--exercise: '256' is no number of 0 to 255"},
        {{"--exercise", "1,!2"}, "--exercise"},
        {{"--version", "seven"}, "--version: 'seven'"},
        {{"--type", "Entity"}, "--type: 'Entity' is no PDU type"},
        {{"--type", "\x1b[31m"}, "--type: '\\x1B[31m' is no PDU type"},
        {{"--from", "1.2.3"}, "--from: '1.2.3' is no IPv4 address"},
        {{"--rcvbuf", "0"}, "--rcvbuf"},
        {{"--idle", "inf"}, "--idle"},
        {{"--count", "-1"}, "--count"},
        {{"--seconds", "nan"}, "--seconds"},
        {{"--bogus"}, "--bogus"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(testing::PrintToString(row.arguments));
        const CvnetResult result = cvnet(with({"recv"}, row.arguments));
        expectError(result, 2, row.words);
        EXPECT_EQ(result.output, "");
    }
}

TEST_F(Recv, hintsOnATerminalWhenNothingComes) {
    CvnetProcess receiver({"recv", "--port", "0"}, CvnetProcess::onTerminal);
    EXPECT_TRUE(receiver.waitForOutput("nothing has come for 5 s")) << receiver.output();
    EXPECT_TRUE(receiver.waitForOutput("firewall"));
    EXPECT_THAT(receiver.output(), AllOf(HasSubstr("port"), HasSubstr("interface"), HasSubstr("group")));
    receiver.signal(SIGINT);
    EXPECT_EQ(receiver.finish().exitStatus, 0);
}

TEST_F(Recv, isColouredOnATerminalOnlyAndNotWithNoColor) {
    CvnetProcess coloured({"recv", "--port", "0", "--seconds", "0.1"}, CvnetProcess::onTerminal);
    EXPECT_THAT(coloured.finish().output, HasSubstr("\x1b[1m"));
    const auto noColour = [] { setVariable("NO_COLOR", "1"); };
    CvnetProcess plain({"recv", "--port", "0", "--seconds", "0.1"}, CvnetProcess::onTerminal, noColour);
    EXPECT_THAT(plain.finish().output, Not(HasSubstr("\x1b")));
}

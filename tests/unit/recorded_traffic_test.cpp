// SPDX-License-Identifier: BSD-3-Clause
// Other people's simulators as recorded: every capture goes through sender and receiver, and what comes out
// is held against a walk over the capture and against models of bundling and splitting that share no code
// with the library.
#include <cvNetworkCompatibility/cvNetSocket.h>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "messages.h"
#include "network.h"
#include "packets.h"
#include "split_model.h"

namespace {

const char kRawFiles[] = "raw";  // one recorded PDU a file

std::vector<std::string> rawFiles() {
    std::vector<std::filesystem::path> paths;
    for (const auto& entry : std::filesystem::directory_iterator(CVNC_TEST_DATA "/dis/raw"))
        if (entry.path().extension() == ".pdu") paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    std::vector<std::string> contents;
    for (const std::filesystem::path& path : paths) {
        std::ifstream file(path, std::ios::binary);
        contents.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    return contents;
}

std::vector<std::string> traffic(const std::string& name) {
    return name == kRawFiles ? rawFiles() : recorded(name);
}

std::vector<std::string> allNames() {
    std::vector<std::string> names = recordedNames();
    names.push_back(kRawFiles);
    return names;
}

// What an application sends: a PDU, or bytes that are none and travel in a datagram of their own.
struct Item {
    std::string bytes;
    bool isPdu;
};

std::vector<Item> itemsOf(const std::vector<std::string>& datagrams) {
    std::vector<Item> items;
    for (const std::string& datagram : datagrams) {
        const Walk walked = walk(datagram);
        for (const std::string& packet : walked.pdus) items.push_back({packet, true});
        if (!walked.rest.empty()) items.push_back({walked.rest, false});
    }
    return items;
}

// The rule of outgoing bundles: a packet that does not fit beside those that wait sends them first; one that
// fills a bundle alone goes at once.
struct BundleModel {
    explicit BundleModel(std::size_t bundleBytes) : size(bundleBytes) {}

    void send(const std::string& packet) {
        if (size > 0 && bundle.size() + packet.size() > size) flush();
        if (size > 0 && packet.size() < size)
            bundle += packet;
        else
            wire.push_back(packet);
    }
    void flush() {
        if (!bundle.empty()) wire.push_back(bundle);
        bundle.clear();
    }

    std::size_t size;  // 0: no bundling
    std::string bundle;
    std::vector<std::string> wire;  // datagrams in order
};

// The receiving application, held against the model packet by packet.
class Listener {
public:
    explicit Listener(bool headerTest)
        : mySocket(freePort(), 0u, (unsigned char)(NwNetSocketRead | NwNetSocketQuietStart), kLoopback) {
        mySocket.NwBecomeNonBlocking();
        mySocket.enableDisHeaderTest(headerTest);
        myModel.headerTest = headerTest;
        sockaddr_in local = {};
        socklen_t size = sizeof local;
        ::getsockname(mySocket.readFd(), reinterpret_cast<sockaddr*>(&local), &size);
        myPort = ntohs(local.sin_port);
    }

    int port() const { return myPort; }

    // Drains a datagram that is on its way, so that no buffer of the kernel can overflow.
    void drain(const std::string& datagram) {
        myModel.queue.push_back({datagram, kLoopback, false});
        if (!waitReadable(mySocket.readFd())) {
            ADD_FAILURE() << "a datagram of " << datagram.size() << " bytes did not arrive";
            return;
        }
        do {
            const SplitModel::Outcome wanted = myModel.receive();
            char* packet = nullptr;
            int status = 77;
            const int length = mySocket.NwRecv(&packet, &status);
            ASSERT_EQ(length, wanted.length);
            ASSERT_EQ(status, wanted.status);
            ASSERT_EQ(mySocket.dataLeftInCurrentBundle(), !myModel.rest.empty());
            expectedWarnings += wanted.warnings;
            if (length > 0) {
                packets.emplace_back(packet, static_cast<std::size_t>(length));
                ASSERT_EQ(packets.back(), wanted.bytes);
            }
        } while (!myModel.rest.empty());
    }

    int datagrams() { return mySocket.NwReportPktsRcvd(); }
    int expectedDatagrams() const { return myModel.received; }

    std::vector<std::string> packets;
    std::string expectedWarnings;

private:
    NwNetSocket mySocket;
    SplitModel myModel;
    int myPort = 0;
};

// A sender to listener's port of this host.
class Talker {
public:
    Talker(int port, int bundleBytes)
        : mySocket(port, kLoopback, (unsigned char)(NwNetSocketWrite | NwNetSocketQuietStart), kLoopback),
          model(static_cast<std::size_t>(bundleBytes)) {
        if (bundleBytes) mySocket.setBundling(bundleBytes);
    }

    // After each of these the model's wire holds what the socket's datagrams must be.
    void send(const Item& item) {
        if (!item.isPdu) flush();
        std::string copy = item.bytes;
        const std::size_t before = model.wire.size();
        model.send(item.bytes);
        int bytesOut = 0;
        for (std::size_t i = before; i < model.wire.size(); ++i)
            bytesOut += static_cast<int>(model.wire[i].size());
        const int result = mySocket.NwSend(&copy[0], copy.size(), NwUSE_DEFAULT_IP_ADDR);
        // A packet that goes out at once gives its own length, whatever left before it.
        const bool isDirect = model.size == 0 || item.bytes.size() >= model.size;
        EXPECT_EQ(result, isDirect ? static_cast<int>(item.bytes.size()) : bytesOut);
        if (!item.isPdu) flush();
    }
    void flush() {
        model.flush();
        EXPECT_EQ(mySocket.flush(), 1);
    }

private:
    NwNetSocket mySocket;

public:
    BundleModel model;
};

// What must come out of items with the header test off.
std::vector<std::string> expectedPackets(const std::vector<Item>& items) {
    std::vector<std::string> packets;
    for (const Item& item : items) {
        if (item.isPdu) {
            packets.push_back(item.bytes);
            continue;
        }
        SplitModel alone;
        alone.headerTest = false;
        alone.queue.push_back({item.bytes, 0, false});
        for (SplitModel::Outcome piece = alone.receive(); piece.length > 0; piece = alone.receive())
            packets.push_back(piece.bytes);
    }
    return packets;
}

class Recorded : public testing::TestWithParam<std::tuple<std::string, int>> {
protected:
    const std::vector<std::string> datagrams = traffic(std::get<0>(GetParam()));
    const int bundleBytes = std::get<1>(GetParam());
    const std::vector<Item> items = itemsOf(datagrams);

    // Sends every item and drains what has left after each.
    void play(Listener& listener) {
        Talker talker(listener.port(), bundleBytes);
        std::size_t drained = 0;
        const auto drainAll = [&] {
            for (; drained < talker.model.wire.size(); ++drained) {
                listener.drain(talker.model.wire[drained]);
                if (HasFatalFailure()) return;
            }
        };
        for (const Item& item : items) {
            talker.send(item);
            drainAll();
            if (HasFailure()) return;
        }
        talker.flush();
        drainAll();
    }
};

std::string nameOf(const testing::TestParamInfo<Recorded::ParamType>& info) {
    std::string name = std::get<0>(info.param);
    name = name.substr(0, name.find('.'));
    std::replace(name.begin(), name.end(), '-', '_');
    const int bytes = std::get<1>(info.param);
    return name + (bytes ? "_bundled_" + std::to_string(bytes) : "_unbundled");
}

INSTANTIATE_TEST_SUITE_P(, Recorded,
                         testing::Combine(testing::ValuesIn(allNames()), testing::Values(0, 1400, 8192)),
                         nameOf);

}  // namespace

TEST_P(Recorded, withTheHeaderTestOffEveryPduComesOutAsRecorded) {
    Messages messages;
    Listener listener(false);
    play(listener);
    const std::vector<std::string> wanted = expectedPackets(items);
    ASSERT_EQ(listener.packets.size(), wanted.size());
    for (std::size_t i = 0; i < wanted.size(); ++i)
        ASSERT_EQ(listener.packets[i], wanted[i]) << "packet " << i;
    EXPECT_EQ(messages.all(), listener.expectedWarnings);
    EXPECT_EQ(listener.datagrams(), listener.expectedDatagrams());
}

TEST_P(Recorded, withTheHeaderTestOnMixedBundlesEndInARest) {
    Messages messages;
    Listener listener(true);
    play(listener);
    std::string sent, received;
    for (const Item& item : items) sent += item.bytes;
    for (const std::string& packet : listener.packets) received += packet;
    EXPECT_EQ(received.size(), sent.size()) << "no byte of these captures is padding";
    EXPECT_TRUE(received == sent);
    EXPECT_EQ(messages.all(), listener.expectedWarnings);
    EXPECT_EQ(listener.datagrams(), listener.expectedDatagrams());
    if (std::get<0>(GetParam()) == "real-dis6-dis7-mixed.pcap") {
        EXPECT_EQ(listener.expectedWarnings.empty(), bundleBytes == 0)
            << "bundles mix its versions and exercises";
    }
}

TEST_P(Recorded, bundlesOnTheWireAreFilledInOrder) {
    Messages messages;
    UdpPeer peer;
    Talker talker(peer.port(), bundleBytes);
    std::size_t seen = 0;
    const auto look = [&] {
        for (; seen < talker.model.wire.size(); ++seen) {
            ASSERT_EQ(peer.receive(), talker.model.wire[seen]) << "datagram " << seen;
        }
    };
    for (const Item& item : items) {
        talker.send(item);
        look();
        if (HasFailure()) return;
    }
    talker.flush();
    look();
    EXPECT_TRUE(peer.isEmpty());
    EXPECT_EQ(messages.all(), "");
}

// --- datagrams as their simulators made them -------------------------------------------------------------

namespace {

class RecordedDatagrams : public testing::TestWithParam<std::string> {
protected:
    const std::vector<std::string> datagrams = traffic(GetParam());

    void play(Listener& listener) {
        UdpPeer peer;
        for (const std::string& datagram : datagrams) {
            peer.send(datagram, listener.port());
            listener.drain(datagram);
            if (HasFatalFailure()) return;
        }
    }
};

std::string captureNameOf(const testing::TestParamInfo<std::string>& info) {
    std::string name = info.param.substr(0, info.param.find('.'));
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(, RecordedDatagrams, testing::ValuesIn(allNames()), captureNameOf);

}  // namespace

TEST_P(RecordedDatagrams, areSplitAsTheWalkSplitsThem) {
    Messages messages;
    Listener listener(false);
    play(listener);
    std::vector<std::string> wanted;
    for (const std::string& datagram : datagrams) {
        const Walk walked = walk(datagram);
        wanted.insert(wanted.end(), walked.pdus.begin(), walked.pdus.end());
        if (walked.rest.size() >= 12) wanted.push_back(walked.rest);
    }
    EXPECT_EQ(listener.packets, wanted);
    EXPECT_EQ(messages.all(), listener.expectedWarnings);
    EXPECT_EQ(listener.datagrams(), static_cast<int>(datagrams.size()));
}

TEST_P(RecordedDatagrams, areSplitUntilAnUnlikeHeaderWithTheHeaderTestOn) {
    Messages messages;
    Listener listener(true);
    play(listener);
    std::vector<std::string> wanted;
    int unlike = 0;
    for (const std::string& datagram : datagrams) {
        const Walk walked = walk(datagram);
        std::size_t taken = 0;
        for (const std::string& packet : walked.pdus) {
            if (packet.compare(0, 2, datagram, 0, 2) != 0) {
                ++unlike;
                break;
            }
            wanted.push_back(packet);
            taken += packet.size();
        }
        if (taken < datagram.size()) wanted.push_back(datagram.substr(taken));
    }
    EXPECT_EQ(listener.packets, wanted);
    EXPECT_EQ(messages.all(), listener.expectedWarnings);
    if (GetParam() == "composed-bundles.pcap") {
        EXPECT_GT(unlike, 0) << "versions are mixed in these";
    }
}

// --- the captures themselves -----------------------------------------------------------------------------

namespace {

struct Contents {
    std::string name;
    int datagrams;
    int pdus;
    int multiPduDatagrams;
    int odd;  // datagrams with bytes that do not walk as PDUs
    std::map<int, int> types;
};

std::map<int, int> twiceWithout(std::map<int, int> types, int type) {
    types[type] -= 1;
    for (auto& entry : types) entry.second *= 2;
    return types;
}

}  // namespace

// As their README says, by an independent count.
TEST(RecordedFiles, holdWhatTheirReadmeSays) {
    const std::map<int, int> mixed = {{1, 6},  {2, 2},  {3, 1},  {19, 2}, {20, 1}, {23, 2}, {25, 8},
                                      {26, 3}, {27, 2}, {28, 2}, {29, 2}, {33, 3}, {137, 1}};
    const std::vector<Contents> files = {
        {"real-dis5-short.pcap", 88, 88, 0, 0, {{1, 60}, {2, 1}, {3, 1}, {20, 20}, {41, 6}}},
        {"real-dis5-long.pcap", 759, 759, 0, 0, {{1, 462}, {2, 15}, {3, 13}, {20, 193}, {41, 76}}},
        {"real-dis7-bundled-patrol.pcap",
         231,
         383,
         152,
         0,
         {{1, 137}, {20, 19}, {25, 18}, {41, 57}, {72, 152}}},
        {"real-dis7-bundled-long.pcap",
         1222,
         2083,
         861,
         0,
         {{1, 775}, {20, 71}, {25, 76}, {27, 3}, {41, 297}, {72, 861}}},
        {"real-dis7-bundled-truncated.pcap",
         171,
         278,
         108,
         1,
         {{1, 97}, {20, 26}, {25, 17}, {41, 30}, {72, 108}}},
        {"real-dis6-dis7-mixed.pcap", 35, 35, 0, 1, mixed},
        {kRawFiles, 35, 35, 0, 1, mixed},
        {"composed-bundles.pcap", 6, 68, 6, 0, twiceWithout(mixed, 33)},
        {"generated-dis6.pcap", 16, 88, 5, 0, {{1, 77}, {2, 2}, {3, 2}, {23, 2}, {25, 2}, {26, 3}}},
        {"generated-dis7.pcap", 13, 83, 5, 0, {{1, 77}, {2, 2}, {3, 2}, {25, 2}}}};
    ASSERT_EQ(files.size(), allNames().size());
    for (const Contents& file : files) {
        SCOPED_TRACE(file.name);
        int pdus = 0, multi = 0, odd = 0;
        std::map<int, int> types;
        const std::vector<std::string> datagrams = traffic(file.name);
        for (const std::string& datagram : datagrams) {
            const Walk walked = walk(datagram);
            pdus += static_cast<int>(walked.pdus.size());
            multi += walked.pdus.size() > 1;
            odd += !walked.rest.empty();
            for (const std::string& packet : walked.pdus) ++types[static_cast<unsigned char>(packet[2])];
        }
        EXPECT_EQ(static_cast<int>(datagrams.size()), file.datagrams);
        EXPECT_EQ(pdus, file.pdus);
        EXPECT_EQ(multi, file.multiPduDatagrams);
        EXPECT_EQ(odd, file.odd);
        EXPECT_EQ(types, file.types);
    }
}

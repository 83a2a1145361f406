// SPDX-License-Identifier: BSD-3-Clause
// Every recording goes through `cvnet send` and `cvnet recv`: what arrives is what a separate walk finds.
#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include <ostream>

#include "cvnet_process.h"
#include "network.h"
#include "packets.h"

namespace {

const std::string kData = CVNC_TEST_DATA "/dis/";

// The PDUs of a recording, and what does not walk as PDUs where it stood.
std::vector<std::string> packetsOf(const std::string& name) {
    std::vector<std::string> packets;
    for (const std::string& datagram : recorded(name)) {
        const Walk found = walk(datagram);
        packets.insert(packets.end(), found.pdus.begin(), found.pdus.end());
        if (!found.rest.empty()) packets.push_back(found.rest);
    }
    return packets;
}

// The UDP payloads of raw IPv4 frames, as `cvnet recv --write` saves them.
std::vector<std::string> savedPayloads(const std::string& path) {
    const size_t headers = 20 + 8;
    std::vector<std::string> payloads;
    char problem[PCAP_ERRBUF_SIZE] = "";
    pcap_t* capture = pcap_open_offline(path.c_str(), problem);
    EXPECT_NE(capture, nullptr) << problem;
    if (capture == nullptr) return payloads;
    EXPECT_EQ(pcap_datalink(capture), DLT_RAW);
    pcap_pkthdr* header;
    const unsigned char* bytes;
    while (pcap_next_ex(capture, &header, &bytes) == 1) {
        EXPECT_GE(header->caplen, headers);
        payloads.emplace_back(reinterpret_cast<const char*>(bytes) + headers, header->caplen - headers);
    }
    pcap_close(capture);
    return payloads;
}

struct Way {
    std::string recording;
    int bundleBytes;
};

// The name that failures show.
void PrintTo(const Way& way, std::ostream* out) {
    *out << way.recording << " in bundles of " << way.bundleBytes;
}

std::string wayName(const testing::TestParamInfo<Way>& info) {
    std::string name = info.param.recording.substr(0, info.param.recording.find('.'));
    for (char& c : name) {
        if (c == '-') c = '_';
    }
    return name + "_" + std::to_string(info.param.bundleBytes);
}

std::vector<Way> allWays() {
    std::vector<Way> ways;
    for (const std::string& name : recordedNames()) {
        for (int bundleBytes : {0, 1400, 8192}) ways.push_back({name, bundleBytes});
    }
    return ways;
}

class Recordings : public testing::TestWithParam<Way> {};

}  // namespace

TEST_P(Recordings, comeThroughByteForByteAndInOrder) {
    REQUIRE_PRIVATE_NETWORK();
    const std::vector<std::string> expected = packetsOf(GetParam().recording);
    ASSERT_FALSE(expected.empty());
    TestDirectory directory;
    const std::string saved = directory.path("saved.pcap");
    CvnetProcess receiver({"recv", "--port", "0", "--json", "--quiet", "--no-header-test", "--write", saved,
                           "--count", std::to_string(expected.size()), "--idle", "20"});
    const std::string port = std::to_string(receiver.listeningPort());

    // 2000 PDUs a second of at most some 6000 bytes: a default receive buffer holds what comes while this
    // machine does something else for a few milliseconds.
    const CvnetResult sent =
        cvnet({"send", "--pcap", kData + GetParam().recording, "--to", "127.0.0.1", "--port", port, "--rate",
               "2000", "--bundle", std::to_string(GetParam().bundleBytes), "--json"});
    EXPECT_EQ(sent.exitStatus, 0) << sent.errors;
    EXPECT_EQ(sent.errors, "");
    const CvnetResult received = receiver.finish();
    EXPECT_EQ(received.exitStatus, 0) << received.errors;
    EXPECT_EQ(received.errors, "");

    const std::vector<std::string> payloads = savedPayloads(saved);
    ASSERT_EQ(payloads.size(), expected.size()) << received.output;
    for (size_t i = 0; i < expected.size(); ++i) ASSERT_EQ(payloads[i], expected[i]) << "packet " << i;

    const auto sentTotals = eventOf(jsonLines(sent.output), "totals");
    const auto receivedTotals = eventOf(jsonLines(received.output), "totals");
    for (const char* figure : {"pdus", "undivided", "cut", "datagrams", "bytes", "types"}) {
        EXPECT_EQ(sentTotals[figure], receivedTotals[figure]) << figure;
    }
    EXPECT_EQ(receivedTotals["kernelDrops"], 0);
    if (GetParam().bundleBytes == 0) {
        EXPECT_EQ(sentTotals["datagrams"], expected.size());
    }
}

INSTANTIATE_TEST_SUITE_P(All, Recordings, testing::ValuesIn(allWays()), wayName);

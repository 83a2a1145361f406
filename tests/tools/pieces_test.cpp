// SPDX-License-Identifier: BSD-3-Clause
// The pieces of cvnet that are worth a look of their own: PDUs, frames, escaping, filters' texts.
#include <gtest/gtest.h>
#include <pcap/dlt.h>

#include <cmath>
#include <cstring>

#include "captures.h"
#include "echo_filter.h"
#include "failure.h"
#include "frame.h"
#include "options.h"
#include "packets.h"
#include "pdu.h"
#include "stream_format.h"
#include "synthetic.h"
#include "tally.h"
#include "text.h"

using namespace cvnet;

namespace {

PduView view(const std::string& text) {
    return PduView(text.data(), text.size());
}

// Feeds frames to one parser; the payloads that come out.
struct Parse {
    Parse(const std::vector<std::string>& frames, int linkType) : parser(linkType) {
        for (const std::string& frame : frames) {
            // A copy of exactly its size: a sanitizer sees a read beyond it.
            const std::vector<char> exact(frame.begin(), frame.end());
            UdpDatagram datagram;
            if (!parser.parse(Bytes{reinterpret_cast<const unsigned char*>(exact.data()), exact.size()},
                              datagram))
                continue;
            payloads.emplace_back(reinterpret_cast<const char*>(datagram.payload.data),
                                  datagram.payload.size);
            last = datagram;
        }
    }
    FrameParser parser;
    std::vector<std::string> payloads;
    UdpDatagram last;
};

std::vector<std::string> one(const std::string& payload) {
    return {payload};
}

// A UDP datagram in pieces of 16 bytes and more: fragments of one IPv4 packet.
std::vector<std::string> fragmentsOf(const std::string& payload, size_t pieceSize,
                                     unsigned identification = 7) {
    const std::string whole = udp(payload);
    std::vector<std::string> frames;
    for (size_t offset = 0; offset < whole.size(); offset += pieceSize) {
        Ipv4Options options;
        options.identification = identification;
        options.fragment =
            static_cast<unsigned>(offset / 8) | (offset + pieceSize < whole.size() ? 0x2000U : 0U);
        frames.push_back(ipv4(whole.substr(offset, pieceSize), options));
    }
    return frames;
}

float f32At(const char* at) {
    std::uint32_t bits = 0;
    for (int i = 0; i < 4; ++i) bits = bits << 8 | static_cast<unsigned char>(at[i]);
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

double f64At(const char* at) {
    std::uint64_t bits = 0;
    for (int i = 0; i < 8; ++i) bits = bits << 8 | static_cast<unsigned char>(at[i]);
    double value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

}  // namespace

TEST(PduNames, areThoseOfTheStandard) {
    EXPECT_STREQ(pduTypeName(0), "Other");
    EXPECT_STREQ(pduTypeName(1), "Entity State");
    EXPECT_STREQ(pduTypeName(2), "Fire");
    EXPECT_STREQ(pduTypeName(3), "Detonation");
    EXPECT_STREQ(pduTypeName(13), "Start/Resume");
    EXPECT_STREQ(pduTypeName(20), "Data");
    EXPECT_STREQ(pduTypeName(23), "Electromagnetic Emission");
    EXPECT_STREQ(pduTypeName(28), "IFF");
    EXPECT_STREQ(pduTypeName(41), "Environmental Process");
    EXPECT_STREQ(pduTypeName(56), "Action Request-R");
    EXPECT_STREQ(pduTypeName(67), "Entity State Update");
    EXPECT_STREQ(pduTypeName(72), "Attribute");
    EXPECT_STREQ(pduTypeName(73), "reserved");
    EXPECT_STREQ(pduTypeName(128), "reserved");
    EXPECT_STREQ(pduTypeName(129), "experimental");
    EXPECT_STREQ(pduTypeName(255), "experimental");
}

TEST(PduNames, areReadInAnySpelling) {
    EXPECT_EQ(pduTypeFromText("Entity State"), 1U);
    EXPECT_EQ(pduTypeFromText("entity-state"), 1U);
    EXPECT_EQ(pduTypeFromText("EntityStatePDU"), 1U);
    EXPECT_EQ(pduTypeFromText("data"), 20U);
    EXPECT_EQ(pduTypeFromText("Data-R"), 60U);
    EXPECT_EQ(pduTypeFromText("0"), 0U);
    EXPECT_EQ(pduTypeFromText("255"), 255U);
    for (const char* bad : {"", " ", "256", "1x", "-1", "entity", "1000", "!"}) {
        EXPECT_FALSE(pduTypeFromText(bad).has_value()) << bad;
    }
}

TEST(EntityIdentifier, isReadWhereTheTypeHasOne) {
    std::string entityState = pdu(144, 0, 7, 1, 1);
    entityState.replace(12, 6, u16(1) + u16(3001) + u16(65535));
    ASSERT_TRUE(view(entityState).entity());
    EXPECT_EQ(entityText(*view(entityState).entity()), "1:3001:65535");

    std::string intercom = pdu(40, 0, 7, 1, 32);
    intercom.replace(14, 6, u16(4) + u16(5) + u16(6));
    ASSERT_TRUE(view(intercom).entity());
    EXPECT_EQ(entityText(*view(intercom).entity()), "4:5:6");

    for (int type : {0, 37, 41, 43, 72, 73, 129, 255}) {
        EXPECT_FALSE(view(pdu(144, 0, 7, 1, type)).entity()) << type;
    }
}

TEST(EntityIdentifier, isNotReadBeyondTheEnd) {
    EXPECT_FALSE(view(pdu(17)).entity());
    EXPECT_TRUE(view(pdu(18)).entity());
    EXPECT_FALSE(view("").entity());
}

TEST(Walk, findsPdusAndWhatIsNone) {
    const std::string datagram = pdu(144) + pdu(12) + pdu(13, 1);
    const std::string trailing = "trailing bytes";
    for (const std::string& rest :
         {std::string(), std::string(11, 'x'), trailing, withLength(pdu(20), 21), withLength(pdu(20), 11),
          withLength(pdu(20), 0), withLength(pdu(20), 65535)}) {
        const std::string all = datagram + rest;
        PduWalk steps(all.data(), all.size());
        std::vector<size_t> lengths;
        for (PduView found; steps.next(found);) lengths.push_back(found.lengthBytes());
        EXPECT_EQ(lengths, (std::vector<size_t>{144, 12, 13}));
        EXPECT_EQ(steps.rest().lengthBytes(), rest.size());
    }
}

TEST(PacketKind, comparesWithTheOwnLengthField) {
    EXPECT_EQ(kindOf(view(pdu(144))), PacketKind::wholePdu);
    EXPECT_EQ(kindOf(view(pdu(144) + pdu(144))), PacketKind::undividedRest);
    EXPECT_EQ(kindOf(view(withLength(pdu(144), 145))), PacketKind::cutPdu);
    EXPECT_EQ(kindOf(view(withLength(pdu(144), 0))), PacketKind::undividedRest);
    EXPECT_EQ(kindOf(view(std::string(11, '\0'))), PacketKind::undividedRest);
}

TEST(Frames, ofEveryLinkTypeGiveTheirDatagram) {
    const std::string payload = pdu(144);
    const std::string packet = udpPacket(payload);
    const std::string cooked = std::string("\0\0\0\1\0\6\2\0\0\0\0\1\0\0", 14);
    const struct {
        int linkType;
        std::string frame;
    } frames[] = {
        {DLT_EN10MB, ethernet(packet)},
        {DLT_EN10MB, ethernet(packet) + std::string(9, '\0')},  // padding
        {DLT_EN10MB, ethernet(u16(5) + u16(0x0800) + packet, 0x8100)},
        {DLT_EN10MB, ethernet(u16(5) + u16(0x8100) + u16(6) + u16(0x0800) + packet, 0x88A8)},
        {DLT_LINUX_SLL, cooked + u16(0x0800) + packet},
        {DLT_LINUX_SLL2, u16(0x0800) + std::string(18, '\0') + packet},
        {DLT_RAW, packet},
        {DLT_IPV4, packet},
        {DLT_NULL, std::string("\2\0\0\0", 4) + packet},
        {DLT_NULL, std::string("\0\0\0\2", 4) + packet},
        {DLT_LOOP, std::string("\0\0\0\2", 4) + packet},
    };
    for (const auto& tried : frames) {
        ASSERT_TRUE(FrameParser::reads(tried.linkType));
        const Parse parsed({tried.frame}, tried.linkType);
        EXPECT_EQ(parsed.payloads, one(payload)) << tried.linkType;
        EXPECT_EQ(parsed.last.sourceHostOrder, 0x0A141E01U);
        EXPECT_EQ(parsed.last.destinationHostOrder, 0x0A141EFFU);
        EXPECT_EQ(parsed.last.sourcePort, 3001U);
        EXPECT_EQ(parsed.last.destinationPort, 3000U);
        // Cut anywhere before the padding: no datagram, and nothing read beyond the end.
        const size_t whole = tried.frame.find(payload) + payload.size();
        for (size_t size = 0; size < whole; ++size) {
            EXPECT_TRUE(Parse({tried.frame.substr(0, size)}, tried.linkType).payloads.empty())
                << tried.linkType << " " << size;
        }
    }
    EXPECT_FALSE(FrameParser::reads(DLT_IEEE802_11));
}

TEST(Frames, thatAreNoUdpOverIpv4AreCounted) {
    Ipv4Options tcp;
    tcp.protocol = 6;
    const Parse parsed({ethernet(std::string(40, '\x60'), 0x86DD), ethernet(ipv4(std::string(20, 'x'), tcp)),
                        ethernet(std::string(28, 'x'), 0x0806), ethernet(std::string(60, '\x60'))},
                       DLT_EN10MB);
    EXPECT_TRUE(parsed.payloads.empty());
    EXPECT_EQ(parsed.parser.counts().other, 4U);
}

TEST(Frames, withContradictingLengthsAreCounted) {
    Ipv4Options tooShort;
    tooShort.totalLength = 19;
    std::string smallHeader = udpPacket("payload");
    smallHeader[0] = '\x44';
    std::string largeHeader = udpPacket("payload");
    largeHeader[0] = '\x4F';
    const Parse parsed({ipv4(udp("payload"), tooShort), smallHeader, largeHeader, ipv4(udp("payload", 7)),
                        ipv4(udp("payload", 16)), ipv4("1234567")},
                       DLT_RAW);
    EXPECT_TRUE(parsed.payloads.empty());
    EXPECT_EQ(parsed.parser.counts().malformed, 6U);
}

TEST(Frames, ofWhichAPartWasKeptAreCounted) {
    const std::string packet = udpPacket(pdu(144));
    const Parse parsed({packet.substr(0, packet.size() - 1), packet.substr(0, 20), packet.substr(0, 12)},
                       DLT_RAW);
    EXPECT_TRUE(parsed.payloads.empty());
    EXPECT_EQ(parsed.parser.counts().cut, 3U);
}

TEST(Frames, withoutLengthsFromOffloadAreTakenWhole) {
    Ipv4Options noLength;
    noLength.totalLength = 0;
    EXPECT_EQ(Parse({ipv4(udp(pdu(144)), noLength)}, DLT_RAW).payloads, one(pdu(144)));
    EXPECT_EQ(Parse({ipv4(udp(pdu(144), 0))}, DLT_RAW).payloads, one(pdu(144)));
}

TEST(Fragments, arePutTogetherInAnyOrder) {
    const std::string payload = pdu(3000, 3);
    std::vector<std::string> frames = fragmentsOf(payload, 1480);
    ASSERT_EQ(frames.size(), 3U);
    EXPECT_EQ(Parse(frames, DLT_RAW).payloads, one(payload));
    EXPECT_EQ(Parse({frames[2], frames[0], frames[0], frames[1]}, DLT_RAW).payloads, one(payload));
    EXPECT_EQ(Parse({frames[1], frames[2], frames[0]}, DLT_RAW).parser.counts().reassembled, 1U);
}

TEST(Fragments, ofTwoDatagramsDoNotMix) {
    const std::vector<std::string> a = fragmentsOf(pdu(2000, 1), 1480, 1);
    const std::vector<std::string> b = fragmentsOf(pdu(2000, 2), 1480, 2);
    EXPECT_EQ(Parse({a[0], b[0], b[1], a[1]}, DLT_RAW).payloads,
              (std::vector<std::string>{pdu(2000, 2), pdu(2000, 1)}));
}

TEST(Fragments, missingOrOverlappingAreCounted) {
    const std::vector<std::string> frames = fragmentsOf(pdu(3000), 1480);
    const Parse missing({frames[0], frames[2]}, DLT_RAW);
    EXPECT_TRUE(missing.payloads.empty());
    EXPECT_EQ(missing.parser.counts().incomplete, 1U);

    Ipv4Options overlap;
    overlap.identification = 7;
    overlap.fragment = 0x2000 | 184;  // 8 bytes before the end of the first piece
    const Parse overlapping({frames[0], ipv4(std::string(16, 'x'), overlap)}, DLT_RAW);
    EXPECT_TRUE(overlapping.payloads.empty());
    EXPECT_EQ(overlapping.parser.counts().incomplete, 1U);
    // The pieces before the contradiction are forgotten with it: sent again, the datagram comes through.
    const Parse again({frames[0], ipv4(std::string(16, 'x'), overlap), frames[0], frames[1], frames[2]},
                      DLT_RAW);
    EXPECT_EQ(again.payloads, one(pdu(3000)));
    EXPECT_EQ(again.parser.counts().incomplete, 1U);
}

TEST(Fragments, beyondTheLargestPacketAreMalformed) {
    Ipv4Options last;
    last.fragment = 0x1FFF;
    EXPECT_EQ(Parse({ipv4(std::string(8, 'x'), last)}, DLT_RAW).parser.counts().malformed, 1U);
}

TEST(Fragments, thatNeverEndDoNotFillTheMemory) {
    std::vector<std::string> frames;
    for (unsigned i = 0; i < 1000; ++i) frames.push_back(fragmentsOf(pdu(2000), 1480, i)[0]);
    const Parse parsed(frames, DLT_RAW);
    EXPECT_EQ(parsed.parser.counts().incomplete, 1000U);
    // The newest are still there to be completed.
    frames.push_back(fragmentsOf(pdu(2000), 1480, 999)[1]);
    EXPECT_EQ(Parse(frames, DLT_RAW).payloads, one(pdu(2000)));
    frames.back() = fragmentsOf(pdu(2000), 1480, 0)[1];
    EXPECT_TRUE(Parse(frames, DLT_RAW).payloads.empty());
}

TEST(Printable, escapesWhatSteersTerminals) {
    EXPECT_EQ(printable("plain text"), "plain text");
    EXPECT_EQ(printable("a\x1b[31m\r\n\x07\x7f"), "a\\x1B[31m\\x0D\\x0A\\x07\\x7F");
    EXPECT_EQ(printable("Gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x9B\xA9"),
              "Gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x9B\xA9");
    EXPECT_EQ(printable("\xC2\x9B"), "\\xC2\\x9B");  // CSI as one character
    EXPECT_EQ(printable("\xFF\xC3"), "\\xFF\\xC3");
    EXPECT_EQ(oneLine(" two\n  lines\t\x1b "), "two lines \\x1B");
}

TEST(FilterTexts, areReadAsListsToIncludeOrExclude) {
    FilterOptions texts;
    texts.exercise = {"1", " 2"};
    texts.version = {"!6", "7"};
    texts.type = {"!Entity State", "! 72"};
    texts.from = {"10.1.2.3"};
    const Filters filters(texts);
    EXPECT_EQ(filters.exercise.values, (std::vector<unsigned>{1, 2}));
    EXPECT_FALSE(filters.exercise.exclude);
    EXPECT_EQ(filters.version.values, (std::vector<unsigned>{6, 7}));
    EXPECT_TRUE(filters.version.exclude);
    EXPECT_EQ(filters.type.values, (std::vector<unsigned>{1, 72}));
    EXPECT_TRUE(filters.type.exclude);
    EXPECT_EQ(filters.from.values, (std::vector<unsigned>{0x0A010203}));
    EXPECT_FALSE(Filters(FilterOptions()).type.given);
}

TEST(FilterTexts, thatMakeNoSenseAreRefused) {
    for (const std::vector<std::string>& bad :
         std::vector<std::vector<std::string>>{{""}, {"256"}, {"x"}, {"-1"}, {"1", "!2"}, {"!"}, {"1.5"}}) {
        FilterOptions texts;
        texts.exercise = bad;
        EXPECT_THROW(Filters{texts}, UsageFailure) << bad[0];
    }
    for (const char* bad : {"10.1.2", "host", "10.1.2.256", ""}) {
        FilterOptions texts;
        texts.from = {bad};
        EXPECT_THROW(Filters{texts}, UsageFailure) << bad;
    }
}

TEST(Tally, countsADatagramOnceForEachOfItsTypes) {
    Tally tally;
    const Tally::Endpoint source(0x7F000001, 9);
    tally.add(view(pdu(144, 0, 7, 1, 1)), 1, source);
    tally.add(view(pdu(100, 0, 7, 1, 1)), 1, source);
    tally.add(view(pdu(50, 0, 7, 2, 20)), 1, source);
    tally.add(view(pdu(144, 0, 7, 1, 1)), 2, source);
    const auto types = tally.typesJson();
    EXPECT_EQ(types.dump(), R"([{"type":1,"name":"Entity State","pdus":3,"datagrams":2,"bytes":388},)"
                            R"({"type":20,"name":"Data","pdus":1,"datagrams":1,"bytes":50}])");
    EXPECT_EQ(tally.total().datagrams, 2U);
    EXPECT_EQ(tally.exercisesJson().size(), 2U);
}

TEST(Tally, keepsABoundOnSources) {
    Tally tally;
    for (unsigned i = 0; i < 3 * Tally::kMaxSources; ++i) tally.add(view(pdu(12)), i + 1, {i, 9});
    EXPECT_EQ(tally.sourceCount(), Tally::kMaxSources);
    EXPECT_NE(tally.fullTable(1.0).find("others"), std::string::npos);
    EXPECT_EQ(tally.total().pdus, 3 * Tally::kMaxSources);
}

TEST(Synthetic, isAnEntityStatePdu) {
    SyntheticEntities entities(2, 9);
    const auto first = entities.next(0.0, 1800.0);
    const std::string bytes(first.data(), first.size());
    ASSERT_EQ(bytes.size(), 144U);
    EXPECT_EQ(bytes.substr(0, 4), std::string("\7\x09\1\1", 4));
    EXPECT_EQ(bytes.substr(4, 4), u32(0x80000001U));  // half an hour, absolute
    EXPECT_EQ(bytes.substr(8, 2), u16(144));
    EXPECT_EQ(bytes.substr(12, 6), u16(1) + u16(1) + u16(1));
    EXPECT_EQ(bytes.substr(128, 12), std::string("\1CV00001\0\0\0\0", 12));
    EXPECT_EQ(entityText(*view(std::string(entities.next(0.0, 0.0).data(), 144)).entity()), "1:1:2");
    EXPECT_EQ(entityText(*view(std::string(entities.next(0.0, 0.0).data(), 144)).entity()), "1:1:1");
}

TEST(Synthetic, movesAsItsVelocityAndAccelerationSay) {
    SyntheticEntities entities(1, 1);
    const double step = 0.01;
    const auto before = entities.next(5.0, 0.0);
    const auto after = entities.next(5.0 + step, 0.0);
    double height = 0.0;
    double speed = 0.0;
    for (size_t axis = 0; axis < 3; ++axis) {
        const double x = f64At(before.data() + 48 + 8 * axis);
        const double velocity = f32At(before.data() + 36 + 4 * axis);
        const double acceleration = f32At(before.data() + 104 + 4 * axis);
        EXPECT_NEAR(f64At(after.data() + 48 + 8 * axis), x + velocity * step + acceleration * step * step / 2,
                    1e-5);
        EXPECT_NEAR(f32At(after.data() + 36 + 4 * axis), velocity + acceleration * step, 1e-4);
        height += x * x;
        speed += velocity * velocity;
    }
    EXPECT_NEAR(std::sqrt(speed), 120.0, 0.01);
    EXPECT_NEAR(std::sqrt(height), 6.37e6, 2e4);
    // The nose points where it flies: psi and theta are those of the velocity.
    const double vx = f32At(before.data() + 36), vy = f32At(before.data() + 40),
                 vz = f32At(before.data() + 44);
    EXPECT_NEAR(f32At(before.data() + 72), std::atan2(vy, vx), 1e-5);
    EXPECT_NEAR(f32At(before.data() + 76), -std::asin(vz / 120.0), 1e-5);
    EXPECT_EQ(before[88], 4);  // dead reckoning with rotation, velocity and acceleration
}

TEST(EchoFilter, knowsEachPacketThatWasSentOnce) {
    EchoFilter filter;
    EXPECT_FALSE(filter.isOwn("a"));
    filter.sent("a");
    filter.sent("b");
    filter.sent("a");
    EXPECT_TRUE(filter.isOwn("a"));
    EXPECT_TRUE(filter.isOwn("a"));
    EXPECT_FALSE(filter.isOwn("a"));
    EXPECT_TRUE(filter.isOwn("b"));
    EXPECT_EQ(filter.outstanding(), 0U);
}

TEST(EchoFilter, forgetsTheOldestThatNeverCameBack) {
    EchoFilter filter;
    for (std::size_t i = 0; i <= EchoFilter::kMaxOutstanding; ++i) filter.sent(std::to_string(i));
    EXPECT_EQ(filter.outstanding(), EchoFilter::kMaxOutstanding);
    EXPECT_FALSE(filter.isOwn("0"));
    EXPECT_TRUE(filter.isOwn("1"));
    EXPECT_TRUE(filter.isOwn(std::to_string(EchoFilter::kMaxOutstanding)));
}

TEST(StreamFormat, holdsPacketsWhoseFieldIsTheirLength) {
    const auto holds = [](int offset, int length, const std::string& bytes) {
        StreamFormat format;
        format.sizeOffset = offset;
        format.sizeLength = length;
        return format.holds(bytes.data(), bytes.size());
    };
    EXPECT_TRUE(holds(8, 2, pdu(12)));
    EXPECT_TRUE(holds(8, 2, pdu(65535)));
    EXPECT_FALSE(holds(8, 2, withLength(pdu(12), 13)));
    EXPECT_FALSE(holds(8, 2, withLength(pdu(12), 11)));
    EXPECT_FALSE(holds(8, 2, withLength(pdu(12), 10).substr(0, 10))) << "a connection test";
    EXPECT_FALSE(holds(8, 2, pdu(12).substr(0, 9))) << "no whole field";
    EXPECT_FALSE(holds(8, 2, ""));
    EXPECT_TRUE(holds(0, 1, std::string(1, 127) + std::string(126, 'x')));
    EXPECT_FALSE(holds(0, 1, std::string(1, '\x80') + std::string(127, 'x'))) << "a byte is a signed number";
    EXPECT_TRUE(holds(1, 4, std::string("a\0\0\0\6b", 6)));
    EXPECT_FALSE(holds(1, 4, std::string("a\0\0\6\0b", 6)));
}

// SPDX-License-Identifier: BSD-3-Clause
// Dotted quads: what is written, what is accepted and refused, how long a text lives.
#include <cvutil/cvInetAddr.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

TEST(InetAddr, textIsTheDottedQuadOfTheHostOrderAddress) {
    EXPECT_STREQ(NwInetAddrString(0x7F000001), "127.0.0.1");
    EXPECT_STREQ(NwInetAddrString(0), "0.0.0.0");
    EXPECT_STREQ(NwInetAddrString(0xFFFFFFFF), "255.255.255.255");
    EXPECT_STREQ(NwInetAddrString(0x01020304), "1.2.3.4");
    EXPECT_STREQ(NwInetAddrString(0xEF010203), "239.1.2.3");
}

TEST(InetAddr, sixteenTextsAreAliveAtOnce) {
    std::vector<const char*> texts;
    for (NwIpv4Addr last = 0; last < 16; ++last) texts.push_back(NwInetAddrString(0xC0A80000 + last));
    for (int last = 0; last < 16; ++last) EXPECT_EQ(texts[last], "192.168.0." + std::to_string(last));
}

TEST(InetAddr, textsOfOtherThreadsDoNotDisturb) {
    const char* mine = NwInetAddrString(0x0A000001);
    std::thread other([] {
        for (int i = 0; i < 100; ++i) EXPECT_STREQ(NwInetAddrString(0x0B000002), "11.0.0.2");
    });
    other.join();
    EXPECT_STREQ(mine, "10.0.0.1");
}

TEST(InetAddr, readsEveryDottedQuad) {
    const struct {
        const char* text;
        NwIpv4Addr addrHostOrder;
    } good[] = {{"0.0.0.0", 0},
                {"127.0.0.1", 0x7F000001},
                {"1.2.3.4", 0x01020304},
                {"255.255.255.255", 0xFFFFFFFF},
                {"10.20.30.40", 0x0A141E28},
                {"239.255.0.1", 0xEFFF0001}};
    for (const auto& sample : good) {
        NwIpv4Addr addr = 0x55555555;
        EXPECT_TRUE(NwInetAddrFromString(sample.text, &addr)) << sample.text;
        EXPECT_EQ(addr, sample.addrHostOrder) << sample.text;
        EXPECT_TRUE(NwInetAddrFromString(sample.text, nullptr)) << sample.text;
    }
}

TEST(InetAddr, refusesEverythingElseAndLeavesTheResultAlone) {
    const char* bad[] = {"",           " ",          "1",         "1.2",
                         "1.2.3",      "1.2.3.",     ".1.2.3",    "1.2.3.4.",
                         "1.2.3.4.5",  "1..2.3",     "256.0.0.1", "1.2.3.256",
                         "1.2.3.1000", "-1.2.3.4",   "+1.2.3.4",  " 1.2.3.4",
                         "1.2.3.4 ",   "1.2.3.4\n",  "1.2.3.04",  "01.2.3.4",
                         "001.2.3.4",  "0x7f.0.0.1", "1.2.3.a",   "localhost",
                         "127.1",      "2130706433", "1,2,3,4",   "::1",
                         "1.2.3.4/8",  "1.2.3.4:80", "1 .2.3.4",  "4294967296.0.0.0"};
    for (const char* text : bad) {
        NwIpv4Addr addr = 0x55555555;
        EXPECT_FALSE(NwInetAddrFromString(text, &addr)) << '"' << text << '"';
        EXPECT_EQ(addr, 0x55555555u) << '"' << text << '"';
    }
    EXPECT_FALSE(NwInetAddrFromString(nullptr, nullptr));
}

TEST(InetAddr, whatIsWrittenIsReadBack) {
    for (NwIpv4Addr addr = 1; addr; addr <<= 1) {
        NwIpv4Addr back = 0;
        EXPECT_TRUE(NwInetAddrFromString(NwInetAddrString(addr), &back));
        EXPECT_EQ(back, addr);
    }
}

}  // namespace

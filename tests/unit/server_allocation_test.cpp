// SPDX-License-Identifier: BSD-3-Clause
// The packet server allocates nothing for a packet once it is warm, from its port to each client's hand.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "allocation_count.h"
#include "packets.h"
#include "transports.h"

namespace {

const int kBundles = 10;
const int kPdusOfABundle = 9;

class ServerAllocation : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(allocationsAreCounted()); }

    static int receiveAll(NwSocket& socket) {
        int count = 0, status = 0;
        char* packet = nullptr;
        do {
            if (socket.NwRecv(&packet, &status) > 0) ++count;
        } while (status != 0);
        return count;
    }

    PacketServerLink link;
};

TEST_F(ServerAllocation, packetsForSeveralClientsNeedNone) {
    std::string bundle;
    for (int i = 0; i < kPdusOfABundle; ++i) bundle += pdu(144, i, 7, 1, i % 3 + 1);
    const std::unique_ptr<NwClientSocket> picky = link.attach(), excluding = link.attach();
    unsigned int kinds[] = {2, 77, 78}, exercise = 1;
    picky->pduKind().setTest(NwTestInclude, 3, kinds);
    excluding->exerciseId().setTest(NwTestExclude, 1, &exercise);
    NwSocket& all = link.in();
    link.serve();
    int ofAll = 0, ofTap = 0, ofPicky = 0, ofExcluding = 0;
    EXPECT_EQ(0, allocationsOnceWarm([&] {
                  ofAll = ofTap = ofPicky = ofExcluding = 0;
                  for (int i = 0; i < kBundles; ++i) {
                      picky->notifyMe();
                      link.near.send(bundle, link.port);
                      link.serve();
                      ofAll += receiveAll(all);
                      ofTap += receiveAll(*link.tap);
                      ofPicky += receiveAll(*picky);
                      ofExcluding += receiveAll(*excluding);
                  }
              }));
    EXPECT_EQ(kBundles * kPdusOfABundle, ofAll);
    EXPECT_EQ(kBundles, ofTap) << "datagrams whole";
    EXPECT_EQ(kBundles * kPdusOfABundle / 3, ofPicky);
    EXPECT_EQ(0, ofExcluding);
}

// Neither do packets that find no room, nor the warnings that tell of them.
TEST_F(ServerAllocation, fullQueuesNeedNone) {
    const Quiet quiet;
    const int kPackets = 400;  // more than the queue holds
    const std::string large = pdu(14000);
    NwSocket& client = link.in();
    link.serve();
    int received = 0;
    EXPECT_EQ(0, allocationsOnceWarm([&] {
                  for (int i = 0; i < kPackets; ++i) {
                      link.near.send(large, link.port);
                      link.serve();
                  }
                  received = receiveAll(client);
                  link.serve();
                  receiveAll(client);
                  receiveAll(*link.tap);
              }));
    EXPECT_GT(received, 100);
    EXPECT_LT(received, kPackets);
}

}  // namespace

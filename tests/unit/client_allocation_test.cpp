// SPDX-License-Identifier: BSD-3-Clause
// The queue in shared memory and the packet server's client allocate nothing for a packet once they are warm.
#include <sys/socket.h>

#include <algorithm>
#include <vector>

#include "allocation_count.h"
#include "client_fixture.h"
#include "packets.h"

namespace {

const int kPackets = 90;
const int kBytes = 144;

class ClientAllocation : public ClientSocketTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(allocationsAreCounted());
        ClientSocketTest::SetUp();
        for (int i = 0; i < kPackets; ++i) {
            packets.push_back(pdu(kBytes, i));
            records.push_back(FakePacketServer::data(packets.back(), kLoopback));
        }
    }

    // Everything through the queue, with `receive` behind each packet; all of it must come.
    template <class Receive>
    void expectNoAllocation(const Receive& receive) {
        int count = 0;
        EXPECT_EQ(0, allocationsOnceWarm([&] {
                      count = 0;
                      for (const std::string& record : records) {
                          server->say(record);
                          count += receive() == kBytes;
                      }
                  }));
        EXPECT_EQ(kPackets, count);
    }

    const Quiet quiet;
    std::vector<std::string> packets, records;
    char storage[15000];
};

TEST_F(ClientAllocation, theQueueNeedsNone) {
    NwShmMsgQueueReader reader(server->segment.queue(), server->segment.capacity(), server->segment.semId(),
                               0, true, false, true);
    const int room = 2048;
    std::uint64_t buffer[room];
    const std::string large(static_cast<std::size_t>(8 * room), 'l');
    long count = 0, refused = 0;
    EXPECT_EQ(0, allocationsOnceWarm([&] {
                  count = refused = 0;
                  // Several times around the ring, and until nothing more fits.
                  for (int round = 0; round < 20; ++round) {
                      for (const std::string& record : records)
                          refused += !server->writer->put(record.data(), 16, record.data() + 16,
                                                          static_cast<unsigned int>(record.size() - 16));
                      for (int i = 0; i < 20; ++i)
                          refused +=
                              !server->writer->write(large.data(), static_cast<unsigned int>(large.size()));
                      reader.queueMgr().setNotifyReader(reader.msgsRcvd() + 1);
                      server->writer->publish();
                      server->writer->takeNotify();
                      int result = NwShmReadMessage;
                      while (reader.read(buffer, room, &result) > 0) ++count;
                  }
              }));
    EXPECT_EQ(20 * (kPackets + 20), count + refused);
    EXPECT_GT(count, 20 * kPackets);
    EXPECT_GT(refused, 0);
}

TEST_F(ClientAllocation, everyFormOfReceivingNeedsNone) {
    const std::unique_ptr<Client> client = attach();
    expectNoAllocation([&] {
        char* packet = nullptr;
        int status = 0;
        return client->NwRecv(&packet, &status);
    });
    expectNoAllocation([&] { return client->NwRecv(storage, sizeof storage); });
    client->NwBecomeNonBlocking();
    expectNoAllocation([&] {
        const int length = client->NwRecv(storage, sizeof storage);
        return length + client->NwRecv(storage, sizeof storage);  // nothing more
    });
    expectNoAllocation([&] {
        client->notifyMe();
        return isReadable(client->readFd()) ? client->NwRecv(storage, sizeof storage) : -1;
    });
}

TEST_F(ClientAllocation, messagesOfTheServerNeedNone) {
    const std::unique_ptr<Client> client = attach();
    client->NwBecomeNonBlocking();
    for (std::string& record : records) record = noticeMessage(NwCsNoticeTest);
    int count = 0;
    EXPECT_EQ(0, allocationsOnceWarm([&] {
                  count = 0;
                  for (const std::string& record : records) {
                      server->say(record);
                      char* packet = nullptr;
                      int status = 0;
                      client->NwRecv(&packet, &status);
                      count += status == -1;
                  }
              }));
    EXPECT_EQ(kPackets, count);
}

TEST_F(ClientAllocation, sendingNeedsNone) {
    UdpPeer peer(kLoopback, FakePacketServer::kPort, true);
    const std::unique_ptr<Client> client = attach();
    for (const bool isInternal : {false, true}) {
        server->writer->queueMgr().setInternal(isInternal);
        for (const int bundleBytes : {0, 1400}) {
            client->setBundling(bundleBytes);
            long came = 0;
            EXPECT_EQ(0, allocationsOnceWarm([&] {
                          came = 0;
                          for (std::string& packet : packets) {
                              client->NwSend(&packet[0], packet.size(), kLoopback);
                              came += std::max<ssize_t>(
                                  ::recv(peer.fd(), storage, sizeof storage, MSG_DONTWAIT), 0);
                          }
                          client->flush();
                          came +=
                              std::max<ssize_t>(::recv(peer.fd(), storage, sizeof storage, MSG_DONTWAIT), 0);
                      }))
                << "bundles of " << bundleBytes;
            EXPECT_EQ(kPackets * kBytes, came);
        }
    }
}

}  // namespace

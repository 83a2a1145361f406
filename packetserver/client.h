// SPDX-License-Identifier: BSD-3-Clause
// One attached client: its queue, its filters, its wishes, and what was delivered to it.
#ifndef PACKETSERVER_CLIENT_H
#define PACKETSERVER_CLIENT_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include <cvutil/cvInetAddr.h>
#include <cvutil/cvPacketServerMsgs.h>
#include <cvutil/cvShmMsgQueue.h>

#include "notify_socket.h"
#include "packet_filter.h"
#include "request_socket.h"

namespace packetserver {

class Client {
public:
    using Clock = std::chrono::steady_clock;

    struct Counts {
        std::uint64_t delivered = 0;  // packets put into the queue
        std::uint64_t filtered = 0;   // packets that its filters kept back
        std::uint64_t dropped = 0;    // packets and messages that did not fit the queue
    };

    Client(int id, unsigned short flags, const Sender& sender, std::unique_ptr<NotifySocket> notify);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Makes the queue: `capacity` bytes under the keys of `port` and `slot`. False with errno: EEXIST when
    /// somebody else uses the keys.
    bool makeQueue(int port, int slot, long capacity);
    /// Tells the client where its queue is. False when that did not reach it.
    bool acknowledge(bool isInternal);
    /// The first request of a client shows that it has attached: from now on nothing of its queue outlives
    /// both ends.
    void noteAttached();

    /// Puts a packet into the queue if it passes the filters. The client sees it after publish().
    void offer(const char* packet, unsigned length, NwIpv4Addr source);
    /// Puts in a message made with writer(). The same.
    void tell(NwShmMsg& message);
    /// Makes visible what was put in since the last time, wakes the client, and tells it of drops.
    void publish();
    /// Ends the attachment for the client: a notice, and the queue's go-away value.
    void sendAway(NwCsNoticeCode notice);

    /// Whether it has been told of its queue and has not attached it yet.
    bool isPending() const { return !isAttached_ && segment_.attachments() <= 0; }
    /// Whether its process is dead and nobody else, a child of it, has the queue attached.
    bool isDead() const;
    /// Whether the client has gone without a word: it is dead, or it has attached and let go, or it never
    /// attached.
    bool hasGone() const;
    /// Readable once the process has ended; -1 where the system has no such descriptor.
    int pidFd() const { return pidFd_; }
    /// Whether a request comes from the client's user, or from root.
    bool isOwnedBy(const Sender& sender) const { return sender.uid == sender_.uid || sender.uid == 0; }

    int id() const { return id_; }
    int slot() const { return slot_; }
    const Sender& sender() const { return sender_; }
    bool isControlOnly() const { return (flags_ & NwCsClientControlOnly) != 0; }
    const std::string& program() const { return program_; }
    const Counts& counts() const { return counts_; }
    std::uint32_t queueHighWater() const { return writer_->highWaterBytes(); }
    std::uint32_t queueBytes() const { return writer_->queueMgr().ringBytes(); }
    NwShmMsgQueueWriter* writer() { return writer_.get(); }
    NotifySocket& notify() { return *notify_; }

    /// What a client-states answer says of it; index and count are the caller's.
    NwCsCStateReturnRecord state() const;

    PacketFilter filter;
    std::set<NwIpv4Addr> groups;
    bool unbundles = true;

private:
    bool isProcessDead() const;
    void putDropWarning();

    const int id_;
    const unsigned short flags_;
    const Sender sender_;
    const std::string program_;
    const Clock::time_point since_;
    const int pidFd_;
    std::unique_ptr<NotifySocket> notify_;
    NwShmMsgQueueSegment segment_;
    std::unique_ptr<NwShmMsgQueueWriter> writer_;
    int slot_ = -1;  // none before makeQueue()
    Counts counts_;
    std::uint32_t sequence_ = 0;  // of the next packet for this client
    std::uint64_t droppedUntold_ = 0;
    bool isAttached_ = false;
    bool hasUnpublished_ = false;
};

}  // namespace packetserver

#endif

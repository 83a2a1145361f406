// SPDX-License-Identifier: BSD-3-Clause
#include "client.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <utility>

namespace packetserver {

namespace {

/// The name of a program, as one that steers no terminal and is text in any encoding.
std::string printable(std::string name) {
    for (char& character : name)
        if (character < ' ' || character > '~') character = '?';
    return name;
}

/// How long a client may take from the acknowledgement to its first filter message.
constexpr std::chrono::seconds attachLimit(15);

int openProcess(pid_t pid) {
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));  // close-on-exec by itself
}

std::string programOf(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(file, name);
    return printable(name);
}

}  // namespace

Client::Client(int id, unsigned short flags, const Sender& sender, std::unique_ptr<NotifySocket> notify)
    : id_(id),
      flags_(flags),
      sender_(sender),
      program_(programOf(sender.pid)),
      since_(Clock::now()),
      pidFd_(openProcess(sender.pid)),
      notify_(std::move(notify)) {}

Client::~Client() {
    writer_.reset();
    segment_.remove();
    if (pidFd_ >= 0) ::close(pidFd_);
}

bool Client::makeQueue(int port, int slot, long capacity) {
    if (!segment_.create(port, slot, capacity, sender_.uid, sender_.gid)) return false;
    slot_ = slot;
    writer_ = std::make_unique<NwShmMsgQueueWriter>(segment_.queue(), segment_.capacity(), segment_.semId(),
                                                    NwShmWakeSemaphore);
    return true;
}

bool Client::acknowledge(bool isInternal) {
    writer_->queueMgr().setInternal(isInternal);
    const NwCsAckMsg ack(-1, isInternal, id_, segment_.shmKey(), segment_.semKey(),
                         segment_.server2ClientSize(), segment_.client2ServerSize());
    return notify_->answer(ack);
}

void Client::noteAttached() {
    if (!isAttached_) segment_.markForRemoval();
    isAttached_ = true;
}

void Client::offer(const char* packet, unsigned length, NwIpv4Addr source) {
    if (!filter.passes(packet, length, source)) {
        ++counts_.filtered;
        return;
    }
    NwCsDataHeader header{};
    header.kind = NwCsKindData;
    header.version = NwCsMsgVersion;
    header.source = source;
    header.sequence = sequence_++;
    header.length = length;
    if (writer_->put(&header, sizeof header, packet, length)) {
        ++counts_.delivered;
    } else {
        ++counts_.dropped;
        ++droppedUntold_;
    }
    hasUnpublished_ = true;
}

void Client::tell(NwShmMsg& message) {
    if (message.send() < 0) {
        ++counts_.dropped;
        ++droppedUntold_;
    }
    hasUnpublished_ = true;
}

void Client::publish() {
    if (droppedUntold_ > 0) putDropWarning();
    if (!hasUnpublished_) return;
    hasUnpublished_ = false;
    writer_->publish();
    if (writer_->takeNotify()) notify_->wake();
}

void Client::putDropWarning() {
    NwCsWarningMsg warning(writer_.get(), NwCsWarningDropped, droppedUntold_, "");
    // A failed attempt would count as one more message dropped. Twice: the end of the ring may be in between.
    const std::size_t room = 2 * (sizeof(NwShmRecordHeader) + sizeof(NwCsWarningRecord));
    if (queueBytes() - writer_->queueMgr().usedBytes() < room || warning.send() < 0) return;  // not yet
    droppedUntold_ = 0;
    hasUnpublished_ = true;
}

void Client::sendAway(NwCsNoticeCode notice) {
    NwCsNoticeMsg(writer_.get(), static_cast<unsigned short>(notice)).send();
    writer_->sendAway(notice == NwCsNoticeStopped ? NwShmGoAwayStopped : NwShmGoAwayDismissed);
    if (writer_->takeNotify()) notify_->wake();
}

bool Client::isProcessDead() const {
    if (pidFd_ < 0) return ::kill(sender_.pid, 0) != 0 && errno == ESRCH;
    pollfd ended{pidFd_, POLLIN, 0};
    return ::poll(&ended, 1, 0) > 0;
}

bool Client::isDead() const {
    return segment_.attachments() <= 0 && isProcessDead();
}

bool Client::hasGone() const {
    if (isDead()) return true;
    if (segment_.attachments() != 0) return false;
    return isAttached_ || Clock::now() - since_ > attachLimit;
}

NwCsCStateReturnRecord Client::state() const {
    NwCsCStateReturnRecord record{};
    record.flags = flags_;
    record.clientId = static_cast<std::uint32_t>(id_);
    record.pid = sender_.pid;
    record.uid = sender_.uid;
    record.delivered = counts_.delivered;
    record.filtered = counts_.filtered;
    record.dropped = counts_.dropped;
    record.attachedSeconds = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - since_).count());
    record.queueBytes = queueBytes();
    record.queueUsedBytes = writer_->queueMgr().usedBytes();
    record.queueHighWater = queueHighWater();
    record.groups = static_cast<std::uint32_t>(groups.size());
    record.unbundling = unbundles ? 1 : 0;
    for (int i = 0; i < NwCsFilterCount; ++i) record.filters[i] = filter.state(i);
    std::memcpy(record.program, program_.data(), std::min(program_.size(), sizeof record.program));
    return record;
}

}  // namespace packetserver

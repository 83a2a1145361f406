// SPDX-License-Identifier: BSD-3-Clause
#include "server_client.h"

#include <poll.h>
#include <algorithm>

#include <fmt/format.h>

#include "json_line.h"

namespace cvnet {
namespace {

constexpr int kManyMessages = 1000;
constexpr auto kLastAnswerLimit = std::chrono::seconds(1);
constexpr int kLookMilliseconds = 20;

struct Notice {
    int code;
    const char* name;  // in JSON
    const char* words;
};
constexpr Notice kNotices[] = {
    {NwCsNoticeExternal, "external", "takes packets of other hosts too from now on"},
    {NwCsNoticeInternal, "internal", "keeps packets on this host from now on"},
    {NwCsNoticeTest, "test", "tests its clients"},
};

}  // namespace

void ServerClient::settle() {
    for (const NwCsCStateReturnRecord& state : askClients(socket_, port_)) {
        if (state.clientId != id()) continue;
        filteredBefore_ = state.filtered;
        droppedBefore_ = state.dropped;
    }
}

void ServerClient::look(int status) {
    if (!socket_.isOk()) throwServerHasGone(socket_, port_, kExitOk);
    if (status != -1) return;
    if (const std::optional<NwCsMsg> message = takeMessage(socket_)) show(*message);
}

void ServerClient::discardIncoming() {
    int status = -1;
    for (int i = 0; i < kManyMessages && status != 0; ++i) {
        char* packet = nullptr;
        socket_.NwRecv(&packet, &status);
        look(status);
    }
}

// A line on standard error stands below what was printed before, and above a live table.
void ServerClient::makeRoom() {
    out_.erase();
    out_.flush();
}

void ServerClient::show(const NwCsMsg& message) {
    if (const auto refusal = refusalText(message)) {
        makeRoom();
        warningLine(*refusal);
    } else if (message.kind == NwCsKindNotice) {
        showNotice(recordOf<NwCsNoticeRecord>(message).code);
    } else if (message.kind == NwCsKindWarning) {
        const auto warning = recordOf<NwCsWarningRecord>(message);
        if (warning.code == NwCsWarningDropped) countDrops(warning.count);
    }
}

// Said once: the totals have the sum.
void ServerClient::countDrops(std::uint64_t count) {
    if (dropped_ == 0 && count != 0) {
        makeRoom();
        warningLine(
            fmt::format("the queue was full: {} dropped so far (the server's --queue makes it larger)",
                        counted(count, "packet")));
    }
    dropped_ += count;
}

void ServerClient::showNotice(int code) {
    if (report_.quiet) return;
    const auto* const notice = std::find_if(std::begin(kNotices), std::end(kNotices),
                                            [code](const Notice& entry) { return entry.code == code; });
    if (notice == std::end(kNotices)) return;
    if (report_.json) {
        out_.line(jsonLine({{"event", "notice"}, {"notice", notice->name}}));
        return;
    }
    makeRoom();
    errorLine(fmt::format("the packet server {}", notice->words));
}

void ServerClient::finish() {
    if (!socket_.isOk()) return;
    socket_.requestServerCStates();
    const Clock::time_point until = Clock::now() + kLastAnswerLimit;
    while (Clock::now() < until) {
        int status = 0;
        char* packet = nullptr;
        socket_.NwRecv(&packet, &status);
        if (!socket_.isOk()) return;
        const std::optional<NwCsMsg> message = status == -1 ? takeMessage(socket_) : std::nullopt;
        if (message && message->kind == NwCsKindCStateReturn) {
            const auto state = recordOf<NwCsCStateReturnRecord>(*message);
            if (state.clientId != id()) continue;
            filtered_ = state.filtered - filteredBefore_;
            dropped_ = state.dropped - droppedBefore_;
            return;
        }
        if (status != 0) continue;
        socket_.notifyMe();  // after a signal too, so not the tool's own wait
        pollfd descriptor = {socket_.readFd(), POLLIN, 0};
        ::poll(&descriptor, 1, kLookMilliseconds);
    }
}

}  // namespace cvnet

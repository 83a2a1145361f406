// SPDX-License-Identifier: BSD-3-Clause
// Records into messages and back, and what they say for people.
#include <cvutil/cvPacketServerMsgs.h>

#include <cvutil/cvClock.h>
#include <cvutil/cvInetAddr.h>
#include <cvutil/cvOutput.h>
#include <cvutil/cvShmMsgQueue.h>
#include <errno.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

// As long as a connected request socket waits for room, so that signals cannot stretch a send for ever.
const double kLongestSendSeconds = 5.0;

template <class Record>
Record as(const NwCsMsg& message) {
    static_assert(sizeof(Record) <= sizeof(NwCsMsg), "every record fits the room of a message");
    Record record;
    std::memcpy(&record, &message, sizeof record);
    return record;
}

// Every byte of a record travels, so each starts as zero.
template <class Record>
Record blank() {
    Record record;
    std::memset(&record, 0, sizeof record);
    return record;
}

template <class Record>
NwCsMsg made(int kind, const Record& record) {
    auto message = blank<NwCsMsg>();
    std::memcpy(&message, &record, sizeof record);
    message.kind = static_cast<std::uint8_t>(kind);
    message.version = NwCsMsgVersion;
    return message;
}

// Changes one field of a record that lies in a message.
template <class Field>
void set(NwCsMsg& message, std::size_t offset, Field value) {
    std::memcpy(reinterpret_cast<char*>(&message) + offset, &value, sizeof value);
}

// A line's worth of text that takes no memory.
struct Words {
    char text[sizeof(NwCsMsg) + 1] = {};
};

// Text from another process, safe for a terminal: nothing but what any of them prints as it stands.
Words shown(const char* text, std::size_t room) {
    Words result;
    const std::size_t length = ::strnlen(text, std::min(room, sizeof result.text - 1));
    for (std::size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        result.text[i] = c < 0x20 || c > 0x7E ? '?' : text[i];
    }
    return result;
}

const char* nameOfRequest(int request) {
    static const char* const names[NwCsRequestCount] = {
        "external mode",        "internal mode",        "test the clients", "ping the clients",
        "server state",         "client states",        "terminate",        "disconnect a client",
        "switch on unbundling", "switch off unbundling"};
    return request >= 0 && request < NwCsRequestCount ? names[request] : "unknown";
}

const char* nameOfFilter(int index) {
    static const char* const names[NwCsFilterCount] = {"exercise", "version", "kind", "source"};
    return index >= 0 && index < NwCsFilterCount ? names[index] : "unknown";
}

const char* addClientProblem(const NwCsMsg& message) {
    const auto record = as<NwCsAddClientRecord>(message);
    if (!std::memchr(record.notifyPath, 0, sizeof record.notifyPath)) return "notify path without an end";
    if (record.notifyPath[0] != '/') return "notify path that is not absolute";
    return nullptr;
}

const char* filterProblem(const NwCsMsg& message) {
    const auto record = as<NwCsFilterRecord>(message);
    if (record.filterIndex >= NwCsFilterCount) return "no such filter";
    if (record.filterOp > NwCsFilterOpAdd) return "no such filter operation";
    if (record.filterOp == NwCsFilterOpOperator && record.value > 1) return "no such filter operator";
    return nullptr;
}

const char* multicastProblem(const NwCsMsg& message) {
    const auto record = as<NwCsMulticastReqRecord>(message);
    if (record.op > NwCsMulticastLeave) return "no such multicast operation";
    if (record.group >> 28 != 0xE) return "not a multicast group";
    return nullptr;
}

const char* controlProblem(const NwCsMsg& message) {
    return as<NwCsControlReqRecord>(message).request < NwCsRequestCount ? nullptr : "no such control request";
}

bool isRequest(int kind) {
    return kind >= NwCsKindAddClient && kind <= NwCsKindControlReq;
}

}  // namespace

int NwCsRecordSize(int kind) {
    switch (kind) {
        case NwCsKindPing:
        case NwCsKindQuota:
            return sizeof(NwCsPlainRecord);
        case NwCsKindAddClient:
            return sizeof(NwCsAddClientRecord);
        case NwCsKindFilter:
            return sizeof(NwCsFilterRecord);
        case NwCsKindMulticastReq:
            return sizeof(NwCsMulticastReqRecord);
        case NwCsKindControlReq:
            return sizeof(NwCsControlReqRecord);
        case NwCsKindAck:
            return sizeof(NwCsAckRecord);
        case NwCsKindData:
            return sizeof(NwCsDataHeader);
        case NwCsKindStateReturn:
            return sizeof(NwCsStateReturnRecord);
        case NwCsKindCStateReturn:
            return sizeof(NwCsCStateReturnRecord);
        case NwCsKindWarning:
            return sizeof(NwCsWarningRecord);
        case NwCsKindNotice:
            return sizeof(NwCsNoticeRecord);
        default:
            return 0;
    }
}

const char* NwCsRequestProblem(const NwCsMsg* received, long length) {
    if (length < 2) return "shorter than any message";
    if (!isRequest(received->kind)) return "no request";
    if (received->version != NwCsMsgVersion) return "another message version";
    if (length != NwCsRecordSize(received->kind)) return "another length than its kind has";
    switch (received->kind) {
        case NwCsKindAddClient:
            return addClientProblem(*received);
        case NwCsKindFilter:
            return filterProblem(*received);
        case NwCsKindMulticastReq:
            return multicastProblem(*received);
        default:
            return controlProblem(*received);
    }
}

// --- the tree ---

NwClientServerMsg::NwClientServerMsg(const NwCsMsg* received) : record(*received) {}
NwClientServerMsg::NwClientServerMsg(const NwCsMsg& made) : record(made) {}
NwClientServerMsg::~NwClientServerMsg() = default;

int NwClientServerMsg::send() {
    errno = EBADF;
    return -1;
}

void NwClientServerMsg::print() {
    NwInfo("Packet server: message of kind %d, version %d\n", kind(), version());
}

int NwClientServerMsg::size() const {
    return NwCsRecordSize(record.kind);
}

NwSocketMsg::NwSocketMsg(int descriptor, const NwCsMsg* received)
    : NwClientServerMsg(received), fd(descriptor) {}
NwSocketMsg::NwSocketMsg(int descriptor, const NwCsMsg& made) : NwClientServerMsg(made), fd(descriptor) {}
NwSocketMsg::~NwSocketMsg() = default;

int NwSocketMsg::send() {
    const std::size_t length = static_cast<std::size_t>(size());
    ssize_t sent = ::send(fd, &record, length, MSG_NOSIGNAL);
    if (sent >= 0 || errno != EINTR) return static_cast<int>(sent);
    // A signal came while there was no room: a request that is lost here is never made again.
    const NwClock clock;
    do {
        sent = ::send(fd, &record, length, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR && clock.elapsedRealTime() < kLongestSendSeconds);
    return static_cast<int>(sent);
}

NwShmMsg::NwShmMsg(NwShmMsgQueueWriter* queueWriter, const NwCsMsg* received)
    : NwClientServerMsg(received), writer(queueWriter) {}
NwShmMsg::NwShmMsg(NwShmMsgQueueWriter* queueWriter, const NwCsMsg& made)
    : NwClientServerMsg(made), writer(queueWriter) {}
NwShmMsg::~NwShmMsg() = default;

int NwShmMsg::send() {
    if (!writer || !writer->write(&record, static_cast<unsigned int>(size()))) return -1;
    return size();
}

// --- client to server ---

namespace {

NwCsMsg addClient(unsigned short flags, int clientArg, int option, int pid, const char* notifyPath) {
    auto record = blank<NwCsAddClientRecord>();
    record.flags = flags;
    record.clientArg = clientArg;
    record.option = option;
    record.pid = pid;
    const std::size_t length = notifyPath ? std::strlen(notifyPath) : 0;
    if (length > 0 && length < sizeof record.notifyPath) std::memcpy(record.notifyPath, notifyPath, length);
    return made(NwCsKindAddClient, record);
}

NwCsMsg filter(unsigned char filterIndex, unsigned char filterOp, unsigned int value, unsigned int clientId) {
    auto record = blank<NwCsFilterRecord>();
    record.filterIndex = filterIndex;
    record.filterOp = filterOp;
    record.value = value;
    record.clientId = clientId;
    return made(NwCsKindFilter, record);
}

NwCsMsg multicastReq(unsigned short op, unsigned int group, unsigned int clientId) {
    auto record = blank<NwCsMulticastReqRecord>();
    record.op = op;
    record.group = group;
    record.clientId = clientId;
    return made(NwCsKindMulticastReq, record);
}

NwCsMsg controlReq(unsigned short request, unsigned int clientId) {
    auto record = blank<NwCsControlReqRecord>();
    record.request = request;
    record.clientId = clientId;
    return made(NwCsKindControlReq, record);
}

}  // namespace

NwCsAddClientMsg::NwCsAddClientMsg(int descriptor, unsigned short flags, int clientArg, int option, int pid,
                                   const char* notifyPath)
    : NwSocketMsg(descriptor, addClient(flags, clientArg, option, pid, notifyPath)) {}
NwCsAddClientMsg::NwCsAddClientMsg(int descriptor, const NwCsMsg* received)
    : NwSocketMsg(descriptor, received) {
    set(record, offsetof(NwCsAddClientRecord, notifyPath) + sizeof(NwCsAddClientRecord::notifyPath) - 1,
        '\0');
}
NwCsAddClientMsg::~NwCsAddClientMsg() = default;

void NwCsAddClientMsg::print() {
    NwInfo("Packet server: add client with process %d, flags 0x%X, answer to %s\n", pid(), flags(),
           shown(notifyPath(), sizeof(NwCsAddClientRecord::notifyPath)).text);
}

unsigned short NwCsAddClientMsg::flags() const {
    return as<NwCsAddClientRecord>(record).flags;
}

int NwCsAddClientMsg::clientArg() const {
    return as<NwCsAddClientRecord>(record).clientArg;
}

int NwCsAddClientMsg::option() const {
    return as<NwCsAddClientRecord>(record).option;
}

int NwCsAddClientMsg::pid() const {
    return as<NwCsAddClientRecord>(record).pid;
}

const char* NwCsAddClientMsg::notifyPath() const {
    return reinterpret_cast<const char*>(&record) + offsetof(NwCsAddClientRecord, notifyPath);
}

NwCsFilterMsg::NwCsFilterMsg(int descriptor, unsigned char filterIndex, unsigned char filterOp,
                             unsigned int value, unsigned int clientId)
    : NwSocketMsg(descriptor, filter(filterIndex, filterOp, value, clientId)) {}
NwCsFilterMsg::NwCsFilterMsg(int descriptor, const NwCsMsg* received) : NwSocketMsg(descriptor, received) {}
NwCsFilterMsg::~NwCsFilterMsg() = default;

void NwCsFilterMsg::print() {
    if (filterOp() == NwCsFilterOpOperator)
        NwInfo("Packet server: client %u, %s filter: %s\n", clientId(), nameOfFilter(filterIndex()),
               value() ? "exclude" : "include");
    else
        NwInfo("Packet server: client %u, %s filter: add %u\n", clientId(), nameOfFilter(filterIndex()),
               value());
}

void NwCsFilterMsg::setFilterOp(unsigned char filterOp) {
    set(record, offsetof(NwCsFilterRecord, filterOp), filterOp);
}

void NwCsFilterMsg::setValue(unsigned int value) {
    set(record, offsetof(NwCsFilterRecord, value), value);
}

int NwCsFilterMsg::filterIndex() const {
    return as<NwCsFilterRecord>(record).filterIndex;
}

int NwCsFilterMsg::filterOp() const {
    return as<NwCsFilterRecord>(record).filterOp;
}

unsigned int NwCsFilterMsg::value() const {
    return as<NwCsFilterRecord>(record).value;
}

unsigned int NwCsFilterMsg::clientId() const {
    return as<NwCsFilterRecord>(record).clientId;
}

NwCsMulticastReqMsg::NwCsMulticastReqMsg(int descriptor, unsigned short op, unsigned int group,
                                         unsigned int clientId)
    : NwSocketMsg(descriptor, multicastReq(op, group, clientId)) {}
NwCsMulticastReqMsg::NwCsMulticastReqMsg(int descriptor, const NwCsMsg* received)
    : NwSocketMsg(descriptor, received) {}
NwCsMulticastReqMsg::~NwCsMulticastReqMsg() = default;

void NwCsMulticastReqMsg::print() {
    NwInfo("Packet server: client %u, %s group %s\n", clientId(),
           op() == NwCsMulticastJoin ? "join" : "leave", NwInetAddrString(group()));
}

int NwCsMulticastReqMsg::op() const {
    return as<NwCsMulticastReqRecord>(record).op;
}

unsigned int NwCsMulticastReqMsg::group() const {
    return as<NwCsMulticastReqRecord>(record).group;
}

unsigned int NwCsMulticastReqMsg::clientId() const {
    return as<NwCsMulticastReqRecord>(record).clientId;
}

NwCsControlReqMsg::NwCsControlReqMsg(int descriptor, unsigned short request, unsigned int clientId)
    : NwSocketMsg(descriptor, controlReq(request, clientId)) {}
NwCsControlReqMsg::NwCsControlReqMsg(int descriptor, const NwCsMsg* received)
    : NwSocketMsg(descriptor, received) {}
NwCsControlReqMsg::~NwCsControlReqMsg() = default;

void NwCsControlReqMsg::print() {
    NwInfo("Packet server: client %u, request %d: %s\n", clientId(), request(), nameOfRequest(request()));
}

void NwCsControlReqMsg::setRequest(unsigned short request) {
    set(record, offsetof(NwCsControlReqRecord, request), request);
}

int NwCsControlReqMsg::request() const {
    return as<NwCsControlReqRecord>(record).request;
}

unsigned int NwCsControlReqMsg::clientId() const {
    return as<NwCsControlReqRecord>(record).clientId;
}

// --- server to client, notify socket ---

namespace {

NwCsMsg ack(bool internal, int clientId, int shmKey, int semKey, int server2ClientSize,
            int client2ServerSize) {
    auto record = blank<NwCsAckRecord>();
    record.internal = internal;
    record.clientId = clientId;
    record.shmKey = shmKey;
    record.semKey = semKey;
    record.server2ClientSize = server2ClientSize;
    record.client2ServerSize = client2ServerSize;
    return made(NwCsKindAck, record);
}

}  // namespace

NwCsAckMsg::NwCsAckMsg(int descriptor, bool internal, int clientId, int shmKey, int semKey,
                       int server2ClientSize, int client2ServerSize)
    : NwSocketMsg(descriptor, ack(internal, clientId, shmKey, semKey, server2ClientSize, client2ServerSize)) {
}
NwCsAckMsg::NwCsAckMsg(int descriptor, const NwCsMsg* received) : NwSocketMsg(descriptor, received) {}
NwCsAckMsg::~NwCsAckMsg() = default;

void NwCsAckMsg::print() {
    NwInfo(
        "Packet server: client %d accepted (%s mode), queue of %d bytes under key %d, semaphores under key "
        "%d\n",
        clientId(), internal() ? "internal" : "external", server2ClientSize(), shmKey(), semKey());
}

int NwCsAckMsg::internal() const {
    return as<NwCsAckRecord>(record).internal;
}

int NwCsAckMsg::clientId() const {
    return as<NwCsAckRecord>(record).clientId;
}

int NwCsAckMsg::shmKey() const {
    return as<NwCsAckRecord>(record).shmKey;
}

int NwCsAckMsg::semKey() const {
    return as<NwCsAckRecord>(record).semKey;
}

int NwCsAckMsg::server2ClientSize() const {
    return as<NwCsAckRecord>(record).server2ClientSize;
}

int NwCsAckMsg::client2ServerSize() const {
    return as<NwCsAckRecord>(record).client2ServerSize;
}

NwCsQuotaMsg::NwCsQuotaMsg(int descriptor)
    : NwSocketMsg(descriptor, made(NwCsKindQuota, blank<NwCsPlainRecord>())) {}
NwCsQuotaMsg::NwCsQuotaMsg(int descriptor, const NwCsMsg* received) : NwSocketMsg(descriptor, received) {}
NwCsQuotaMsg::~NwCsQuotaMsg() = default;

void NwCsQuotaMsg::print() {
    NwWarn("Packet server: no place for another client\n");
}

// --- server to client, queue ---

NwCsPingMsg::NwCsPingMsg(NwShmMsgQueueWriter* queueWriter)
    : NwShmMsg(queueWriter, made(NwCsKindPing, blank<NwCsPlainRecord>())) {}
NwCsPingMsg::~NwCsPingMsg() = default;

NwCsStateReturnMsg::NwCsStateReturnMsg(NwShmMsgQueueWriter* queueWriter, const NwCsStateReturnRecord& state)
    : NwShmMsg(queueWriter, made(NwCsKindStateReturn, state)) {}
NwCsStateReturnMsg::NwCsStateReturnMsg(NwShmMsgQueueWriter* queueWriter, const NwCsMsg* received)
    : NwShmMsg(queueWriter, received) {}
NwCsStateReturnMsg::~NwCsStateReturnMsg() = default;

void NwCsStateReturnMsg::print() {
    const NwCsStateReturnRecord s = state();
    NwInfo(
        "Packet server: port %u on %s, %s mode, unbundling %s, process %d, version %s, up %llu s\n"
        "    %u of %u clients, %u of %u for control, queues of %u bytes, %u multicast groups\n"
        "    %llu datagrams, %llu packets, %llu dropped by the system, %llu of other hosts dropped\n",
        s.port, s.interfaceAddr ? NwInetAddrString(s.interfaceAddr) : "every interface",
        s.internal ? "internal" : "external", s.unbundling ? "on" : "off", s.pid,
        shown(s.serverVersion, sizeof s.serverVersion).text, static_cast<unsigned long long>(s.upSeconds),
        s.clients, s.clientLimit, s.controlClients, s.controlLimit, s.queueBytes, s.groups,
        static_cast<unsigned long long>(s.datagrams), static_cast<unsigned long long>(s.packets),
        static_cast<unsigned long long>(s.kernelDropped), static_cast<unsigned long long>(s.outsideDropped));
}

NwCsStateReturnRecord NwCsStateReturnMsg::state() const {
    return as<NwCsStateReturnRecord>(record);
}

NwCsCStateReturnMsg::NwCsCStateReturnMsg(NwShmMsgQueueWriter* queueWriter,
                                         const NwCsCStateReturnRecord& state)
    : NwShmMsg(queueWriter, made(NwCsKindCStateReturn, state)) {}
NwCsCStateReturnMsg::NwCsCStateReturnMsg(NwShmMsgQueueWriter* queueWriter, const NwCsMsg* received)
    : NwShmMsg(queueWriter, received) {}
NwCsCStateReturnMsg::~NwCsCStateReturnMsg() = default;

namespace {

// "kind includes 2, source excludes 1", or "none".
Words filtersOf(const NwCsCStateReturnRecord& state) {
    Words list;
    int length = 0;
    for (int i = 0; i < NwCsFilterCount; ++i) {
        const NwCsFilterState& one = state.filters[i];
        if (one.excludes && one.values == 0) continue;
        length += ::snprintf(list.text + length, sizeof list.text - static_cast<std::size_t>(length),
                             "%s%s %s %u", length ? ", " : "", nameOfFilter(i),
                             one.excludes ? "excludes" : "includes", one.values);
    }
    if (length == 0) std::strcpy(list.text, "none");
    return list;
}

}  // namespace

void NwCsCStateReturnMsg::print() {
    const NwCsCStateReturnRecord s = state();
    NwInfo(
        "Packet server: client %u (%u of %u), %s, process %d of user %u, attached %llu s%s\n"
        "    %llu delivered, %llu filtered, %llu dropped; queue %u of %u bytes, at most %u\n"
        "    unbundling %s, %u multicast groups, filters: %s\n",
        s.clientId, s.index + 1, s.count, shown(s.program, sizeof s.program).text, s.pid, s.uid,
        static_cast<unsigned long long>(s.attachedSeconds),
        s.flags & NwCsClientControlOnly ? ", control only" : "", static_cast<unsigned long long>(s.delivered),
        static_cast<unsigned long long>(s.filtered), static_cast<unsigned long long>(s.dropped),
        s.queueUsedBytes, s.queueBytes, s.queueHighWater, s.unbundling ? "on" : "off", s.groups,
        filtersOf(s).text);
}

NwCsCStateReturnRecord NwCsCStateReturnMsg::state() const {
    return as<NwCsCStateReturnRecord>(record);
}

namespace {

NwCsMsg warningOf(unsigned short code, std::uint64_t count, const char* text) {
    auto record = blank<NwCsWarningRecord>();
    record.code = code;
    record.count = count;
    record.textLength = text ? static_cast<std::uint32_t>(::strnlen(text, sizeof record.text)) : 0;
    if (record.textLength > 0) std::memcpy(record.text, text, record.textLength);
    return made(NwCsKindWarning, record);
}

}  // namespace

NwCsWarningMsg::NwCsWarningMsg(NwShmMsgQueueWriter* queueWriter, unsigned short code, std::uint64_t count,
                               const char* text)
    : NwShmMsg(queueWriter, warningOf(code, count, text)) {}
NwCsWarningMsg::NwCsWarningMsg(NwShmMsgQueueWriter* queueWriter, const NwCsMsg* received)
    : NwShmMsg(queueWriter, received) {}
NwCsWarningMsg::~NwCsWarningMsg() = default;

void NwCsWarningMsg::print() {
    const Words words = shown(text(), textLength());
    if (warning() == NwCsWarningDropped)
        NwWarn("Packet server: %llu messages dropped, this client's queue was full%s%s\n",
               static_cast<unsigned long long>(count()), words.text[0] ? ": " : "", words.text);
    else if (warning() == NwCsWarningRefused)
        NwWarn("Packet server: refused: %s\n", words.text);
    else
        NwWarn("Packet server: %s\n", words.text);
}

int NwCsWarningMsg::warning() const {
    return as<NwCsWarningRecord>(record).code;
}

std::uint64_t NwCsWarningMsg::count() const {
    return as<NwCsWarningRecord>(record).count;
}

unsigned int NwCsWarningMsg::textLength() const {
    const auto warningRecord = as<NwCsWarningRecord>(record);
    return std::min<std::uint32_t>(warningRecord.textLength, sizeof warningRecord.text);
}

const char* NwCsWarningMsg::text() const {
    return reinterpret_cast<const char*>(&record) + offsetof(NwCsWarningRecord, text);
}

namespace {

NwCsMsg noticeOf(unsigned short code) {
    auto record = blank<NwCsNoticeRecord>();
    record.code = code;
    return made(NwCsKindNotice, record);
}

}  // namespace

NwCsNoticeMsg::NwCsNoticeMsg(NwShmMsgQueueWriter* queueWriter, unsigned short code)
    : NwShmMsg(queueWriter, noticeOf(code)) {}
NwCsNoticeMsg::NwCsNoticeMsg(NwShmMsgQueueWriter* queueWriter, const NwCsMsg* received)
    : NwShmMsg(queueWriter, received) {}
NwCsNoticeMsg::~NwCsNoticeMsg() = default;

void NwCsNoticeMsg::print() {
    switch (notice()) {
        case NwCsNoticeExternal:
            NwInfo("Packet server: external mode, packets of every host\n");
            break;
        case NwCsNoticeInternal:
            NwInfo("Packet server: internal mode, packets of this host alone\n");
            break;
        case NwCsNoticeStopped:
            NwWarn("Packet server: stopped, no more packets for this client\n");
            break;
        case NwCsNoticeTest:
            NwInfo("Packet server: test message\n");
            break;
        case NwCsNoticeDismissed:
            NwWarn("Packet server: gone, or it has dismissed this client: no more packets\n");
            break;
        case NwCsNoticeUnbundlingOn:
            NwInfo("Packet server: unbundling on\n");
            break;
        case NwCsNoticeUnbundlingOff:
            NwInfo("Packet server: unbundling off\n");
            break;
        default:
            NwInfo("Packet server: notice %d\n", notice());
    }
}

int NwCsNoticeMsg::notice() const {
    return as<NwCsNoticeRecord>(record).code;
}

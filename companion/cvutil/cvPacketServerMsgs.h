// SPDX-License-Identifier: BSD-3-Clause
// What packet server and clients say to each other: the records as they travel, and a class for each.
//
//     NwCsFilterMsg msg(requestFd, NwCsFilterExerciseId, NwCsFilterOpAdd, 7, clientId);   // client
//     if (msg.send() < 0) ...
//
//     NwCsMsg received;                                                                   // server
//     ssize_t length = ::recv(fd, &received, sizeof received, 0);
//     if (NwCsRequestProblem(&received, length)) ...                              // not to be believed
//     if (received.kind == NwCsKindFilter) apply(NwCsFilterMsg(-1, &received));
//
// Client and server share a host, so fields are in the host's byte order, without conversion. Every record
// starts with its kind and the version of the messages (1 byte each), has a fixed size, and fits 176 bytes
// (data, which carry a packet behind their header, excepted). Requests travel as one datagram each on the
// server's request socket. The server answers an attach on the client's notify socket; everything else it has
// to say comes through the queue in shared memory (cvShmMsgQueue.h), between the data.
//
// The layouts and numbers below are what two programs built at different times agree on: none of them changes
// within a message version. Bytes without a name are zero.
//
// Threads. A message is for one thread at a time.
#ifndef CVUTIL_CVPACKETSERVERMSGS_H
#define CVUTIL_CVPACKETSERVERMSGS_H

#include <cstddef>
#include <cstdint>

#include <cvutil/cvExport.h>

class NwShmMsgQueueWriter;

// --- numbers ---

// The version that this library sends. Servers before 3 know no filtering at the server, internal mode or
// control messages.
enum { NwCsMsgVersion = 3 };

// Byte 0. 5 is free.
enum NwCsKind : int {
    NwCsKindPing = 0,       // server to client, queue: nothing to do; that it was taken shows a living client
    NwCsKindAddClient = 1,  // client to server
    NwCsKindFilter = 2,     // client to server
    NwCsKindMulticastReq = 3,   // client to server
    NwCsKindControlReq = 4,     // client to server
    NwCsKindAck = 6,            // server to client, notify socket: the attach succeeded
    NwCsKindQuota = 7,          // server to client, notify socket: no place left
    NwCsKindData = 8,           // server to client, queue
    NwCsKindStateReturn = 9,    // server to client, queue
    NwCsKindCStateReturn = 10,  // server to client, queue
    NwCsKindWarning = 11,  // server to client, queue; on the notify socket: the attach is refused, and why
    NwCsKindNotice = 12    // server to client, queue
};

// Flags of an add-client request. Other bits are passed on and have no meaning to this server; ordinary
// clients send 7.
enum NwCsClientFlags : int {
    NwCsClientNonBlocking = 0x20,  // the client's reads start without blocking
    NwCsClientNoNotify = 0x80,     // the notify socket serves for the attach alone
    NwCsClientControlOnly = 0x100  // no data, only control requests and their answers
};

// The four filters of a client, and what can be said about one.
enum NwCsFilterIndex : int {
    NwCsFilterExerciseId = 0,
    NwCsFilterProtocolVersion = 1,
    NwCsFilterPduKind = 2,
    NwCsFilterSourceAddr = 3,
    NwCsFilterCount = 4
};
enum NwCsFilterOp : int {
    NwCsFilterOpOperator = 0,  // empties the list; value 1: let through what is not on it; 0: what is on it
    NwCsFilterOpAdd = 1        // the value joins the list
};

enum NwCsMulticastOp : int { NwCsMulticastJoin = 0, NwCsMulticastLeave = 1 };

enum NwCsControlRequest : int {
    NwCsRequestExternal = 0,
    NwCsRequestInternal = 1,
    NwCsRequestTestClients = 2,
    NwCsRequestPingClients = 3,
    NwCsRequestState = 4,
    NwCsRequestClientStates = 5,
    NwCsRequestTerminate = 6,
    NwCsRequestDisconnect = 7,
    NwCsRequestUnbundlingOn = 8,
    NwCsRequestUnbundlingOff = 9,
    NwCsRequestCount = 10
};

enum NwCsNoticeCode : int {
    NwCsNoticeExternal = 0,   // the server takes packets of the whole network from now on
    NwCsNoticeInternal = 1,   // ... of this host alone
    NwCsNoticeStopped = 2,    // the server has stopped in order: the attachment is over
    NwCsNoticeTest = 3,       // the server was asked to test its clients
    NwCsNoticeDismissed = 4,  // the server is gone, or has sent this client away: the attachment is over
    NwCsNoticeUnbundlingOn = 5,
    NwCsNoticeUnbundlingOff = 6
};

enum NwCsWarningCode : int {
    NwCsWarningText = 0,     // the text says it
    NwCsWarningDropped = 1,  // the count tells how many messages did not fit the client's queue
    NwCsWarningRefused = 2   // a request was not granted; the text says which and why
};

// --- records ---

// Room for any record: what a client hands to read() on its notify socket, and a server on its request
// socket.
struct alignas(8) NwCsMsg {
    std::uint8_t kind;
    std::uint8_t version;
    std::uint8_t fields[174];
};
static_assert(sizeof(NwCsMsg) == 176 && alignof(NwCsMsg) == 8, "the room of a record is agreed");

struct NwCsAddClientRecord {
    std::uint8_t kind;
    std::uint8_t version;
    std::uint16_t flags;
    std::int32_t clientArg;  // the client's own number, -1 from the default socket; of no meaning here
    std::int32_t option;     // 32; of no meaning here
    std::int32_t pid;        // as the client says; a server asks the system
    char notifyPath[160];    // where the answer goes: absolute, ended by a zero inside the field
};
static_assert(sizeof(NwCsAddClientRecord) == 176, "on the wire");
static_assert(offsetof(NwCsAddClientRecord, flags) == 2, "on the wire");
static_assert(offsetof(NwCsAddClientRecord, clientArg) == 4, "on the wire");
static_assert(offsetof(NwCsAddClientRecord, option) == 8, "on the wire");
static_assert(offsetof(NwCsAddClientRecord, pid) == 12, "on the wire");
static_assert(offsetof(NwCsAddClientRecord, notifyPath) == 16, "on the wire");

struct NwCsFilterRecord {
    std::uint8_t kind;
    std::uint8_t version;
    std::uint8_t filterIndex;  // NwCsFilterIndex
    std::uint8_t filterOp;     // NwCsFilterOp
    std::uint32_t value;
    std::uint32_t clientId;
};
static_assert(sizeof(NwCsFilterRecord) == 12, "on the wire");
static_assert(offsetof(NwCsFilterRecord, filterIndex) == 2, "on the wire");
static_assert(offsetof(NwCsFilterRecord, filterOp) == 3, "on the wire");
static_assert(offsetof(NwCsFilterRecord, value) == 4, "on the wire");
static_assert(offsetof(NwCsFilterRecord, clientId) == 8, "on the wire");

struct NwCsMulticastReqRecord {
    std::uint8_t kind;
    std::uint8_t version;
    std::uint16_t op;  // NwCsMulticastOp
    std::uint32_t group;
    std::uint32_t clientId;
};
static_assert(sizeof(NwCsMulticastReqRecord) == 12, "on the wire");
static_assert(offsetof(NwCsMulticastReqRecord, op) == 2, "on the wire");
static_assert(offsetof(NwCsMulticastReqRecord, group) == 4, "on the wire");
static_assert(offsetof(NwCsMulticastReqRecord, clientId) == 8, "on the wire");

struct NwCsControlReqRecord {
    std::uint8_t kind;
    std::uint8_t version;
    std::uint16_t request;  // NwCsControlRequest
    std::uint32_t clientId;
};
static_assert(sizeof(NwCsControlReqRecord) == 8, "on the wire");
static_assert(offsetof(NwCsControlReqRecord, request) == 2, "on the wire");
static_assert(offsetof(NwCsControlReqRecord, clientId) == 4, "on the wire");

struct NwCsAckRecord {
    std::uint8_t kind;
    std::uint8_t version;
    std::uint8_t internal;  // not 0: internal mode
    std::uint8_t unused;
    std::int32_t clientId;
    std::int32_t shmKey;
    std::int32_t semKey;
    std::int32_t server2ClientSize;  // bytes, the second part of the segment
    std::int32_t client2ServerSize;  // bytes, the first part
};
static_assert(sizeof(NwCsAckRecord) == 24, "on the wire");
static_assert(offsetof(NwCsAckRecord, internal) == 2, "on the wire");
static_assert(offsetof(NwCsAckRecord, clientId) == 4, "on the wire");
static_assert(offsetof(NwCsAckRecord, shmKey) == 8, "on the wire");
static_assert(offsetof(NwCsAckRecord, semKey) == 12, "on the wire");
static_assert(offsetof(NwCsAckRecord, server2ClientSize) == 16, "on the wire");
static_assert(offsetof(NwCsAckRecord, client2ServerSize) == 20, "on the wire");

// A ping and a quota refusal say all they have to say with their kind.
struct NwCsPlainRecord {
    std::uint8_t kind;
    std::uint8_t version;
    std::uint16_t unused;
};
static_assert(sizeof(NwCsPlainRecord) == 4, "on the wire");

// What stands before the payload of a data message.
struct NwCsDataHeader {
    std::uint8_t kind;
    std::uint8_t version;
    std::uint16_t unused;
    std::uint32_t source;    // address the packet came from, host order
    std::uint32_t sequence;  // counts the packets for this client: a gap is packets dropped for it
    std::uint32_t length;    // bytes of payload behind this header
};
static_assert(sizeof(NwCsDataHeader) == 16, "in the queue");
static_assert(offsetof(NwCsDataHeader, source) == 4, "in the queue");
static_assert(offsetof(NwCsDataHeader, sequence) == 8, "in the queue");
static_assert(offsetof(NwCsDataHeader, length) == 12, "in the queue");

// The server as a whole. Counts start with the server.
struct NwCsStateReturnRecord {
    std::uint8_t kind;
    std::uint8_t version;
    std::uint8_t internal;
    std::uint8_t unbundling;  // what new clients start with
    std::uint32_t port;
    std::int32_t pid;
    std::uint32_t interfaceAddr;  // host order; 0: every interface
    std::uint32_t clients;        // attached now, control-only ones left out
    std::uint32_t clientLimit;
    std::uint32_t controlClients;  // attached now
    std::uint32_t controlLimit;
    std::uint32_t queueBytes;  // room of each client's queue
    std::uint32_t groups;      // multicast groups joined
    std::uint64_t upSeconds;
    std::uint64_t datagrams;       // received
    std::uint64_t packets;         // in them, as far as they were taken apart
    std::uint64_t kernelDropped;   // datagrams the system had no room for
    std::uint64_t outsideDropped;  // datagrams of other hosts, in internal mode
    char serverVersion[16];        // such as "54.0.0"; ended by a zero unless it fills the field
};
static_assert(sizeof(NwCsStateReturnRecord) == 96, "in the queue");
static_assert(offsetof(NwCsStateReturnRecord, internal) == 2, "in the queue");
static_assert(offsetof(NwCsStateReturnRecord, unbundling) == 3, "in the queue");
static_assert(offsetof(NwCsStateReturnRecord, port) == 4, "in the queue");
static_assert(offsetof(NwCsStateReturnRecord, clients) == 16, "in the queue");
static_assert(offsetof(NwCsStateReturnRecord, groups) == 36, "in the queue");
static_assert(offsetof(NwCsStateReturnRecord, upSeconds) == 40, "in the queue");
static_assert(offsetof(NwCsStateReturnRecord, outsideDropped) == 72, "in the queue");
static_assert(offsetof(NwCsStateReturnRecord, serverVersion) == 80, "in the queue");

// One filter of a client, as the server applies it.
struct NwCsFilterState {
    std::uint32_t excludes;  // 1: lets through what is not on the list; 0: what is on it
    std::uint32_t values;    // length of the list
};
static_assert(sizeof(NwCsFilterState) == 8, "in the queue");

// One client. An answer to NwCsRequestClientStates is `count` of these, `index` 0 to count - 1 in order, put
// into the queue at once; it is complete when index + 1 equals count.
struct NwCsCStateReturnRecord {
    std::uint8_t kind;
    std::uint8_t version;
    std::uint16_t flags;  // as the client sent them
    std::uint32_t index;
    std::uint32_t count;
    std::uint32_t clientId;
    std::int32_t pid;
    std::uint32_t uid;
    std::uint64_t delivered;  // packets put into its queue
    std::uint64_t filtered;   // packets that its filters kept back
    std::uint64_t dropped;    // messages that did not fit its queue
    std::uint64_t attachedSeconds;
    std::uint32_t queueBytes;      // room of its queue
    std::uint32_t queueUsedBytes;  // now
    std::uint32_t queueHighWater;  // the most that was ever in use, in bytes
    std::uint32_t groups;          // multicast groups it wishes for
    std::uint8_t unbundling;
    std::uint8_t unused[7];
    NwCsFilterState filters[NwCsFilterCount];
    char program[16];  // name of its program; ended by a zero unless it fills the field
};
static_assert(sizeof(NwCsCStateReturnRecord) == 128, "in the queue");
static_assert(offsetof(NwCsCStateReturnRecord, flags) == 2, "in the queue");
static_assert(offsetof(NwCsCStateReturnRecord, index) == 4, "in the queue");
static_assert(offsetof(NwCsCStateReturnRecord, uid) == 20, "in the queue");
static_assert(offsetof(NwCsCStateReturnRecord, delivered) == 24, "in the queue");
static_assert(offsetof(NwCsCStateReturnRecord, queueBytes) == 56, "in the queue");
static_assert(offsetof(NwCsCStateReturnRecord, unbundling) == 72, "in the queue");
static_assert(offsetof(NwCsCStateReturnRecord, filters) == 80, "in the queue");
static_assert(offsetof(NwCsCStateReturnRecord, program) == 112, "in the queue");

struct NwCsWarningRecord {
    std::uint8_t kind;
    std::uint8_t version;
    std::uint16_t code;        // NwCsWarningCode
    std::uint32_t textLength;  // bytes of text, no zero behind it
    std::uint64_t count;
    char text[160];
};
static_assert(sizeof(NwCsWarningRecord) == 176, "in the queue");
static_assert(offsetof(NwCsWarningRecord, code) == 2, "in the queue");
static_assert(offsetof(NwCsWarningRecord, textLength) == 4, "in the queue");
static_assert(offsetof(NwCsWarningRecord, count) == 8, "in the queue");
static_assert(offsetof(NwCsWarningRecord, text) == 16, "in the queue");

struct NwCsNoticeRecord {
    std::uint8_t kind;
    std::uint8_t version;
    std::uint16_t code;  // NwCsNoticeCode
};
static_assert(sizeof(NwCsNoticeRecord) == 4, "in the queue");
static_assert(offsetof(NwCsNoticeRecord, code) == 2, "in the queue");

// Bytes of a record of this kind, NwCsData's header for data; 0 for a number that is no kind.
NWUTIL_API int NwCsRecordSize(int kind);

// What is wrong with a datagram that came to a server's request socket, in a few words for a log, or null: it
// is a request of this version, just as long as its kind demands, every field in its range, the path absolute
// and ended inside its field. Whether the sender may ask for this is another question. `length` may be
// negative or anything up to what was read; only as many bytes are looked at.
NWUTIL_API const char* NwCsRequestProblem(const NwCsMsg* received, long length);

// --- classes ---

// One record, kept by value. `received` is a whole NwCsMsg, whose bytes behind the record are of no matter (a
// record that was received short should be filled up with zeros); it is copied. A message can be printed
// whatever it holds: fields are checked, and characters that could steer a terminal are shown as "?".
class NWUTIL_API NwClientServerMsg {
public:
    explicit NwClientServerMsg(const NwCsMsg* received);
    virtual ~NwClientServerMsg();

    NwClientServerMsg(const NwClientServerMsg&) = delete;
    NwClientServerMsg& operator=(const NwClientServerMsg&) = delete;

    // Sends the record on its way: the bytes sent, or negative. Here there is no way: -1, EBADF.
    virtual int send();

    // Writes what the message says for people, as one message: warnings and the end of an attachment on
    // NwWarn, everything else on NwInfo.
    virtual void print();

    int kind() const { return record.kind; }
    int version() const { return record.version; }

    // The record and its length in bytes, as they travel.
    const NwCsMsg& bytes() const { return record; }
    int size() const;

protected:
    explicit NwClientServerMsg(const NwCsMsg& made);

    NwCsMsg record;
};

// A message that travels as one datagram.
class NWUTIL_API NwSocketMsg : public NwClientServerMsg {
public:
    NwSocketMsg(int fd, const NwCsMsg* received);
    ~NwSocketMsg() override;

    // Writes the record to the descriptor as one datagram. Returns its length, or -1 with errno set (EBADF
    // for descriptor -1). It waits as the descriptor does: NwOpenUnixDgram() gives one that gives up after 5
    // s. A signal does not end the wait before that.
    int send() override;

    // Another descriptor; -1 for none: a message that outlives its descriptor must not write into the next
    // one of that number.
    void setFd(int descriptor) { fd = descriptor; }

protected:
    NwSocketMsg(int descriptor, const NwCsMsg& made);

    int fd;  // not owned
};

// A message that comes through a queue in shared memory. A reader gives a null writer.
class NWUTIL_API NwShmMsg : public NwClientServerMsg {
public:
    NwShmMsg(NwShmMsgQueueWriter* queueWriter, const NwCsMsg* received);
    ~NwShmMsg() override;

    // Puts the record into the queue. Returns its length, or -1: no writer, or the queue has no room and has
    // counted it as dropped.
    int send() override;

protected:
    NwShmMsg(NwShmMsgQueueWriter* queueWriter, const NwCsMsg& made);

    NwShmMsgQueueWriter* writer;  // not owned
};

// --- client to server; each also made from a received record, with descriptor -1, to be read ---

// Asks to become a client. A path of 160 characters or more cannot be sent: it counts as empty, and the
// server refuses that.
class NWUTIL_API NwCsAddClientMsg : public NwSocketMsg {
public:
    NwCsAddClientMsg(int descriptor, unsigned short flags, int clientArg, int option, int pid,
                     const char* notifyPath);
    NwCsAddClientMsg(int descriptor, const NwCsMsg* received);
    ~NwCsAddClientMsg() override;
    void print() override;

    unsigned short flags() const;
    int clientArg() const;
    int option() const;
    int pid() const;
    const char* notifyPath() const;  // inside this message; always ended by a zero
};

// Changes one filter of a client.
class NWUTIL_API NwCsFilterMsg : public NwSocketMsg {
public:
    NwCsFilterMsg(int descriptor, unsigned char filterIndex, unsigned char filterOp, unsigned int value,
                  unsigned int clientId);
    NwCsFilterMsg(int descriptor, const NwCsMsg* received);
    ~NwCsFilterMsg() override;
    void print() override;

    void setFilterOp(unsigned char filterOp);
    void setValue(unsigned int value);

    int filterIndex() const;
    int filterOp() const;
    unsigned int value() const;
    unsigned int clientId() const;
};

// Joins or leaves a multicast group (host order) for a client.
class NWUTIL_API NwCsMulticastReqMsg : public NwSocketMsg {
public:
    NwCsMulticastReqMsg(int descriptor, unsigned short op, unsigned int group, unsigned int clientId);
    NwCsMulticastReqMsg(int descriptor, const NwCsMsg* received);
    ~NwCsMulticastReqMsg() override;
    void print() override;

    int op() const;
    unsigned int group() const;
    unsigned int clientId() const;
};

// Asks the server to do one of ten things.
class NWUTIL_API NwCsControlReqMsg : public NwSocketMsg {
public:
    NwCsControlReqMsg(int descriptor, unsigned short request, unsigned int clientId);
    NwCsControlReqMsg(int descriptor, const NwCsMsg* received);
    ~NwCsControlReqMsg() override;
    void print() override;

    void setRequest(unsigned short request);

    int request() const;
    unsigned int clientId() const;
};

// --- server to client, notify socket ---

// The attach succeeded: who the client is now, and where its queue lies.
class NWUTIL_API NwCsAckMsg : public NwSocketMsg {
public:
    NwCsAckMsg(int descriptor, bool internal, int clientId, int shmKey, int semKey, int server2ClientSize,
               int client2ServerSize);
    NwCsAckMsg(int descriptor, const NwCsMsg* received);
    ~NwCsAckMsg() override;
    void print() override;

    int internal() const;  // the byte as it came: not 0 for internal mode
    int clientId() const;
    int shmKey() const;
    int semKey() const;
    int server2ClientSize() const;
    int client2ServerSize() const;
};

// There is no place left for this client.
class NWUTIL_API NwCsQuotaMsg : public NwSocketMsg {
public:
    explicit NwCsQuotaMsg(int descriptor);
    NwCsQuotaMsg(int descriptor, const NwCsMsg* received);
    ~NwCsQuotaMsg() override;
    void print() override;
};

// --- server to client, queue ---

class NWUTIL_API NwCsPingMsg : public NwShmMsg {
public:
    explicit NwCsPingMsg(NwShmMsgQueueWriter* queueWriter);
    ~NwCsPingMsg() override;
};

// The server's state. Made of a record whose kind and version need not be set.
class NWUTIL_API NwCsStateReturnMsg : public NwShmMsg {
public:
    NwCsStateReturnMsg(NwShmMsgQueueWriter* queueWriter, const NwCsStateReturnRecord& state);
    NwCsStateReturnMsg(NwShmMsgQueueWriter* queueWriter, const NwCsMsg* received);
    ~NwCsStateReturnMsg() override;
    void print() override;

    NwCsStateReturnRecord state() const;
};

// The state of one client, likewise.
class NWUTIL_API NwCsCStateReturnMsg : public NwShmMsg {
public:
    NwCsCStateReturnMsg(NwShmMsgQueueWriter* queueWriter, const NwCsCStateReturnRecord& state);
    NwCsCStateReturnMsg(NwShmMsgQueueWriter* queueWriter, const NwCsMsg* received);
    ~NwCsCStateReturnMsg() override;
    void print() override;

    NwCsCStateReturnRecord state() const;
};

// Something a client should know. A text longer than 160 bytes is cut; null is an empty one.
class NWUTIL_API NwCsWarningMsg : public NwShmMsg {
public:
    NwCsWarningMsg(NwShmMsgQueueWriter* queueWriter, unsigned short code, std::uint64_t count,
                   const char* text);
    NwCsWarningMsg(NwShmMsgQueueWriter* queueWriter, const NwCsMsg* received);
    ~NwCsWarningMsg() override;
    void print() override;

    int warning() const;
    std::uint64_t count() const;
    unsigned int textLength() const;  // never more than 160
    const char* text() const;         // that many bytes inside this message, and no zero behind them
};

// A change at the server. To be made locally too, to print a standard notice.
class NWUTIL_API NwCsNoticeMsg : public NwShmMsg {
public:
    NwCsNoticeMsg(NwShmMsgQueueWriter* queueWriter, unsigned short code);
    NwCsNoticeMsg(NwShmMsgQueueWriter* queueWriter, const NwCsMsg* received);
    ~NwCsNoticeMsg() override;
    void print() override;

    int notice() const;
};

#endif

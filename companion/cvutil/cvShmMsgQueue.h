// SPDX-License-Identifier: BSD-3-Clause
// A queue of messages in shared memory, from one process that writes to one that reads.
//
//     NwShmMsgQueueSegment segment;                                     // server, one per client
//     segment.create(port, slot, NwShmMsgQueueMgr::bytesFor(1 << 20), clientUid, clientGid);
//     NwShmMsgQueueWriter writer(segment.queue(), segment.capacity(), segment.semId(), 0);
//     if (!writer.write(message, length)) ...                           // no room: dropped and counted
//
//     NwShmMsgQueueReader reader(queue, capacity, semId, 0, false, false, true);   // client
//     int result;
//     int length = reader.read(buffer, capacity8, &result);
//
// Writing and reading are a copy and a few instructions, without a system call; only a reader that sleeps
// costs its waking. A queue is a stretch of memory, laid out as
//
//     0          NwShmMsgQueueHeader   what both sides need to know, by who writes it
//     512        the ring              a power of two of bytes, records one behind the other
//     capacity   NwShmMsgQueueTrailer  16 bytes: shows that the stretch is as long as both sides believe
//
// and a record as its length (4 bytes), 4 bytes of zero, the message, and what is missing to the next
// multiple of 8. A message lies in one piece: one that does not fit before the end of the ring starts at its
// beginning, and the length 0xFFFFFFFF marks the place left empty. Positions count bytes from the queue's
// birth, modulo 2^64; the place in the ring is the position modulo its size. There are no pointers in a
// queue: it may lie at another address in each process, as long as that is a multiple of 128.
//
// Neither side believes the other. What is read from the queue is copied once, checked, and then used:
// whatever the other process scribbles over a queue, nothing is read or written outside of it, and no
// operation hangs or takes longer than one walk over the ring. A queue whose numbers cannot be true is over:
// the reader then reports that the server is gone, the writer drops everything.
//
// When the reader may have to sleep, it does so on a semaphore of a System V set of two:
//
//     0  posted to wake the reader
//     1  1 while the process that made the queue lives
//
// Both are arranged so that the system itself changes them when that process ends, however it ends: a
// sleeping reader learns it at once.
//
// Threads. A reader and a writer are for one thread (or one at a time) each.
#ifndef CVUTIL_CVSHMMSGQUEUE_H
#define CVUTIL_CVSHMMSGQUEUE_H

#include <sys/ipc.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include <cvutil/cvExport.h>

// How a read ended. The values are part of the interface.
enum NwShmReadResult : int {
    NwShmReadMessage = 0,    // a message is in the buffer
    NwShmReadSkipped = 1,    // a message was longer than the buffer and is lost
    NwShmReadNothing = 2,    // nothing is there; also when a signal ended the wait
    NwShmReadDismissed = 3,  // the server is dead or has sent this client away, and the queue is empty
    NwShmReadStopped = 4     // the server has stopped in order, and the queue is empty
};

// Why a queue is over: 0 while it is not. Values other than these count as dismissed.
enum NwShmGoAway : int { NwShmStay = 0, NwShmGoAwayStopped = 2, NwShmGoAwayDismissed = 4 };

// The semaphores of a set.
enum { NwShmWakeSemaphore = 0, NwShmAliveSemaphore = 1, NwShmSemaphores = 2 };

// --- layout ---

enum : std::uint32_t { NwShmQueueLayout = 1, NwShmWrapMark = 0xFFFFFFFFu };
enum : std::uint64_t { NwShmQueueMagic = 0x3150524e54555643u };

// What `attention` is made of. The writer looks at it after each publication; 0: nobody wants anything.
enum : std::uint64_t {
    NwShmNotifyCount = 0x00000000FFFFFFFFu,  // the message count that is waited for, with NwShmNotifyArmed
    NwShmNotifyArmed = 0x0000000100000000u,  // the reader wants a datagram
    NwShmSleeping = 0x0000000200000000u      // the reader sleeps, or is about to
};

// The start of a queue. Each group has cache lines of its own, two apiece since processors fetch them in
// pairs, so that a side that writes does not slow the other down. Public for tests and for whoever looks at a
// queue; a reader or writer alone changes it.
struct alignas(128) NwShmMsgQueueHeader {
    // Constant from the making of the queue on.
    std::uint64_t magic;
    std::uint32_t layout;
    std::uint32_t ringBytes;  // a power of two
    std::uint64_t generation;
    std::atomic<std::uint32_t> goAway;    // NwShmGoAway; by the server
    std::atomic<std::uint32_t> internal;  // by the server: 1 in internal mode
    char constantFill[96];

    // By the writer. read <= written <= read + ringBytes.
    std::atomic<std::uint64_t> written;  // position behind the last record that may be read
    std::atomic<std::uint32_t> msgsWritten;
    std::atomic<std::uint32_t> highWater;  // the most bytes ever in use, to within a 64th of the ring
    std::atomic<std::uint64_t> msgsDropped;
    char writerFill[104];

    // By the reader.
    std::atomic<std::uint64_t> read;  // position behind the last record that was taken
    std::atomic<std::uint32_t> msgsRead;
    char readerFill[116];

    // By both, and seldom.
    std::atomic<std::uint64_t> attention;
    char attentionFill[120];
};
static_assert(sizeof(std::atomic<std::uint64_t>) == 8 && sizeof(std::atomic<std::uint32_t>) == 4 &&
                  ATOMIC_INT_LOCK_FREE == 2 && ATOMIC_LLONG_LOCK_FREE == 2,
              "counters are shared between processes: plain numbers, no locks");
static_assert(sizeof(NwShmMsgQueueHeader) == 512, "in shared memory");
static_assert(offsetof(NwShmMsgQueueHeader, ringBytes) == 12, "in shared memory");
static_assert(offsetof(NwShmMsgQueueHeader, generation) == 16, "in shared memory");
static_assert(offsetof(NwShmMsgQueueHeader, goAway) == 24, "in shared memory");
static_assert(offsetof(NwShmMsgQueueHeader, internal) == 28, "in shared memory");
static_assert(offsetof(NwShmMsgQueueHeader, written) == 128, "in shared memory");
static_assert(offsetof(NwShmMsgQueueHeader, msgsWritten) == 136, "in shared memory");
static_assert(offsetof(NwShmMsgQueueHeader, highWater) == 140, "in shared memory");
static_assert(offsetof(NwShmMsgQueueHeader, msgsDropped) == 144, "in shared memory");
static_assert(offsetof(NwShmMsgQueueHeader, read) == 256, "in shared memory");
static_assert(offsetof(NwShmMsgQueueHeader, msgsRead) == 264, "in shared memory");
static_assert(offsetof(NwShmMsgQueueHeader, attention) == 384, "in shared memory");

struct NwShmMsgQueueTrailer {
    std::uint64_t magic;
    std::uint64_t generation;  // the header's
};
static_assert(sizeof(NwShmMsgQueueTrailer) == 16, "in shared memory");

// Before each message in the ring.
struct NwShmRecordHeader {
    std::uint32_t length;  // of the message, or NwShmWrapMark
    std::uint32_t unused;
};
static_assert(sizeof(NwShmRecordHeader) == 8, "in shared memory");

// --- the queue as a whole ---

// What can be said, asked and wished about a queue, from either side: reader and writer have one each. It
// looks into the queue and owns nothing; the memory has to stay as long as it does.
class NWUTIL_API NwShmMsgQueueMgr {
public:
    // A queue of `capacity` bytes, its trailer behind them. If there is no queue (a null pointer, one that is
    // no multiple of 128, no header, a size that does not fit, no trailer), the manager is not sound: it
    // answers 0 or false and changes nothing.
    NwShmMsgQueueMgr(void* queue, long capacity);

    NwShmMsgQueueMgr(const NwShmMsgQueueMgr&) = delete;
    NwShmMsgQueueMgr& operator=(const NwShmMsgQueueMgr&) = delete;

    // Makes an empty queue of these bytes, trailer behind them (so `capacity` + 16 are written). The ring
    // takes the largest power of two that fits. False: less than bytesFor(1), more than a ring of 2^30 needs,
    // or a pointer that is no multiple of 128. Nobody may be using the memory. `generation` tells one queue
    // from another at the same place.
    static bool format(void* queue, long capacity, std::uint64_t generation);

    // The capacity of a queue for `wantedBytes` of records, rounded up to the next ring that there is, from
    // 64 bytes to 2^30. A record takes 8 bytes more than its message, rounded up to 8.
    static long bytesFor(unsigned long wantedBytes);

    // True if there is a queue and nothing impossible has been found in it.
    bool isSound() const { return header != nullptr && !broken; }

    // Whether this side's reads wait for a message; true at the start. A wish of the process, not of the
    // queue.
    void setBlockingRead(bool on) { blocking = on; }
    bool isBlockingRead() const { return blocking; }

    // Reader: asks for one datagram on the notify socket as soon as `threshold` messages have been written
    // since the queue was made (modulo 2^32: up to 2^31 ahead). It takes the place of a wish that is still
    // open. True: so many have been written already, the writer will not notice, and the caller has to wake
    // itself. False: the writer will say so, once. A queue that is over by then counts as reached.
    bool setNotifyReader(unsigned int threshold);

    // Server: the value that ends the queue for its reader once it is empty (set by the writer's sendAway()).
    int getGoAway() const;

    // Server: tells the reader whether packets stay on this host.
    void setInternal(bool on);
    bool isInternal() const;

    // What the queue says of itself, any time, from either side; counts are modulo 2^32 where they are
    // unsigned int. The other side can change these numbers: a server that must not be misled asks its
    // writer.
    unsigned int msgsWritten() const;
    unsigned int msgsRead() const;
    std::uint64_t msgsDropped() const;
    unsigned int usedBytes() const;       // of the ring, now
    unsigned int highWaterBytes() const;  // the most ever, to within a 64th of the ring
    unsigned int ringBytes() const { return ringSize; }

    // The longest message that always fits an empty queue: half of the ring less 8.
    unsigned int largestMessage() const { return ringSize ? ringSize / 2 - 8 : 0; }

protected:
    friend class NwShmMsgQueueReader;
    friend class NwShmMsgQueueWriter;

    NwShmMsgQueueHeader* header;  // null: no queue
    char* ring;
    unsigned int ringSize;  // read once and checked; what the header says later is of no matter
    bool blocking;
    bool broken;
};

// --- client ---

// Takes messages out of a queue.
class NWUTIL_API NwShmMsgQueueReader {
public:
    // `queue` and `capacity` as for the manager (the trailer's 16 bytes are not part of the capacity).
    // `semId` is the semaphore set; negative: there is none, reads never wait, and nothing tells of the
    // server's life. `wakeSemaphore` is the number of the one to sleep on: NwShmWakeSemaphore in the set of a
    // segment below.
    //
    // `nonBlocking`: as if setBlockingRead(false) followed. `skipBacklog`: what has been written before now
    // is not read. `clearAway`: when the server is found dead, this reader removes what it has left, the set
    // and the segment of setSegmentId(), since nobody else will. Nothing is removed that cannot be a
    // server's: without a sound queue, or a set of another size or another maker than the segment's.
    NwShmMsgQueueReader(void* queue, long capacity, int semId, int wakeSemaphore, bool nonBlocking,
                        bool skipBacklog, bool clearAway);

    // Looks for a dead server's things a last time, if they are to be cleared away.
    virtual ~NwShmMsgQueueReader();

    NwShmMsgQueueReader(const NwShmMsgQueueReader&) = delete;
    NwShmMsgQueueReader& operator=(const NwShmMsgQueueReader&) = delete;

    // Takes the next message into `buffer`, which holds `capacity8` times 8 bytes. Returns its length in
    // bytes, 1 or more, with NwShmReadMessage; else 0, with the reason in *result (which may not be null).
    // Messages come in the order written, and those that were written before the queue was over come first.
    //
    // While the queue is empty, a blocking read waits until there is a message, the queue is over, the
    // server has died, or a signal handler has run (NwShmReadNothing, so that a program can look at what
    // its handler has noted). A non-blocking one returns; it asks whether the server lives
    // once in 50 ms at most. Once a read has reported that the queue is over, all further ones do, unless
    // something is in it after all.
    virtual int read(void* buffer, int capacity8, int* result);

    NwShmMsgQueueMgr& queueMgr() { return mgr; }
    const NwShmMsgQueueMgr& queueMgr() const { return mgr; }

    // Messages taken from this queue, those skipped included, modulo 2^32.
    unsigned int msgsRcvd() const { return received; }

    // What the server says of itself now: packets stay on this host.
    bool isInternal() const { return mgr.isInternal(); }

    // The segment that holds the queue, to be removed with the set when the server has died. -1 (none) at
    // first.
    void setSegmentId(int shmId) { segment = shmId; }

    // False once the server is known to be dead. Asks the system: a system call.
    bool isServerAlive();

private:
    NWUTIL_LOCAL bool hasMessage();
    NWUTIL_LOCAL int take(void* buffer, int capacity8, int* result);
    NWUTIL_LOCAL int giveUp(int* result);
    NWUTIL_LOCAL void skipWritten();
    NWUTIL_LOCAL int over();
    NWUTIL_LOCAL bool sleepUntilWoken();
    NWUTIL_LOCAL void lookForDeath();
    NWUTIL_LOCAL void clearAway(const ipc_perm* setPermissions);
    NWUTIL_LOCAL void lookForDeathNowAndThen();

    NwShmMsgQueueMgr mgr;
    std::uint64_t position;     // where the next record is
    std::uint64_t writtenSeen;  // the writer's position as last looked at
    unsigned int received;
    int set;
    int wakeNumber;
    int segment;
    bool clearsAway;
    bool serverDead;
    int endResult;               // what every further read returns, or -1
    std::int64_t nextLifeCheck;  // ns
};

// --- server ---

// Puts messages into a queue. It goes on where the queue stands.
class NWUTIL_API NwShmMsgQueueWriter {
public:
    // As for the reader; without a set no reader is woken.
    NwShmMsgQueueWriter(void* queue, long capacity, int semId, int wakeSemaphore);
    virtual ~NwShmMsgQueueWriter();

    NwShmMsgQueueWriter(const NwShmMsgQueueWriter&) = delete;
    NwShmMsgQueueWriter& operator=(const NwShmMsgQueueWriter&) = delete;

    // Puts one message of 1 to largestMessage() bytes in and wakes a reader that sleeps. Never waits. False:
    // it is lost, because there is no room now (or never: such a length, or a queue that is not sound), and
    // counted as dropped.
    virtual bool write(const void* message, unsigned int length);

    // The same in two steps, for several messages in a row: what was put can be read after publish(). The
    // message is `head` and, unless its length is 0, `body` behind it.
    bool put(const void* head, unsigned int headLength, const void* body, unsigned int bodyLength);
    void publish();

    // True once for each wish of setNotifyReader() that has come true: one datagram is due on the client's
    // notify socket. To be asked after write(), publish() and sendAway().
    bool takeNotify();

    // Ends the queue: publishes, sets the go-away value (NwShmGoAwayStopped or NwShmGoAwayDismissed; 0 counts
    // as the latter), and wakes the reader, by whatever means it waits.
    void sendAway(int goAway);

    NwShmMsgQueueMgr& queueMgr() { return mgr; }
    const NwShmMsgQueueMgr& queueMgr() const { return mgr; }

    // The server's own numbers, which no client can change: messages put in (modulo 2^32) and dropped, and
    // the most bytes of the ring that were ever in use, to within a 64th of it.
    unsigned int msgsSent() const { return messages; }
    std::uint64_t dropped() const { return droppedCount; }
    unsigned int highWaterBytes() const { return highWater; }

private:
    NWUTIL_LOCAL bool lookWhatWasRead();
    NWUTIL_LOCAL bool hasRoom(unsigned int need);
    NWUTIL_LOCAL bool drop();
    NWUTIL_LOCAL void noteUse(unsigned int slackBytes);
    NWUTIL_LOCAL void attendWishes(bool isOver);
    NWUTIL_LOCAL void wakeSleeper();
    NWUTIL_LOCAL void takeWish(std::uint64_t wishes, bool isOver);

    NwShmMsgQueueMgr mgr;
    std::uint64_t position;  // behind the last record that was put
    std::uint64_t readSeen;  // the reader's position as last looked at
    unsigned int messages;   // published or not
    std::uint64_t droppedCount;
    unsigned int highWater;
    int set;
    int wakeNumber;
    bool notifyDue;
};

// A segment with one queue in it and the semaphore set that goes with it, made and removed by the server.
//
//     0                  the client-to-server area, client2ServerSize() bytes that nobody writes
//     client2ServerSize  the queue, server2ClientSize() bytes, trailer included
//
// Both are for their owner and their maker alone (mode 0600). The keys follow from port and slot, so that a
// server finds what a killed one has left.
class NWUTIL_API NwShmMsgQueueSegment {
public:
    enum { slotLimit = 4096 };

    NwShmMsgQueueSegment();
    ~NwShmMsgQueueSegment();  // remove()

    NwShmMsgQueueSegment(const NwShmMsgQueueSegment&) = delete;
    NwShmMsgQueueSegment& operator=(const NwShmMsgQueueSegment&) = delete;

    // Makes segment, queue (`capacity` bytes, see bytesFor()) and set for the user that the client runs as.
    // The calling process is the server whose end the client will notice. What a dead server has left under
    // these keys is removed. False, errno set, and nothing remains: EEXIST if a server that lives, another
    // user, or something that is no queue has the keys (try the next slot),
    // EINVAL for a port outside 0 to 65535, a slot outside 0 to slotLimit - 1, a capacity that is none, or an
    // object that holds a queue already; else what the system said.
    bool create(int port, int slot, long capacity, uid_t clientUid, gid_t clientGid);

    // Lets go: marks the segment for removal, detaches it, removes the set. A client that is attached keeps
    // its memory, and what is queued in it. Nothing happens without a queue.
    void remove();

    // Marks the segment for removal as soon as nobody is attached: to be called when the client is, so that
    // nothing is left even if server and client are killed. Its key is free from then on.
    void markForRemoval();

    // How many times the segment is attached elsewhere, or -1 if the system does not tell.
    int attachments() const;

    bool isMade() const { return base != nullptr; }
    void* queue() const;  // null without one
    long capacity() const { return queueCapacity; }
    int shmId() const { return shm; }
    int semId() const { return sem; }
    int shmKey() const { return shmKeyUsed; }
    int semKey() const { return semKeyUsed; }
    int client2ServerSize() const;
    int server2ClientSize() const;

    // The keys, never 0.
    static int shmKeyOf(int port, int slot);
    static int semKeyOf(int port, int slot);

    // Removes what dead servers of this port have left in slots 0 to slots - 1, and returns how many segments
    // and sets that were. What belongs to living servers or to other users stays.
    static int removeLeftovers(int port, int slots);

private:
    NWUTIL_LOCAL bool makeSet(int key);
    NWUTIL_LOCAL bool makeSegment(int key, long bytes);
    NWUTIL_LOCAL bool giveTo(uid_t uid, gid_t gid);

    char* base;  // where the segment is attached; null: nothing is made
    long queueCapacity;
    int shm;
    int sem;
    int shmKeyUsed;
    int semKeyUsed;
};

#endif

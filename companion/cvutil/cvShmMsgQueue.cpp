// SPDX-License-Identifier: BSD-3-Clause
// A ring in shared memory between two processes that need not trust each other.
//
// Why nothing is torn or lost. Both sides run at once, and what orders them is this.
//
//  1. Records. The writer copies a record into the ring, then stores `written` with release; the reader loads
//     `written` with acquire before it looks at a record. So a record that the reader looks at is whole.
//
//  2. Room. The reader copies a record out, then stores `read` with release; the writer loads `read` with
//     acquire before it uses the room. So no record is overwritten while it is being copied.
//
//  3. Waking. A reader that finds nothing says so in `attention` and looks once more before it sleeps; the
//     writer publishes and then looks at `attention`. Stores and loads of different variables would not do:
//     both could miss the other's. So each side changes `attention` in one indivisible step that acquires and
//     releases (the writer adds 0; that is also the full fence that this takes on the processor), and the
//     steps on one variable have one order:
//       - the reader's comes first: the writer's reads it, sees the wish, and posts;
//       - the writer's comes first: the reader's reads it, or what later steps have made of it, so everything
//         that the writer did before is visible to the reader, which finds the message when it looks once
//         more.
//     The same holds for the wish to be notified, and for the go-away value in place of a message.
//
//  4. A wake-up that nobody needs (the reader found the message while the post was under way) stays in the
//     semaphore and ends the next sleep early: a reader looks again after each sleep, whatever has ended it.
#include <cvutil/cvShmMsgQueue.h>

#include <errno.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace {

const unsigned int kAlignment = 8;               // of a record
const std::uintptr_t kQueueAlignment = 128;      // of a queue, so that its cache lines are lines
const unsigned int kSmallestRing = 64;           // a message of 24 bytes
const unsigned int kLargestRing = 1u << 30;      // sizes of a segment travel as 32-bit signed numbers
const unsigned int kHighWaterSteps = 64;         // see noteUse()
const int kWishAttempts = 16;                    // a reader that is no foe makes one or two necessary
const int kClient2ServerSize = kQueueAlignment;  // nobody writes there; the queue behind it stays aligned

// A sleep is cut up, so that even a set in foreign hands cannot keep a reader from looking at the queue.
const timespec kLongestSleep = {1, 0};
const timespec kPollInterval = {0, 10 * 1000 * 1000};  // where there is no way to sleep

// How often a reader that polls asks the system whether the server lives: the question is a system call.
const std::int64_t kLifeCheckNanoseconds = 50 * 1000 * 1000;

std::int64_t coarseNanoseconds() {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec * std::int64_t(1000000000) + now.tv_nsec;
}

unsigned int roundedUp(unsigned int length) {
    return (length + kAlignment - 1) & ~(kAlignment - 1);
}

// What a record takes of the ring. The length is one that was checked.
unsigned int recordBytes(unsigned int length) {
    return static_cast<unsigned int>(sizeof(NwShmRecordHeader)) + roundedUp(length);
}

bool isPowerOfTwo(unsigned int value) {
    return value != 0 && (value & (value - 1)) == 0;
}

bool isAligned(const void* queue) {
    return reinterpret_cast<std::uintptr_t>(queue) % kQueueAlignment == 0;
}

// The header of a record, in one access: the other side may be changing it, and what was checked has to be
// what is used.
NwShmRecordHeader loadRecordHeader(const char* place) {
    const std::uint64_t word =
        __atomic_load_n(reinterpret_cast<const std::uint64_t*>(place), __ATOMIC_RELAXED);
    NwShmRecordHeader header;
    std::memcpy(&header, &word, sizeof header);
    return header;
}

void storeRecordHeader(char* place, std::uint32_t length) {
    const NwShmRecordHeader header = {length, 0};
    std::uint64_t word;
    std::memcpy(&word, &header, sizeof word);
    __atomic_store_n(reinterpret_cast<std::uint64_t*>(place), word, __ATOMIC_RELAXED);
}

// True if a counter that only grows, modulo 2^32, has come to `threshold`.
bool hasReached(std::uint32_t count, std::uint32_t threshold) {
    return static_cast<std::int32_t>(count - threshold) >= 0;
}

bool isOurs(const ipc_perm& permissions) {
    return permissions.cuid == ::geteuid();
}

// semctl() takes this by value, and no header declares it.
union SemaphoreArgument {
    int value;
    semid_ds* status;
    unsigned short* values;
};

bool statusOf(int set, semid_ds* status) {
    SemaphoreArgument argument;
    argument.status = status;
    return ::semctl(set, 0, IPC_STAT, argument) == 0;
}

}  // namespace

// --- the queue as a whole ---

NwShmMsgQueueMgr::NwShmMsgQueueMgr(void* queue, long capacity)
    : header(nullptr), ring(nullptr), ringSize(0), blocking(true), broken(false) {
    const long headerBytes = sizeof(NwShmMsgQueueHeader);
    if (!queue || !isAligned(queue) || capacity < headerBytes + static_cast<long>(kSmallestRing)) return;
    NwShmMsgQueueHeader* const there = static_cast<NwShmMsgQueueHeader*>(queue);
    const std::uint32_t bytes = __atomic_load_n(&there->ringBytes, __ATOMIC_RELAXED);
    if (there->magic != NwShmQueueMagic || there->layout != NwShmQueueLayout) return;
    if (!isPowerOfTwo(bytes) || bytes < kSmallestRing || bytes > kLargestRing) return;
    if (static_cast<long>(bytes) > capacity - headerBytes) return;
    NwShmMsgQueueTrailer trailer;
    std::memcpy(&trailer, static_cast<const char*>(queue) + capacity, sizeof trailer);
    if (trailer.magic != NwShmQueueMagic || trailer.generation != there->generation) return;
    header = there;
    ring = static_cast<char*>(queue) + headerBytes;
    ringSize = bytes;
}

bool NwShmMsgQueueMgr::format(void* queue, long capacity, std::uint64_t generation) {
    const long headerBytes = sizeof(NwShmMsgQueueHeader);
    const long room = capacity - headerBytes;
    if (!queue || !isAligned(queue) || capacity < headerBytes || room < static_cast<long>(kSmallestRing) ||
        room > static_cast<long>(kLargestRing))
        return false;
    unsigned int ringBytes = kSmallestRing;
    while (static_cast<long>(ringBytes) * 2 <= room) ringBytes *= 2;
    NwShmMsgQueueHeader* const made = new (queue) NwShmMsgQueueHeader();
    made->magic = NwShmQueueMagic;
    made->layout = NwShmQueueLayout;
    made->ringBytes = ringBytes;
    made->generation = generation;
    const NwShmMsgQueueTrailer trailer = {NwShmQueueMagic, generation};
    std::memcpy(static_cast<char*>(queue) + capacity, &trailer, sizeof trailer);
    return true;
}

long NwShmMsgQueueMgr::bytesFor(unsigned long wantedBytes) {
    unsigned long ringBytes = kSmallestRing;
    while (ringBytes < wantedBytes && ringBytes < kLargestRing) ringBytes *= 2;
    return static_cast<long>(sizeof(NwShmMsgQueueHeader) + ringBytes);
}

bool NwShmMsgQueueMgr::setNotifyReader(unsigned int threshold) {
    if (!isSound()) return true;
    std::uint64_t wish = NwShmNotifyArmed | threshold;
    // Point 3 at the top of this file. The reader does not sleep now, so there is no other wish to keep.
    header->attention.exchange(wish, std::memory_order_acq_rel);
    if (!hasReached(msgsWritten(), threshold) && getGoAway() == NwShmStay) return false;
    // If the wish is gone, the writer has taken it and notifies.
    return header->attention.compare_exchange_strong(wish, 0, std::memory_order_acq_rel);
}

int NwShmMsgQueueMgr::getGoAway() const {
    return header ? static_cast<int>(header->goAway.load(std::memory_order_acquire)) : NwShmStay;
}

void NwShmMsgQueueMgr::setInternal(bool on) {
    if (header) header->internal.store(on, std::memory_order_relaxed);
}

bool NwShmMsgQueueMgr::isInternal() const {
    return header && header->internal.load(std::memory_order_relaxed) != 0;
}

unsigned int NwShmMsgQueueMgr::msgsWritten() const {
    return header ? header->msgsWritten.load(std::memory_order_relaxed) : 0;
}

unsigned int NwShmMsgQueueMgr::msgsRead() const {
    return header ? header->msgsRead.load(std::memory_order_relaxed) : 0;
}

std::uint64_t NwShmMsgQueueMgr::msgsDropped() const {
    return header ? header->msgsDropped.load(std::memory_order_relaxed) : 0;
}

unsigned int NwShmMsgQueueMgr::usedBytes() const {
    if (!header) return 0;
    // Read before written: the other way round the reader could overtake the number we have.
    const std::uint64_t taken = header->read.load(std::memory_order_acquire);
    const std::uint64_t used = header->written.load(std::memory_order_acquire) - taken;
    return static_cast<unsigned int>(std::min<std::uint64_t>(used, ringSize));
}

unsigned int NwShmMsgQueueMgr::highWaterBytes() const {
    return header ? header->highWater.load(std::memory_order_relaxed) : 0;
}

// --- client ---

NwShmMsgQueueReader::NwShmMsgQueueReader(void* queue, long capacity, int semId, int wakeSemaphore,
                                         bool nonBlocking, bool skipBacklog, bool clearAway)
    : mgr(queue, capacity),
      position(0),
      writtenSeen(0),
      received(0),
      set(semId),
      wakeNumber(wakeSemaphore),
      segment(-1),
      clearsAway(clearAway),
      serverDead(false),
      endResult(-1),
      nextLifeCheck(0) {
    mgr.setBlockingRead(!nonBlocking);
    if (!mgr.header) return;
    position = writtenSeen = mgr.header->read.load(std::memory_order_relaxed);
    received = mgr.header->msgsRead.load(std::memory_order_relaxed);
    mgr.broken = position % kAlignment != 0;
    if (skipBacklog) skipWritten();
}

NwShmMsgQueueReader::~NwShmMsgQueueReader() {
    if (clearsAway && !serverDead) lookForDeath();
}

int NwShmMsgQueueReader::read(void* buffer, int capacity8, int* result) {
    bool isInterrupted = false;
    for (;;) {
        if (hasMessage()) return take(buffer, capacity8, result);
        if (endResult < 0) endResult = over();
        if (endResult >= 0) {
            // What was written before the end may have arrived after the first look.
            if (hasMessage()) return take(buffer, capacity8, result);
            *result = endResult;
            return 0;
        }
        if (isInterrupted || !mgr.blocking || set < 0) break;
        isInterrupted = !sleepUntilWoken();
    }
    *result = NwShmReadNothing;
    return 0;
}

bool NwShmMsgQueueReader::isServerAlive() {
    if (!serverDead) lookForDeath();
    return !serverDead;
}

// True: the record at `position` lies inside what has been written.
bool NwShmMsgQueueReader::hasMessage() {
    if (!mgr.isSound()) return false;
    if (writtenSeen != position) return true;
    const std::uint64_t seen = mgr.header->written.load(std::memory_order_acquire);
    const std::uint64_t available = seen - position;
    if (available > mgr.ringSize || available % kAlignment != 0) {
        mgr.broken = true;
        return false;
    }
    writtenSeen = seen;
    return available != 0;
}

int NwShmMsgQueueReader::take(void* buffer, int capacity8, int* result) {
    std::uint64_t available = writtenSeen - position;
    unsigned int place = static_cast<unsigned int>(position) & (mgr.ringSize - 1);
    NwShmRecordHeader head = loadRecordHeader(mgr.ring + place);
    if (head.length == NwShmWrapMark) {
        const unsigned int rest = mgr.ringSize - place;
        if (rest >= available) return giveUp(result);  // a mark stands only before a record
        position += rest;
        available -= rest;
        place = 0;
        head = loadRecordHeader(mgr.ring);
    }
    if (head.length == 0 || head.length > mgr.largestMessage()) return giveUp(result);
    const unsigned int bytes = recordBytes(head.length);
    if (bytes > available || bytes > mgr.ringSize - place) return giveUp(result);

    const std::uint64_t room = capacity8 > 0 ? static_cast<std::uint64_t>(capacity8) * 8 : 0;
    const bool fits = head.length <= room;
    if (fits) std::memcpy(buffer, mgr.ring + place + sizeof head, head.length);
    position += bytes;
    ++received;
    mgr.header->msgsRead.store(received, std::memory_order_relaxed);
    mgr.header->read.store(position, std::memory_order_release);
    *result = fits ? NwShmReadMessage : NwShmReadSkipped;
    return fits ? static_cast<int>(head.length) : 0;
}

// The ring holds what no writer of ours puts there, and where the next record is cannot be known.
int NwShmMsgQueueReader::giveUp(int* result) {
    mgr.broken = true;
    *result = endResult = NwShmReadDismissed;
    return 0;
}

void NwShmMsgQueueReader::skipWritten() {
    int result;
    if (!hasMessage()) return;
    while (mgr.isSound() && position != writtenSeen) take(nullptr, 0, &result);
}

// The result with which the queue is over, -1 if it is not. Messages may still be in it.
int NwShmMsgQueueReader::over() {
    if (!mgr.isSound()) return NwShmReadDismissed;
    const int goAway = mgr.getGoAway();
    if (goAway != NwShmStay) return goAway == NwShmGoAwayStopped ? NwShmReadStopped : NwShmReadDismissed;
    if (!mgr.blocking) lookForDeathNowAndThen();
    return serverDead ? NwShmReadDismissed : -1;
}

// False: a signal has ended the sleep.
bool NwShmMsgQueueReader::sleepUntilWoken() {
    std::atomic<std::uint64_t>& attention = mgr.header->attention;
    attention.fetch_or(NwShmSleeping, std::memory_order_acq_rel);
    const bool sleeps = !hasMessage() && mgr.isSound() && mgr.getGoAway() == NwShmStay;
    int error = 0;
    if (sleeps) {
        sembuf take = {static_cast<unsigned short>(wakeNumber), -1, 0};
        if (::semtimedop(set, &take, 1, &kLongestSleep) != 0) error = errno;
    }
    const std::uint64_t wishes =
        attention.fetch_and(~std::uint64_t(NwShmSleeping), std::memory_order_acq_rel);
    const bool wokenByWriter = !(wishes & NwShmSleeping);
    if (!sleeps || wokenByWriter) return error != EINTR;
    switch (error) {
        case EINTR:
            return false;
        case 0:  // by a wake-up from before, or by the system because the server has ended
        case EAGAIN:
        case EIDRM:
        case EINVAL:
            lookForDeath();
            return true;
        default:
            return ::nanosleep(&kPollInterval, nullptr) == 0;
    }
}

// Only of a queue and a set of our making: a number that somebody has sent may name anything.
void NwShmMsgQueueReader::lookForDeath() {
    if (set < 0 || !mgr.header) return;
    const int life = ::semctl(set, NwShmAliveSemaphore, GETVAL);
    const bool isSetGone = life < 0 && (errno == EIDRM || errno == EINVAL);
    semid_ds status;
    if (!isSetGone && (life != 0 || !statusOf(set, &status) || status.sem_nsems != NwShmSemaphores)) return;
    serverDead = true;
    if (clearsAway) clearAway(isSetGone ? nullptr : &status.sem_perm);
}

// The dead server's segment, and its set unless that has gone. A set of another maker is not the server's.
void NwShmMsgQueueReader::clearAway(const ipc_perm* setPermissions) {
    shmid_ds status;
    if (segment >= 0) {
        if (::shmctl(segment, IPC_STAT, &status) != 0) return;
        if (setPermissions && setPermissions->cuid != status.shm_perm.cuid) return;
        ::shmctl(segment, IPC_RMID, nullptr);
    }
    if (setPermissions) ::semctl(set, 0, IPC_RMID);
}

void NwShmMsgQueueReader::lookForDeathNowAndThen() {
    if (set < 0 || serverDead) return;
    const std::int64_t now = coarseNanoseconds();
    if (now < nextLifeCheck) return;
    nextLifeCheck = now + kLifeCheckNanoseconds;
    lookForDeath();
}

// --- server ---

NwShmMsgQueueWriter::NwShmMsgQueueWriter(void* queue, long capacity, int semId, int wakeSemaphore)
    : mgr(queue, capacity),
      position(0),
      readSeen(0),
      messages(0),
      droppedCount(0),
      highWater(0),
      set(semId),
      wakeNumber(wakeSemaphore),
      notifyDue(false) {
    if (!mgr.header) return;
    position = mgr.header->written.load(std::memory_order_relaxed);
    messages = mgr.header->msgsWritten.load(std::memory_order_relaxed);
    droppedCount = mgr.header->msgsDropped.load(std::memory_order_relaxed);
    highWater = mgr.header->highWater.load(std::memory_order_relaxed);
    readSeen = position - mgr.ringSize;  // the most that can be unread: nothing is believed yet
    mgr.broken = position % kAlignment != 0;
    if (!mgr.broken) lookWhatWasRead();
}

NwShmMsgQueueWriter::~NwShmMsgQueueWriter() = default;

bool NwShmMsgQueueWriter::write(const void* message, unsigned int length) {
    const bool isIn = put(message, length, nullptr, 0);
    if (isIn) publish();
    return isIn;
}

bool NwShmMsgQueueWriter::put(const void* head, unsigned int headLength, const void* body,
                              unsigned int bodyLength) {
    const unsigned int most = mgr.largestMessage();
    if (headLength > most || bodyLength > most - headLength) return drop();
    const unsigned int length = headLength + bodyLength;
    if (length == 0) return drop();
    const unsigned int bytes = recordBytes(length);
    unsigned int place = static_cast<unsigned int>(position) & (mgr.ringSize - 1);
    const unsigned int rest = mgr.ringSize - place;
    const unsigned int leftEmpty = rest < bytes ? rest : 0;
    if (!hasRoom(leftEmpty + bytes)) return drop();
    if (leftEmpty) {
        storeRecordHeader(mgr.ring + place, NwShmWrapMark);
        place = 0;
    }
    storeRecordHeader(mgr.ring + place, length);
    char* const target = mgr.ring + place + sizeof(NwShmRecordHeader);
    if (headLength) std::memcpy(target, head, headLength);
    if (bodyLength) std::memcpy(target + headLength, body, bodyLength);
    position += leftEmpty + bytes;
    ++messages;
    noteUse(mgr.ringSize / kHighWaterSteps);
    return true;
}

void NwShmMsgQueueWriter::publish() {
    if (!mgr.header) return;
    mgr.header->msgsWritten.store(messages, std::memory_order_relaxed);
    mgr.header->written.store(position, std::memory_order_release);
    attendWishes(false);
}

bool NwShmMsgQueueWriter::takeNotify() {
    const bool wasDue = notifyDue;
    notifyDue = false;
    return wasDue;
}

void NwShmMsgQueueWriter::sendAway(int goAway) {
    if (!mgr.header) return;
    publish();
    const int value = goAway == NwShmStay ? static_cast<int>(NwShmGoAwayDismissed) : goAway;
    mgr.header->goAway.store(static_cast<std::uint32_t>(value), std::memory_order_release);
    attendWishes(true);
}

// False: the reader claims to have read what was never written, or takes back what it has read. From then on
// this queue is nothing but a place where its client's messages are dropped.
bool NwShmMsgQueueWriter::lookWhatWasRead() {
    const std::uint64_t seen = mgr.header->read.load(std::memory_order_acquire);
    if (position - seen > position - readSeen) {
        mgr.broken = true;
        return false;
    }
    readSeen = seen;
    return true;
}

// The reader's position is looked at only when the one that is known leaves no room: its cache line is left
// to the reader for as long as a whole ring takes.
bool NwShmMsgQueueWriter::hasRoom(unsigned int need) {
    if (mgr.broken) return false;
    if (need <= mgr.ringSize - (position - readSeen)) return true;
    return lookWhatWasRead() && need <= mgr.ringSize - (position - readSeen);
}

bool NwShmMsgQueueWriter::drop() {
    ++droppedCount;
    if (!mgr.header) return false;
    mgr.header->msgsDropped.store(droppedCount, std::memory_order_relaxed);
    if (!mgr.broken) noteUse(0);
    return false;
}

// Keeps the high-water mark. How much is in use is not known without the reader's cache line, only how much
// it can be at most; so the reader is asked only when that is more than the mark by the slack given.
void NwShmMsgQueueWriter::noteUse(unsigned int slackBytes) {
    if (position - readSeen <= std::uint64_t(highWater) + slackBytes) return;
    if (!lookWhatWasRead() || position - readSeen <= highWater) return;
    highWater = static_cast<unsigned int>(position - readSeen);
    mgr.header->highWater.store(highWater, std::memory_order_relaxed);
}

// Point 3 at the top of this file.
void NwShmMsgQueueWriter::attendWishes(bool isOver) {
    const std::uint64_t wishes = mgr.header->attention.fetch_add(0, std::memory_order_acq_rel);
    if (wishes & NwShmSleeping) wakeSleeper();
    if (wishes & NwShmNotifyArmed) takeWish(wishes, isOver);
}

void NwShmMsgQueueWriter::wakeSleeper() {
    const std::uint64_t wishes =
        mgr.header->attention.fetch_and(~std::uint64_t(NwShmSleeping), std::memory_order_acq_rel);
    if (!(wishes & NwShmSleeping) || set < 0) return;
    // A semaphore that cannot count higher is up anyway, and a set that is gone wakes whoever slept there.
    sembuf post = {static_cast<unsigned short>(wakeNumber), 1, IPC_NOWAIT};
    ::semop(set, &post, 1);
}

void NwShmMsgQueueWriter::takeWish(std::uint64_t wishes, bool isOver) {
    // The reader may go to sleep, wake up or make another wish meanwhile; that takes another attempt. Whoever
    // changes the word without end gets a datagram too many.
    for (int attempt = 0; attempt < kWishAttempts; ++attempt) {
        if (!(wishes & NwShmNotifyArmed)) return;
        if (!isOver && !hasReached(messages, static_cast<std::uint32_t>(wishes & NwShmNotifyCount))) return;
        if (mgr.header->attention.compare_exchange_strong(wishes, wishes & NwShmSleeping,
                                                          std::memory_order_acq_rel))
            break;
    }
    notifyDue = true;
}

// --- segment ---

namespace {

const int kKeySlotBits = 12;
const int kShmKeyBase = 0x50000000;  // the two differ so that a message that names a key names one thing
const int kSemKeyBase = 0x60000000;

static_assert(1 << kKeySlotBits == NwShmMsgQueueSegment::slotLimit, "a slot fits its bits");

bool isKeyed(int port, int slot) {
    return port >= 0 && port <= 65535 && slot >= 0 && slot < NwShmMsgQueueSegment::slotLimit;
}

std::uint64_t newGeneration() {
    timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    const std::uint64_t nanoseconds =
        static_cast<std::uint64_t>(now.tv_sec) * 1000000000u + static_cast<std::uint64_t>(now.tv_nsec);
    return nanoseconds ^ static_cast<std::uint64_t>(::getpid()) << 40;
}

enum class Leftover { none, removed, inUse };

// A set that has just been made and not been given its life yet belongs to a server that is starting; one
// that stays like that, to a server that was killed at this very moment.
bool isBeingMade(const semid_ds& status) {
    const time_t longestMaking = 5;
    return status.sem_otime == 0 && ::time(nullptr) - status.sem_ctime < longestMaking;
}

// A set of ours whose maker has ended: the system has counted its life down to 0.
Leftover removeDeadSet(int key) {
    const int id = ::semget(key, 0, 0);
    if (id < 0) return errno == ENOENT ? Leftover::none : Leftover::inUse;
    semid_ds status;
    if (!statusOf(id, &status) || !isOurs(status.sem_perm) || status.sem_nsems != NwShmSemaphores ||
        isBeingMade(status) || ::semctl(id, NwShmAliveSemaphore, GETVAL) != 0)
        return Leftover::inUse;
    return ::semctl(id, 0, IPC_RMID) == 0 ? Leftover::removed : Leftover::inUse;
}

// Whether a segment holds a queue, or was left before it could: somebody else's may have the same key.
bool holdsAQueue(int id, const shmid_ds& status) {
    const std::size_t least = kClient2ServerSize + sizeof(NwShmMsgQueueHeader);
    if (status.shm_segsz < least) return false;
    void* const place = ::shmat(id, nullptr, SHM_RDONLY);
    if (place == reinterpret_cast<void*>(-1)) return false;
    std::uint64_t magic;
    std::memcpy(&magic, static_cast<char*>(place) + kClient2ServerSize, sizeof magic);
    ::shmdt(place);
    return magic == NwShmQueueMagic || (magic == 0 && status.shm_nattch == 0);
}

// To be called where no living server has a set for this port and slot. Somebody who is still attached keeps
// the memory.
Leftover removeDeadSegment(int key) {
    const int id = ::shmget(key, 0, 0);
    if (id < 0) return errno == ENOENT ? Leftover::none : Leftover::inUse;
    shmid_ds status;
    if (::shmctl(id, IPC_STAT, &status) != 0 || !isOurs(status.shm_perm) || !holdsAQueue(id, status))
        return Leftover::inUse;
    return ::shmctl(id, IPC_RMID, nullptr) == 0 ? Leftover::removed : Leftover::inUse;
}

// Makes something under a key, after having removed what a dead server has left there.
template <class Make, class Remove>
int makeExclusively(const Make& make, const Remove& removeDead) {
    const int id = make();
    if (id >= 0 || errno != EEXIST) return id;
    if (removeDead() != Leftover::inUse) return make();
    errno = EEXIST;
    return -1;
}

}  // namespace

NwShmMsgQueueSegment::NwShmMsgQueueSegment()
    : base(nullptr), queueCapacity(0), shm(-1), sem(-1), shmKeyUsed(0), semKeyUsed(0) {}

NwShmMsgQueueSegment::~NwShmMsgQueueSegment() {
    remove();
}

bool NwShmMsgQueueSegment::create(int port, int slot, long capacity, uid_t clientUid, gid_t clientGid) {
    const long most = NwShmMsgQueueMgr::bytesFor(kLargestRing);
    if (isMade() || !isKeyed(port, slot) || capacity < NwShmMsgQueueMgr::bytesFor(1) || capacity > most) {
        errno = EINVAL;
        return false;
    }
    shmKeyUsed = shmKeyOf(port, slot);
    semKeyUsed = semKeyOf(port, slot);
    queueCapacity = capacity;
    const long bytes = kClient2ServerSize + capacity + static_cast<long>(sizeof(NwShmMsgQueueTrailer));
    if (makeSet(semKeyUsed) && makeSegment(shmKeyUsed, bytes) &&
        NwShmMsgQueueMgr::format(queue(), capacity, newGeneration()) && giveTo(clientUid, clientGid))
        return true;
    const int error = errno;
    remove();
    errno = error;
    return false;
}

// The set comes first: that it could be made shows that no living server has this port and slot.
bool NwShmMsgQueueSegment::makeSet(int key) {
    sem = makeExclusively([key] { return ::semget(key, NwShmSemaphores, IPC_CREAT | IPC_EXCL | 0600); },
                          [key] { return removeDeadSet(key); });
    if (sem < 0) return false;
    // All at once: while this process lives the first semaphore is 0 and the second 1. When it ends, in
    // whatever way, the system takes back the two steps marked for that: the first wakes whoever sleeps
    // there, the second shows why.
    sembuf live[] = {{NwShmWakeSemaphore, 1, IPC_NOWAIT},
                     {NwShmWakeSemaphore, -1, IPC_NOWAIT | SEM_UNDO},
                     {NwShmAliveSemaphore, 1, IPC_NOWAIT | SEM_UNDO}};
    return ::semop(sem, live, sizeof live / sizeof live[0]) == 0;
}

bool NwShmMsgQueueSegment::makeSegment(int key, long bytes) {
    const std::size_t size = static_cast<std::size_t>(bytes);
    shm = makeExclusively([key, size] { return ::shmget(key, size, IPC_CREAT | IPC_EXCL | 0600); },
                          [key] { return removeDeadSegment(key); });
    if (shm < 0) return false;
    void* const place = ::shmat(shm, nullptr, 0);
    if (place == reinterpret_cast<void*>(-1)) return false;
    base = static_cast<char*>(place);
    return true;
}

// Maker and owner both have access, so the server keeps its own.
bool NwShmMsgQueueSegment::giveTo(uid_t uid, gid_t gid) {
    shmid_ds segmentStatus;
    if (::shmctl(shm, IPC_STAT, &segmentStatus) != 0) return false;
    segmentStatus.shm_perm.uid = uid;
    segmentStatus.shm_perm.gid = gid;
    semid_ds setStatus;
    if (!statusOf(sem, &setStatus)) return false;
    SemaphoreArgument argument;
    argument.status = &setStatus;
    setStatus.sem_perm.uid = uid;
    setStatus.sem_perm.gid = gid;
    return ::shmctl(shm, IPC_SET, &segmentStatus) == 0 && ::semctl(sem, 0, IPC_SET, argument) == 0;
}

void NwShmMsgQueueSegment::remove() {
    markForRemoval();
    if (base) ::shmdt(base);
    if (sem >= 0) ::semctl(sem, 0, IPC_RMID);
    base = nullptr;
    queueCapacity = 0;
    shm = sem = -1;
    shmKeyUsed = semKeyUsed = 0;
}

void NwShmMsgQueueSegment::markForRemoval() {
    if (shm >= 0) ::shmctl(shm, IPC_RMID, nullptr);
}

int NwShmMsgQueueSegment::attachments() const {
    shmid_ds status;
    if (shm < 0 || ::shmctl(shm, IPC_STAT, &status) != 0) return -1;
    return static_cast<int>(status.shm_nattch) - 1;
}

void* NwShmMsgQueueSegment::queue() const {
    return base ? base + kClient2ServerSize : nullptr;
}

int NwShmMsgQueueSegment::client2ServerSize() const {
    return base ? kClient2ServerSize : 0;
}

int NwShmMsgQueueSegment::server2ClientSize() const {
    return base ? static_cast<int>(queueCapacity + static_cast<long>(sizeof(NwShmMsgQueueTrailer))) : 0;
}

int NwShmMsgQueueSegment::shmKeyOf(int port, int slot) {
    return kShmKeyBase | port << kKeySlotBits | slot;
}

int NwShmMsgQueueSegment::semKeyOf(int port, int slot) {
    return kSemKeyBase | port << kKeySlotBits | slot;
}

int NwShmMsgQueueSegment::removeLeftovers(int port, int slots) {
    int removed = 0;
    for (int slot = 0; slot < slots && isKeyed(port, slot); ++slot) {
        const Leftover set = removeDeadSet(semKeyOf(port, slot));
        if (set == Leftover::inUse) continue;
        removed += set == Leftover::removed;
        removed += removeDeadSegment(shmKeyOf(port, slot)) == Leftover::removed;
    }
    return removed;
}

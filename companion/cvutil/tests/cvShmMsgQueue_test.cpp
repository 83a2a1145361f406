// SPDX-License-Identifier: BSD-3-Clause
// The shared-memory queue: positions set by hand where the trouble is, two sides at work at once, and what a
// foe on the other side can do.
//
// CVUTIL_QUEUE_MESSAGES=10000000 in the environment is the long form of the test with two processes.
#include <cvutil/cvShmMsgQueue.h>

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "childProcess.h"
#include "ownNamespaces.h"
#include "sanitizers.h"

namespace {

// While set, a sleep that nobody ends does not end: the reader's time limit would hide a wake-up that is
// lost.
std::atomic<bool> theSleepsAreEndless{false};

// Called once, before the next question about a semaphore is put: what happens just then.
std::function<void()> theInterlude;
std::atomic<bool> theInterludeIsDue{false};

// While set, no set may be looked at or slept on: the system says EACCES.
std::atomic<bool> theSetsAreForbidden{false};

// How many seconds ago sets were changed last, beyond the truth.
std::atomic<int> theAgeOfSets{0};

// The attempt to make a set or a segment, counted from now, that fails with ENOSPC; 0: none.
std::atomic<int> theSetWithoutRoom{0};
std::atomic<int> theSegmentWithoutRoom{0};

bool isOutOfRoom(int flags, std::atomic<int>& attempt) {
    if (!(flags & IPC_CREAT) || attempt == 0 || --attempt != 0) return false;
    errno = ENOSPC;
    return true;
}

bool isForbidden() {
    if (theSetsAreForbidden) errno = EACCES;
    return theSetsAreForbidden;
}

}  // namespace

// In place of the system library's, for everything in this program.
extern "C" __attribute__((visibility("default"))) int semtimedop(int set, sembuf* operations, size_t count,
                                                                 const timespec* limit) noexcept {
    if (isForbidden()) return -1;
    return static_cast<int>(
        ::syscall(SYS_semtimedop, set, operations, count, theSleepsAreEndless ? nullptr : limit));
}

extern "C" __attribute__((visibility("default"))) int semctl(int set, int number, int command, ...) noexcept {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);  // where there is none, the system does not look at it
    va_end(arguments);
    if (theInterludeIsDue.exchange(false)) theInterlude();
    if (isForbidden()) return -1;
    const int result = static_cast<int>(::syscall(SYS_semctl, set, number, command, argument));
    if (command == IPC_STAT && result == 0) static_cast<semid_ds*>(argument)->sem_ctime -= theAgeOfSets;
    return result;
}

extern "C" __attribute__((visibility("default"))) int semget(key_t key, int count, int flags) noexcept {
    if (isOutOfRoom(flags, theSetWithoutRoom)) return -1;
    return static_cast<int>(::syscall(SYS_semget, key, count, flags));
}

extern "C" __attribute__((visibility("default"))) int shmget(key_t key, size_t size, int flags) noexcept {
    if (isOutOfRoom(flags, theSegmentWithoutRoom)) return -1;
    return static_cast<int>(::syscall(SYS_shmget, key, size, flags));
}

namespace {

class EndlessSleeps {
public:
    EndlessSleeps() { theSleepsAreEndless = true; }
    ~EndlessSleeps() { theSleepsAreEndless = false; }
};

const long kHeaderBytes = sizeof(NwShmMsgQueueHeader);
const long kTrailerBytes = sizeof(NwShmMsgQueueTrailer);
const std::uint64_t kGeneration = 7;

// A queue in memory that no access can leave unnoticed: pages that may not be touched lie right before its
// header and, but for what alignment takes, right behind its trailer. Shared with children of this process.
class Queue {
public:
    explicit Queue(unsigned int ringBytes) : myCapacity(kHeaderBytes + ringBytes) {
        const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
        const std::size_t used = static_cast<std::size_t>(myCapacity + kTrailerBytes);
        const std::size_t middle = (used + page - 1) / page * page;
        myMapped = middle + 2 * page;
        void* const place = ::mmap(nullptr, myMapped, PROT_NONE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(place, MAP_FAILED);
        myPages = static_cast<char*>(place);
        EXPECT_EQ(::mprotect(myPages + page, middle, PROT_READ | PROT_WRITE), 0);
        myBase = myPages + page + (middle - used) / 128 * 128;
        EXPECT_TRUE(NwShmMsgQueueMgr::format(myBase, myCapacity, kGeneration));
    }
    ~Queue() { ::munmap(myPages, myMapped); }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    char* base() { return myBase; }
    long capacity() const { return myCapacity; }
    NwShmMsgQueueHeader& header() { return *reinterpret_cast<NwShmMsgQueueHeader*>(myBase); }
    char* ring() { return myBase + kHeaderBytes; }

    // Both sides stand at this position, nothing is in the queue.
    void moveTo(std::uint64_t position) {
        header().written = position;
        header().read = position;
    }

    // A word of the ring, as a writer of another kind might leave it.
    void putLength(unsigned int place, std::uint32_t length) { std::memcpy(ring() + place, &length, 4); }

private:
    long myCapacity;
    std::size_t myMapped;
    char* myPages;
    char* myBase;
};

struct Writer : NwShmMsgQueueWriter {
    explicit Writer(Queue& queue) : NwShmMsgQueueWriter(queue.base(), queue.capacity(), -1, 0) {}
    bool write(const std::string& message) {
        return NwShmMsgQueueWriter::write(message.data(), static_cast<unsigned int>(message.size()));
    }
};

// What a read came back with.
struct Read {
    int length;
    int result;
    std::string bytes;
};

Read readFrom(NwShmMsgQueueReader& reader, int capacity8 = 8192) {
    Read read = {-1, -1, {}};
    std::vector<std::uint64_t> buffer(static_cast<std::size_t>(std::max(capacity8, 0)));
    read.length = reader.read(buffer.data(), capacity8, &read.result);
    if (read.length > 0)
        read.bytes.assign(reinterpret_cast<const char*>(buffer.data()),
                          static_cast<std::size_t>(read.length));
    return read;
}

struct Reader : NwShmMsgQueueReader {
    explicit Reader(Queue& queue, bool skipBacklog = false)
        : NwShmMsgQueueReader(queue.base(), queue.capacity(), -1, 0, false, skipBacklog, false) {}
    Read read(int capacity8 = 8192) { return readFrom(*this, capacity8); }
    std::string message() { return read().bytes; }
};

std::string patterned(unsigned int length, unsigned int seed) {
    std::string message(length, 0);
    for (unsigned int i = 0; i < length; ++i) message[i] = static_cast<char>(seed * 31 + i * 7 + (i >> 8));
    return message;
}

// --- layout ---

TEST(ShmQueueLayout, headerAndTrailerAreTheseBytes) {
    alignas(128) static unsigned char memory[512 + 64 + 16];
    std::memset(memory, 0xEE, sizeof memory);
    ASSERT_TRUE(NwShmMsgQueueMgr::format(memory, 512 + 64, 0x1122334455667788));
    unsigned char expected[512] = {'C', 'V', 'U', 'T', 'N', 'R', 'P', '1', 1, 0, 0, 0, 64, 0, 0, 0};
    const unsigned char generation[] = {0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11};
    std::memcpy(expected + 16, generation, 8);
    EXPECT_EQ(std::memcmp(memory, expected, 512), 0);
    EXPECT_EQ(std::memcmp(memory + 576, "CVUTNRP1", 8), 0);
    EXPECT_EQ(std::memcmp(memory + 584, generation, 8), 0);
}

TEST(ShmQueueLayout, aRecordIsItsLengthTheMessageAndAPositionBehindThem) {
    Queue queue(64);
    Writer writer(queue);
    ASSERT_TRUE(writer.write("seven.."));
    EXPECT_EQ(std::memcmp(queue.ring(), "\7\0\0\0\0\0\0\0seven..", 15), 0);
    EXPECT_EQ(queue.header().written, 16u);
    EXPECT_EQ(queue.header().msgsWritten, 1u);
    EXPECT_EQ(queue.header().read, 0u);
}

TEST(ShmQueueLayout, capacityForARing) {
    EXPECT_EQ(NwShmMsgQueueMgr::bytesFor(0), 512 + 64);
    EXPECT_EQ(NwShmMsgQueueMgr::bytesFor(64), 512 + 64);
    EXPECT_EQ(NwShmMsgQueueMgr::bytesFor(65), 512 + 128);
    EXPECT_EQ(NwShmMsgQueueMgr::bytesFor(1 << 20), 512 + (1 << 20));
    EXPECT_EQ(NwShmMsgQueueMgr::bytesFor((1 << 20) + 1), 512 + (1 << 21));
    EXPECT_EQ(NwShmMsgQueueMgr::bytesFor(~0ul), 512 + (1 << 30));
}

TEST(ShmQueueLayout, theRingIsTheLargestPowerOfTwoThatFits) {
    alignas(128) static char memory[2048];
    for (long room : {64L, 65L, 127L, 128L, 1000L, 1023L, 1024L}) {
        ASSERT_TRUE(NwShmMsgQueueMgr::format(memory, 512 + room, 1));
        const unsigned int ring = NwShmMsgQueueMgr(memory, 512 + room).ringBytes();
        EXPECT_LE(ring, room);
        EXPECT_GT(2 * ring, room);
    }
    for (long capacity : {-1L, 0L, 511L, 512L, 512L + 63, 512L + (1L << 30) + 1})
        EXPECT_FALSE(NwShmMsgQueueMgr::format(memory, capacity, 1)) << capacity;
    EXPECT_FALSE(NwShmMsgQueueMgr::format(memory + 8, 1024, 1));
    EXPECT_FALSE(NwShmMsgQueueMgr::format(nullptr, 1024, 1));
}

TEST(ShmQueueLayout, whatIsNoQueueIsNotUsed) {
    struct Change {
        const char* what;
        std::function<void(Queue&)> make;
        long capacityChange;
    };
    const Change changes[] = {
        {"magic", [](Queue& q) { q.header().magic ^= 1; }, 0},
        {"layout", [](Queue& q) { q.header().layout = 2; }, 0},
        {"ring of 0", [](Queue& q) { q.header().ringBytes = 0; }, 0},
        {"ring of 32", [](Queue& q) { q.header().ringBytes = 32; }, 0},
        {"ring of 1023", [](Queue& q) { q.header().ringBytes = 1023; }, 0},
        {"ring of 2048", [](Queue& q) { q.header().ringBytes = 2048; }, 0},
        {"ring of 2^31", [](Queue& q) { q.header().ringBytes = 1u << 31; }, 0},
        {"generation", [](Queue& q) { q.header().generation ^= 1; }, 0},
        {"trailer", [](Queue& q) { q.base()[q.capacity()] ^= 1; }, 0},
        {"capacity below the ring", [](Queue&) {}, -8},
        {"capacity below the trailer", [](Queue& q) { q.header().ringBytes = 512; }, -8},
        {"capacity of nearly nothing", [](Queue&) {}, -(512 + 1024) + 1},
        {"negative capacity", [](Queue&) {}, -(512 + 1024) - 16},
    };
    for (const Change& change : changes) {
        Queue queue(1024);
        change.make(queue);
        const long capacity = queue.capacity() + change.capacityChange;
        NwShmMsgQueueReader reader(queue.base(), capacity, -1, 0, false, true, true);
        NwShmMsgQueueWriter writer(queue.base(), capacity, -1, 0);
        EXPECT_FALSE(reader.queueMgr().isSound()) << change.what;
        EXPECT_EQ(readFrom(reader).result, NwShmReadDismissed) << change.what;
        EXPECT_FALSE(writer.write("x", 1)) << change.what;
        EXPECT_EQ(writer.dropped(), 1u);
        writer.publish();
        writer.sendAway(NwShmGoAwayStopped);
        EXPECT_FALSE(writer.takeNotify());
    }
    NwShmMsgQueueMgr none(nullptr, 10000);
    none.setInternal(true);
    EXPECT_FALSE(none.isInternal());
    EXPECT_TRUE(none.setNotifyReader(1)) << "nobody would wake the caller";
    EXPECT_EQ(none.getGoAway() + none.msgsWritten() + none.msgsRead() + none.usedBytes() + none.ringBytes() +
                  none.largestMessage() + none.highWaterBytes() + none.msgsDropped(),
              0u);
    Queue queue(1024);
    EXPECT_FALSE(NwShmMsgQueueMgr(queue.base() + 8, queue.capacity()).isSound());
}

// --- messages ---

TEST(ShmQueue, everySizeAtEveryPlaceAroundEveryWrap) {
    const unsigned int ring = 256;
    const std::uint64_t bases[] = {0, (1ull << 32) - ring, ~0ull - 2 * ring + 1};
    for (std::uint64_t base : bases)
        for (unsigned int step = 0; step < 3 * ring; step += 8)
            for (unsigned int length = 1; length <= ring / 2 - 8; ++length) {
                static Queue queue(ring);
                std::memset(queue.ring(), 0xEE, ring);
                queue.moveTo(base + step);
                Writer writer(queue);
                Reader reader(queue);
                const std::string message = patterned(length, step);
                ASSERT_TRUE(writer.write(message)) << base + step << ", " << length;
                const Read read = reader.read();
                ASSERT_EQ(read.result, NwShmReadMessage) << base + step << ", " << length;
                ASSERT_EQ(read.bytes, message) << base + step << ", " << length;
                ASSERT_EQ(queue.header().read, queue.header().written);
                ASSERT_EQ(reader.read().result, NwShmReadNothing);
            }
}

TEST(ShmQueue, sizesThatAreNoneAreRefusedAndCounted) {
    Queue queue(1024);
    Writer writer(queue);
    EXPECT_EQ(writer.queueMgr().largestMessage(), 504u);
    EXPECT_TRUE(writer.write(patterned(504, 1)));
    const char byte = 'b';
    for (unsigned int length : {0u, 505u, 1024u, 0x7FFFFFFFu, 0xFFFFFFF8u, 0xFFFFFFFFu})
        EXPECT_FALSE(writer.NwShmMsgQueueWriter::write(&byte, length)) << length;
    EXPECT_FALSE(writer.put(&byte, 0xFFFFFFFF, &byte, 2)) << "lengths that wrap";
    EXPECT_FALSE(writer.put(&byte, 1, &byte, 0xFFFFFFFF));
    EXPECT_EQ(writer.dropped(), 8u);
    EXPECT_EQ(queue.header().msgsDropped, 8u);
    Reader reader(queue);
    EXPECT_EQ(reader.message(), patterned(504, 1));
    EXPECT_EQ(reader.read().result, NwShmReadNothing);
}

TEST(ShmQueue, headAndBodyBecomeOneMessage) {
    Queue queue(256);
    Writer writer(queue);
    Reader reader(queue);
    ASSERT_TRUE(writer.put("head", 4, "body", 4));
    ASSERT_TRUE(writer.put("head", 4, nullptr, 0));
    ASSERT_TRUE(writer.put(nullptr, 0, "body", 4));
    EXPECT_EQ(reader.read().result, NwShmReadNothing) << "nothing is published yet";
    writer.publish();
    EXPECT_EQ(reader.message(), "headbody");
    EXPECT_EQ(reader.message(), "head");
    EXPECT_EQ(reader.message(), "body");
}

TEST(ShmQueue, aFullQueueDropsAndCountsAndGoesOnWhenThereIsRoom) {
    for (std::uint64_t start : {0ull, 16ull, 96ull, 112ull, ~0ull - 63}) {
        Queue queue(128);
        queue.moveTo(start);
        Writer writer(queue);
        Reader reader(queue);
        std::vector<std::string> kept;
        for (unsigned int i = 0; i < 20; ++i) {
            const std::string message = patterned(5, i);
            if (writer.write(message)) kept.push_back(message);
        }
        EXPECT_EQ(kept.size(), 8u) << "records of 16 bytes in a ring of 128";
        EXPECT_EQ(writer.dropped(), 12u);
        EXPECT_EQ(writer.queueMgr().usedBytes(), 128u);
        EXPECT_EQ(writer.queueMgr().highWaterBytes(), 128u);
        EXPECT_EQ(reader.message(), kept[0]);
        EXPECT_TRUE(writer.write("new"));
        EXPECT_FALSE(writer.write("too many"));
        for (unsigned int i = 1; i < 8; ++i) EXPECT_EQ(reader.message(), kept[i]);
        EXPECT_EQ(reader.message(), "new");
        EXPECT_EQ(reader.read().result, NwShmReadNothing);
        EXPECT_EQ(reader.msgsRcvd(), 9u);
        EXPECT_EQ(reader.queueMgr().msgsDropped(), 13u);
        EXPECT_EQ(reader.queueMgr().msgsRead(), 9u);
        EXPECT_EQ(reader.queueMgr().msgsWritten(), 9u);
    }
}

TEST(ShmQueue, aMessageThatNeedsTheBeginningWaitsUntilItIsFree) {
    Queue queue(128);
    queue.moveTo(96);
    Writer writer(queue);
    Reader reader(queue);
    ASSERT_TRUE(writer.write("at 96"));           // 96 to 112
    ASSERT_TRUE(writer.write(patterned(56, 1)));  // 16 left empty, then 0 to 64
    EXPECT_EQ(writer.queueMgr().usedBytes(), 96u);
    EXPECT_FALSE(writer.write(patterned(25, 2)));  // 40 bytes, 32 are free
    EXPECT_TRUE(writer.write(patterned(24, 3)));   // 64 to 96: not a byte is left
    EXPECT_EQ(reader.message(), "at 96");
    EXPECT_FALSE(writer.write(patterned(9, 4))) << "16 bytes are free, 24 needed";
    EXPECT_EQ(reader.message(), patterned(56, 1));
    EXPECT_TRUE(writer.write(patterned(9, 4)));
    EXPECT_EQ(reader.message(), patterned(24, 3));
    EXPECT_EQ(reader.message(), patterned(9, 4));
}

TEST(ShmQueue, theHighWaterMarkIsTheMostThatWasInUse) {
    Queue queue(1024);
    Writer writer(queue);
    Reader reader(queue);
    for (int round = 0; round < 1000; ++round) {
        ASSERT_TRUE(writer.write(patterned(56, 1)));
        reader.message();
    }
    EXPECT_EQ(writer.queueMgr().highWaterBytes(), 64u) << "not what went through";
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(writer.write(patterned(56, 1)));
    for (int i = 0; i < 10; ++i) reader.message();
    EXPECT_EQ(writer.queueMgr().highWaterBytes(), 640u);
    EXPECT_TRUE(writer.write("less again"));
    EXPECT_EQ(writer.queueMgr().highWaterBytes(), 640u);
}

TEST(ShmQueue, aMessageLongerThanTheBufferIsSkipped) {
    Queue queue(1024);
    Writer writer(queue);
    Reader reader(queue);
    writer.write(patterned(17, 1));
    writer.write("next");
    writer.write(patterned(16, 2));
    writer.write("x");
    writer.write("y");
    const Read skipped = reader.read(2);
    EXPECT_EQ(skipped.result, NwShmReadSkipped);
    EXPECT_EQ(skipped.length, 0);
    EXPECT_EQ(reader.message(), "next");
    EXPECT_EQ(reader.read(2).bytes, patterned(16, 2)) << "just as long as the buffer";
    EXPECT_EQ(reader.read(0).result, NwShmReadSkipped);
    EXPECT_EQ(reader.read(-1).result, NwShmReadSkipped);
    EXPECT_EQ(reader.msgsRcvd(), 5u) << "those skipped included";
    EXPECT_EQ(reader.read().result, NwShmReadNothing);
}

TEST(ShmQueue, aReaderGoesOnWhereTheLastStoppedOrLeavesTheBacklog) {
    Queue queue(256);
    Writer writer(queue);
    for (const char* text : {"1", "2", "3"}) writer.write(text);
    { EXPECT_EQ(Reader(queue).message(), "1"); }
    Reader second(queue);
    EXPECT_EQ(second.msgsRcvd(), 1u);
    EXPECT_EQ(second.message(), "2");
    Reader third(queue, true);
    EXPECT_EQ(third.msgsRcvd(), 3u);
    EXPECT_EQ(third.read().result, NwShmReadNothing);
    writer.write("4");
    EXPECT_EQ(third.message(), "4");
}

TEST(ShmQueue, aWriterGoesOnWhereTheLastStopped) {
    Queue queue(128);
    {
        Writer first(queue);
        for (int i = 0; i < 9; ++i) first.write("abcde");
    }
    Writer second(queue);
    EXPECT_EQ(second.dropped(), 1u);
    EXPECT_FALSE(second.write("abcde"));
    Reader reader(queue);
    EXPECT_EQ(reader.message(), "abcde");
    EXPECT_TRUE(second.write("fghij"));
    EXPECT_EQ(queue.header().msgsWritten, 9u);
}

TEST(ShmQueue, internalModeIsWhatTheServerSays) {
    Queue queue(64);
    Writer writer(queue);
    Reader reader(queue);
    EXPECT_FALSE(reader.isInternal());
    writer.queueMgr().setInternal(true);
    EXPECT_TRUE(reader.isInternal());
    EXPECT_TRUE(reader.queueMgr().isInternal());
    writer.queueMgr().setInternal(false);
    EXPECT_FALSE(reader.isInternal());
}

// --- the end ---

TEST(ShmQueue, messagesAlreadyWrittenComeBeforeTheEnd) {
    const int ends[][3] = {{NwShmGoAwayStopped, 2, NwShmReadStopped},
                           {NwShmGoAwayDismissed, 4, NwShmReadDismissed},
                           {NwShmStay, 4, NwShmReadDismissed},
                           {1, 1, NwShmReadDismissed},
                           {-1, -1, NwShmReadDismissed}};
    for (const auto& end : ends) {
        Queue queue(256);
        Writer writer(queue);
        Reader reader(queue);
        EXPECT_EQ(reader.queueMgr().getGoAway(), 0);
        writer.write("one");
        writer.put("two", 3, nullptr, 0);
        writer.sendAway(end[0]);
        EXPECT_EQ(reader.queueMgr().getGoAway(), end[1]);
        EXPECT_EQ(reader.message(), "one");
        EXPECT_EQ(reader.message(), "two");
        for (int i = 0; i < 3; ++i) {
            const Read read = reader.read();
            EXPECT_EQ(read.result, end[2]);
            EXPECT_EQ(read.length, 0);
        }
    }
}

// --- notify ---

TEST(ShmQueueNotify, oneForEachWishWhenTheCountIsReached) {
    Queue queue(1024);
    Writer writer(queue);
    Reader reader(queue);
    EXPECT_FALSE(reader.queueMgr().setNotifyReader(3));
    for (int i = 1; i <= 2; ++i) {
        writer.write("x");
        EXPECT_FALSE(writer.takeNotify()) << i;
    }
    writer.write("x");
    EXPECT_TRUE(writer.takeNotify());
    EXPECT_FALSE(writer.takeNotify());
    writer.write("x");
    EXPECT_FALSE(writer.takeNotify()) << "one for one wish";
    EXPECT_FALSE(reader.queueMgr().setNotifyReader(5));
    writer.write("x");
    EXPECT_TRUE(writer.takeNotify());
}

TEST(ShmQueueNotify, whatIsReachedAlreadyIsTheCallersOwnToSay) {
    Queue queue(1024);
    Writer writer(queue);
    Reader reader(queue);
    writer.write("x");
    writer.write("x");
    EXPECT_TRUE(reader.queueMgr().setNotifyReader(1));
    EXPECT_TRUE(reader.queueMgr().setNotifyReader(2));
    EXPECT_EQ(queue.header().attention, 0u) << "the wish is withdrawn";
    EXPECT_FALSE(reader.queueMgr().setNotifyReader(3));
    writer.write("x");
    EXPECT_TRUE(writer.takeNotify());
}

TEST(ShmQueueNotify, aLaterWishTakesTheFormersPlace) {
    Queue queue(1024);
    Writer writer(queue);
    Reader reader(queue);
    reader.queueMgr().setNotifyReader(1);
    reader.queueMgr().setNotifyReader(2);
    writer.write("x");
    EXPECT_FALSE(writer.takeNotify());
    writer.write("x");
    EXPECT_TRUE(writer.takeNotify());
}

TEST(ShmQueueNotify, aBatchCountsWhenItIsPublished) {
    Queue queue(1024);
    Writer writer(queue);
    Reader reader(queue);
    reader.queueMgr().setNotifyReader(2);
    for (int i = 0; i < 3; ++i) writer.put("x", 1, nullptr, 0);
    EXPECT_FALSE(writer.takeNotify());
    writer.publish();
    EXPECT_TRUE(writer.takeNotify());
    EXPECT_FALSE(writer.takeNotify());
}

TEST(ShmQueueNotify, countsWrapAfterTwoToTheThirtySecond) {
    Queue queue(1024);
    queue.header().msgsWritten = 0xFFFFFFFE;
    queue.header().msgsRead = 0xFFFFFFFE;
    Writer writer(queue);
    Reader reader(queue);
    EXPECT_EQ(reader.msgsRcvd(), 0xFFFFFFFEu);
    EXPECT_FALSE(reader.queueMgr().setNotifyReader(reader.msgsRcvd() + 3));
    writer.write("x");
    writer.write("x");
    EXPECT_FALSE(writer.takeNotify());
    writer.write("x");
    EXPECT_TRUE(writer.takeNotify());
    EXPECT_EQ(queue.header().msgsWritten, 1u);
}

TEST(ShmQueueNotify, theEndFulfilsEveryWish) {
    Queue queue(1024);
    Writer writer(queue);
    Reader reader(queue);
    reader.queueMgr().setNotifyReader(1000);
    writer.sendAway(NwShmGoAwayStopped);
    EXPECT_TRUE(writer.takeNotify());
    EXPECT_TRUE(reader.queueMgr().setNotifyReader(1000)) << "nobody would say so any more";
}

// --- foes ---

TEST(ShmQueueFoe, aReaderGivesUpAPositionThatCannotBe) {
    for (std::uint64_t written :
         {8ull + 1025, 8ull + 1032, 8ull + 1, 8ull + 20, 0ull, ~0ull, 1ull << 32, 1ull << 63}) {
        Queue queue(1024);
        queue.moveTo(8);
        queue.putLength(8, 4);  // a record that would do
        Reader reader(queue);
        queue.header().written = written;
        EXPECT_EQ(reader.read().result, NwShmReadDismissed) << written;
        EXPECT_FALSE(reader.queueMgr().isSound());
        queue.header().written = 8;
        EXPECT_EQ(reader.read().result, NwShmReadDismissed) << "once over, always over";
        EXPECT_TRUE(reader.queueMgr().setNotifyReader(1));
    }
    Queue queue(1024);
    queue.moveTo(4);
    EXPECT_EQ(Reader(queue).read().result, NwShmReadDismissed) << "a start that is no multiple of 8";
}

TEST(ShmQueueFoe, aReaderGivesUpARecordThatCannotBe) {
    struct Record {
        const char* what;
        std::uint64_t position;
        std::uint64_t available;
        std::uint32_t length;
        std::uint32_t lengthAtTheBeginning;
    };
    const std::uint32_t mark = 0xFFFFFFFF;
    const Record records[] = {
        {"length 0", 0, 1024, 0, 0},
        {"longer than what is written", 0, 16, 9, 9},
        {"longer by one", 0, 24, 17, 17},
        {"longer than any message", 0, 1024, 505, 505},
        {"as long as the ring", 0, 1024, 1024, 1024},
        {"length that wraps when rounded", 0, 1024, 0xFFFFFFF9, 0xFFFFFFF9},
        {"largest length that is no mark", 0, 1024, 0xFFFFFFFE, 0xFFFFFFFE},
        {"beyond the end of the ring", 1008, 1024, 9, 1},
        {"mark with nothing behind it", 1000, 24, mark, 1},
        {"mark beyond what is written", 512, 24, mark, 1},
        {"mark at the beginning", 0, 1024, mark, mark},
        {"two marks", 1000, 1024, mark, mark},
        {"mark before length 0", 1000, 1024, mark, 0},
        {"mark before a record too long", 1000, 40, mark, 9},
        {"mark before length 2^31", 1000, 1024, mark, 0x80000000},
    };
    for (const Record& record : records) {
        Queue queue(1024);
        queue.moveTo(record.position);
        Reader reader(queue);
        queue.putLength(0, record.lengthAtTheBeginning);
        queue.putLength(static_cast<unsigned int>(record.position), record.length);
        queue.header().written = record.position + record.available;
        const Read read = reader.read();
        EXPECT_EQ(read.result, NwShmReadDismissed) << record.what;
        EXPECT_EQ(read.length, 0) << record.what;
        EXPECT_EQ(reader.read().result, NwShmReadDismissed) << record.what;
    }
}

TEST(ShmQueueFoe, skippingABacklogOfNonsenseEnds) {
    Queue queue(1024);
    queue.header().written = 1024;
    Reader reader(queue, true);
    EXPECT_EQ(reader.read().result, NwShmReadDismissed);
}

TEST(ShmQueueFoe, aWriterDropsEverythingForAReaderWhosePositionCannotBe) {
    // Read beyond the 1536 bytes written, or less than the 512 that were read before.
    for (std::uint64_t read : {1537ull, 1544ull, ~0ull, 1ull << 63, 511ull, 504ull, 0ull}) {
        Queue queue(1024);
        Writer writer(queue);
        for (int i = 0; i < 8; ++i) ASSERT_TRUE(writer.write(patterned(56, 1)));
        queue.header().read = 512;
        for (int i = 0; i < 16; ++i) ASSERT_TRUE(writer.write(patterned(56, 1)));
        ASSERT_EQ(queue.header().written, 1536u);
        queue.header().read = read;
        EXPECT_FALSE(writer.write("x")) << read;
        EXPECT_FALSE(writer.queueMgr().isSound()) << read;
        queue.header().read = 1536;
        EXPECT_FALSE(writer.write("x")) << "once over, always over";
        EXPECT_EQ(writer.dropped(), 2u);
    }
}

TEST(ShmQueueFoe, aReaderMayNotTakeBackWhatItHasRead) {
    Queue queue(1024);
    Writer writer(queue);
    for (int i = 0; i < 16; ++i) ASSERT_TRUE(writer.write(patterned(56, 1)));
    queue.header().read = 512;
    for (int i = 0; i < 7; ++i) ASSERT_TRUE(writer.write(patterned(56, 1)));  // to 1472
    queue.header().read = 504;                                                // would fit the ring
    EXPECT_FALSE(writer.write(patterned(120, 1)));
    EXPECT_FALSE(writer.queueMgr().isSound());
}

TEST(ShmQueueFoe, aWriterDoesNotStartWhereTheCountersCannotBe) {
    const std::uint64_t positions[][2] = {{0, 8}, {1032, 0}, {4, 0}, {0, ~0ull}, {1ull << 63, 0}};
    for (const auto& pair : positions) {
        Queue queue(1024);
        queue.header().written = pair[0];
        queue.header().read = pair[1];
        Writer writer(queue);
        const bool canBe = pair[0] - pair[1] <= 1024 && pair[0] % 8 == 0;
        EXPECT_EQ(writer.queueMgr().isSound(), canBe) << pair[0] << ", " << pair[1];
        EXPECT_EQ(writer.write("x"), canBe);
    }
}

TEST(ShmQueueFoe, whatTheHeaderSaysLaterIsOfNoMatter) {
    Queue queue(1024);
    Writer writer(queue);
    Reader reader(queue);
    queue.header().ringBytes = 1u << 30;
    queue.header().magic = 0;
    queue.header().msgsWritten = 99;
    queue.header().msgsDropped = 99;
    queue.header().highWater = 99;
    for (unsigned int i = 0; i < 200; ++i) {
        ASSERT_TRUE(writer.write(patterned(100, i)));
        ASSERT_EQ(reader.message(), patterned(100, i));
    }
    EXPECT_EQ(writer.queueMgr().msgsWritten(), 200u);
    EXPECT_EQ(writer.msgsSent(), 200u);
    EXPECT_EQ(writer.dropped(), 0u);
    queue.header().msgsWritten = 5;
    queue.header().msgsDropped = 5;
    queue.header().highWater = 5;
    EXPECT_EQ(writer.msgsSent(), 200u);
    EXPECT_EQ(writer.dropped(), 0u);
    EXPECT_GE(writer.highWaterBytes(), 112u);
}

TEST(ShmQueueFoe, attentionThatChangesWithoutEndHoldsNobodyUp) {
    Queue queue(1024);
    Writer writer(queue);
    std::atomic<bool> isOver{false};
    std::thread foe([&] {
        std::uint64_t value = 1;
        while (!isOver)
            queue.header().attention = value = value * 6364136223846793005u + 1442695040888963407u;
    });
    for (int i = 0; i < 100000; ++i) {
        writer.write("x");
        writer.takeNotify();
    }
    isOver = true;
    foe.join();
}

// A process that writes whatever it likes wherever it can, while both sides work: nothing to be said of what
// comes out, but everything ends and nothing outside is touched (the pages around the queue see to that).
TEST(ShmQueueFoe, aScribbledQueueIsNeverLeft) {
    const int rounds = 30;
    std::mt19937 random(20);
    for (int round = 0; round < rounds; ++round) {
        Queue queue(512);
        const unsigned int seed = random();
        const pid_t foe = ::fork();
        if (foe == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            std::mt19937 own(seed);
            // First the ring alone, then everything: counters that cannot be end a queue at once.
            const unsigned int first = round % 2 ? 0 : 512;
            const unsigned int span = 512 + 512 + 16 - first;
            for (;;) {
                const unsigned int place = first + own() % span;
                queue.base()[place] = static_cast<char>(own() % 4 ? own() % 64 : own());
            }
        }
        ASSERT_GT(foe, 0);
        for (int life = 0; life < 200; ++life) {
            queue.moveTo(random() & ~7u);
            queue.header().magic = NwShmQueueMagic;
            queue.header().layout = NwShmQueueLayout;
            queue.header().ringBytes = 512;
            queue.header().goAway = 0;
            Writer writer(queue);
            Reader reader(queue);
            for (int i = 0; i < 100; ++i) {
                writer.write(patterned(1 + random() % 248, 1));
                const Read read = reader.read(32);
                ASSERT_LE(read.length, 256);
                ASSERT_GE(read.result, 0);
                ASSERT_LE(read.result, 4);
                ASSERT_EQ(read.length > 0, read.result == NwShmReadMessage);
            }
        }
        ::kill(foe, SIGKILL);
        int status;
        ::waitpid(foe, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status));
    }
}

// --- with semaphores ---

// Segments and sets of this process alone, where the system allows that; else keys that others hardly use.
class ShmSegment : public testing::Test {
protected:
    static void SetUpTestSuite() { enterOwnNamespaces(CLONE_NEWIPC); }

    ShmSegment() : port(20000 + ::getpid() % 40000) {}
    ~ShmSegment() override {
        for (int slot = 0; slot < 8; ++slot) {
            EXPECT_FALSE(segmentExists(slot)) << "left behind in slot " << slot;
            EXPECT_FALSE(setExists(slot)) << "left behind in slot " << slot;
        }
    }

    bool make(NwShmMsgQueueSegment& segment, int slot = 0, unsigned long ringBytes = 4096) {
        return segment.create(port, slot, NwShmMsgQueueMgr::bytesFor(ringBytes), ::geteuid(), ::getegid());
    }
    bool segmentExists(int slot) const {
        return ::shmget(NwShmMsgQueueSegment::shmKeyOf(port, slot), 0, 0) >= 0;
    }
    bool setExists(int slot) const { return ::semget(NwShmMsgQueueSegment::semKeyOf(port, slot), 0, 0) >= 0; }

    // A server in a process of its own that makes a queue in slot 0, writes a message if told so, and waits
    // for its death. The reader's place is ready when this returns.
    struct Server {
        pid_t pid = -1;
        int shm = -1;
        int sem = -1;
        char* base = nullptr;

        void kill() {
            ::kill(pid, SIGKILL);
            int status;
            ::waitpid(pid, &status, 0);
            pid = -1;
        }
        ~Server() {
            if (pid > 0) kill();
            if (base) ::shmdt(base);
        }
        char* queue() { return base + 128; }
    };
    void start(Server& server, bool writes, bool marks) {
        int ready[2];
        ASSERT_EQ(::pipe(ready), 0);
        server.pid = ::fork();
        if (server.pid == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            NwShmMsgQueueSegment segment;
            char report = make(segment) ? 'y' : 'n';
            NwShmMsgQueueWriter writer(segment.queue(), segment.capacity(), segment.semId(), 0);
            if (writes) writer.write("last words", 10);
            if (::write(ready[1], &report, 1) != 1) ::_exit(1);
            while (segment.attachments() < 1) ::usleep(1000);
            if (marks) segment.markForRemoval();
            if (::write(ready[1], &report, 1) != 1) ::_exit(1);
            for (;;) ::pause();
        }
        char report = 0;
        ASSERT_EQ(::read(ready[0], &report, 1), 1);
        ASSERT_EQ(report, 'y');
        server.shm = ::shmget(NwShmMsgQueueSegment::shmKeyOf(port, 0), 0, 0666);
        server.sem = ::semget(NwShmMsgQueueSegment::semKeyOf(port, 0), 2, 0666);
        server.base = static_cast<char*>(::shmat(server.shm, nullptr, 0));
        ASSERT_EQ(::read(ready[0], &report, 1), 1);
        ::close(ready[0]);
        ::close(ready[1]);
    }

    const int port;
};

const long kCapacity = 512 + 4096;

TEST_F(ShmSegment, keysFollowFromPortAndSlotAndAreNeverTheSame) {
    EXPECT_EQ(NwShmMsgQueueSegment::shmKeyOf(3000, 5), 0x50BB8005);
    EXPECT_EQ(NwShmMsgQueueSegment::semKeyOf(3000, 5), 0x60BB8005);
    EXPECT_EQ(NwShmMsgQueueSegment::shmKeyOf(0, 0), 0x50000000);
    EXPECT_EQ(NwShmMsgQueueSegment::semKeyOf(65535, 4095), 0x6FFFFFFF);
}

TEST_F(ShmSegment, isMadeForOneUserAlone) {
    NwShmMsgQueueSegment segment;
    ASSERT_TRUE(make(segment, 3));
    EXPECT_TRUE(segment.isMade());
    EXPECT_EQ(segment.shmKey(), NwShmMsgQueueSegment::shmKeyOf(port, 3));
    EXPECT_EQ(segment.semKey(), NwShmMsgQueueSegment::semKeyOf(port, 3));
    EXPECT_EQ(segment.capacity(), kCapacity);
    EXPECT_EQ(segment.server2ClientSize(), kCapacity + 16);
    EXPECT_EQ(segment.client2ServerSize(), 128);
    EXPECT_TRUE(NwShmMsgQueueMgr(segment.queue(), kCapacity).isSound());
    shmid_ds memory;
    ASSERT_EQ(::shmctl(segment.shmId(), IPC_STAT, &memory), 0);
    EXPECT_EQ(memory.shm_segsz, 128u + kCapacity + 16);
    EXPECT_EQ(memory.shm_perm.mode & 0777, 0600);
    EXPECT_EQ(::semctl(segment.semId(), 0, GETVAL), 0);
    EXPECT_EQ(::semctl(segment.semId(), 1, GETVAL), 1);
    EXPECT_EQ(::shmget(segment.shmKey(), 128 + kCapacity + 16, 0666), segment.shmId()) << "as a client asks";
    EXPECT_EQ(::semget(segment.semKey(), 2, 0666), segment.semId());
}

TEST_F(ShmSegment, belongsToTheClientsUser) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
    NwShmMsgQueueSegment segment;
    ASSERT_TRUE(segment.create(port, 0, kCapacity, 12345, 54321));
    const int shmKey = segment.shmKey();
    const int semKey = segment.semKey();
    for (uid_t uid : {12345u, 12346u}) {
        const ChildResult result = runInChild([&] {
            if (::setgid(54321) != 0 || ::setuid(uid) != 0) ::_exit(9);
            const int shm = ::shmget(shmKey, 128 + kCapacity + 16, 0666);
            const int sem = ::semget(semKey, 2, 0666);
            ::_exit((shm >= 0 ? 1 : 0) + (sem >= 0 ? 2 : 0));
        });
        if (result.exitedWith(9)) {
            GTEST_SKIP() << "cannot become another user here";
        }
        EXPECT_TRUE(result.exitedWith(uid == 12345 ? 3 : 0)) << uid << ": " << result.status;
    }
}

TEST_F(ShmSegment, removingItLeavesNothing) {
    NwShmMsgQueueSegment segment;
    ASSERT_TRUE(make(segment));
    segment.remove();
    EXPECT_FALSE(segment.isMade());
    EXPECT_FALSE(segmentExists(0));
    EXPECT_FALSE(setExists(0));
    EXPECT_EQ(segment.queue(), nullptr);
    segment.remove();
    ASSERT_TRUE(make(segment)) << "and it can be made again";
}

TEST_F(ShmSegment, keysThatSomebodyAliveUsesAreRefused) {
    NwShmMsgQueueSegment first;
    NwShmMsgQueueSegment second;
    ASSERT_TRUE(make(first));
    errno = 0;
    EXPECT_FALSE(make(second));
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(NwShmMsgQueueSegment::removeLeftovers(port, 8), 0);
    EXPECT_TRUE(segmentExists(0));
    EXPECT_TRUE(setExists(0));
    ASSERT_TRUE(make(second, 1)) << "another slot is free";
}

TEST_F(ShmSegment, argumentsThatAreNoneAreRefused) {
    NwShmMsgQueueSegment segment;
    const long arguments[][3] = {
        {-1, 0, kCapacity}, {65536, 0, kCapacity}, {port, -1, kCapacity}, {port, 4096, 10000},
        {port, 0, 575},     {port, 0, -1},         {port, 0, 0},          {port, 0, 513 + (1l << 30)},
        {port, 0, 1l << 40}};
    for (const auto& one : arguments) {
        errno = 0;
        EXPECT_FALSE(segment.create(static_cast<int>(one[0]), static_cast<int>(one[1]), one[2], 0, 0));
        EXPECT_EQ(errno, EINVAL) << one[0] << ", " << one[1] << ", " << one[2];
    }
    ASSERT_TRUE(make(segment));
    EXPECT_FALSE(make(segment, 1)) << "one at a time";
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(segmentExists(0));
}

TEST_F(ShmSegment, whatIsMarkedGoesWithTheLastThatIsAttached) {
    NwShmMsgQueueSegment segment;
    ASSERT_TRUE(make(segment));
    EXPECT_EQ(segment.attachments(), 0);
    void* const other = ::shmat(segment.shmId(), nullptr, 0);
    EXPECT_EQ(segment.attachments(), 1);
    segment.markForRemoval();
    EXPECT_FALSE(segmentExists(0)) << "the key is free";
    EXPECT_EQ(segment.attachments(), 1);
    NwShmMsgQueueWriter writer(segment.queue(), segment.capacity(), segment.semId(), 0);
    EXPECT_TRUE(writer.write("still here", 10));
    const int shm = segment.shmId();
    segment.remove();
    EXPECT_EQ(segment.attachments(), -1);
    NwShmMsgQueueReader reader(static_cast<char*>(other) + 128, kCapacity, -1, 0, true, false, false);
    EXPECT_EQ(readFrom(reader).bytes, "still here");
    ::shmdt(other);
    shmid_ds status;
    EXPECT_EQ(::shmctl(shm, IPC_STAT, &status), -1);
}

TEST_F(ShmSegment, whatAKilledServerLeftIsFoundAndRemoved) {
    {
        Server server;
        start(server, false, false);
        server.kill();
    }
    EXPECT_TRUE(segmentExists(0));
    EXPECT_TRUE(setExists(0));
    NwShmMsgQueueSegment next;
    ASSERT_TRUE(make(next)) << "in its place";
    next.remove();
    {
        Server server;
        start(server, false, false);
        server.kill();
    }
    EXPECT_EQ(NwShmMsgQueueSegment::removeLeftovers(port, 8), 2);
}

TEST_F(ShmSegment, whatAnotherUserLeftStays) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
    const ChildResult result = runInChild([&] {
        if (::setuid(12345) != 0) ::_exit(9);
        NwShmMsgQueueSegment theirs;
        ::_exit(theirs.create(port, 2, kCapacity, 12345, 12345) ? 0 : 1);  // without its destructor
    });
    if (result.exitedWith(9)) GTEST_SKIP() << "cannot become another user here";
    ASSERT_TRUE(result.exitedWith(0)) << result.status;
    NwShmMsgQueueSegment ours;
    EXPECT_EQ(NwShmMsgQueueSegment::removeLeftovers(port, 8), 0);
    EXPECT_FALSE(make(ours, 2));
    EXPECT_EQ(errno, EEXIST);
    ASSERT_TRUE(setExists(2));
    ::semctl(::semget(NwShmMsgQueueSegment::semKeyOf(port, 2), 0, 0), 0, IPC_RMID);
    EXPECT_FALSE(make(ours, 2)) << "the segment stays too";
    EXPECT_EQ(errno, EEXIST);
    ::shmctl(::shmget(NwShmMsgQueueSegment::shmKeyOf(port, 2), 0, 0), IPC_RMID, nullptr);
}

// A key may be anybody's: what cannot be a dead server's is left alone.
TEST_F(ShmSegment, aSegmentThatHoldsNoQueueIsRefusedAndStays) {
    for (const std::size_t size : {std::size_t(100), std::size_t(8192)}) {
        const int id = ::shmget(NwShmMsgQueueSegment::shmKeyOf(port, 0), size, IPC_CREAT | IPC_EXCL | 0600);
        char* const place = static_cast<char*>(::shmat(id, nullptr, 0));
        ASSERT_NE(place, reinterpret_cast<char*>(-1));
        std::memset(place, 'x', size);
        ::shmdt(place);
        NwShmMsgQueueSegment segment;
        errno = 0;
        EXPECT_FALSE(make(segment));
        EXPECT_EQ(errno, EEXIST);
        EXPECT_FALSE(setExists(0)) << "nothing remains of the attempt";
        EXPECT_EQ(NwShmMsgQueueSegment::removeLeftovers(port, 1), 0);
        shmid_ds status;
        EXPECT_EQ(::shmctl(id, IPC_STAT, &status), 0);
        ::shmctl(id, IPC_RMID, nullptr);
    }
}

TEST_F(ShmSegment, aSetThatIsBeingMadeIsRefusedUntilItIsOld) {
    const int id = ::semget(NwShmMsgQueueSegment::semKeyOf(port, 0), 2, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_GE(id, 0);
    NwShmMsgQueueSegment segment;
    errno = 0;
    EXPECT_FALSE(make(segment));
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(NwShmMsgQueueSegment::removeLeftovers(port, 1), 0);
    EXPECT_EQ(::semctl(id, 0, GETVAL), 0) << "it is there";
    theAgeOfSets = 60;
    EXPECT_TRUE(make(segment)) << "whoever was making it was killed";
    theAgeOfSets = 0;
    EXPECT_NE(segment.semId(), id);
    EXPECT_EQ(::semctl(id, 0, GETVAL), -1);
}

TEST_F(ShmSegment, aSetOfAnotherSizeIsRefusedAndStays) {
    theAgeOfSets = 60;
    const int id = ::semget(NwShmMsgQueueSegment::semKeyOf(port, 0), 4, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_GE(id, 0);
    NwShmMsgQueueSegment segment;
    errno = 0;
    EXPECT_FALSE(make(segment));
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(NwShmMsgQueueSegment::removeLeftovers(port, 1), 0);
    EXPECT_EQ(::semctl(id, 3, GETVAL), 0) << "it is there";
    ::semctl(id, 0, IPC_RMID);
    theAgeOfSets = 0;
}

TEST_F(ShmSegment, whatFailsInALeftoversPlaceIsTold) {
    const auto leave = [this] {
        Server server;
        start(server, false, false);
        server.kill();
    };
    NwShmMsgQueueSegment segment;
    leave();
    theSetWithoutRoom = 2;  // the first attempt finds the leftover
    errno = 0;
    EXPECT_FALSE(make(segment));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(setExists(0));
    theSetWithoutRoom = 0;
    EXPECT_EQ(NwShmMsgQueueSegment::removeLeftovers(port, 1), 1) << "the segment";
    leave();
    theSegmentWithoutRoom = 2;
    errno = 0;
    EXPECT_FALSE(make(segment));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(segmentExists(0));
    EXPECT_FALSE(setExists(0));
    theSegmentWithoutRoom = 0;
    EXPECT_TRUE(make(segment));
}

// --- waiting ---

class ShmQueueWait : public ShmSegment {
protected:
    ShmQueueWait() { EXPECT_TRUE(make(segment)); }

    std::unique_ptr<NwShmMsgQueueReader> newReader(bool nonBlocking = false) {
        return std::unique_ptr<NwShmMsgQueueReader>(new NwShmMsgQueueReader(
            segment.queue(), segment.capacity(), segment.semId(), 0, nonBlocking, false, true));
    }
    NwShmMsgQueueHeader& header() { return *static_cast<NwShmMsgQueueHeader*>(segment.queue()); }
    void waitUntilAsleep() {
        while (!(header().attention & NwShmSleeping)) std::this_thread::yield();
        // The mark is set just before the sleep; whether the sleep has begun changes nothing that is
        // promised.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }

    NwShmMsgQueueSegment segment;
    const EndlessSleeps endlessSleeps;
};

TEST_F(ShmQueueWait, aReadThatDoesNotBlockReturnsAtOnce) {
    auto reader = newReader(true);
    EXPECT_FALSE(reader->queueMgr().isBlockingRead());
    EXPECT_EQ(readFrom(*reader).result, NwShmReadNothing);
    auto other = newReader();
    EXPECT_TRUE(other->queueMgr().isBlockingRead());
    other->queueMgr().setBlockingRead(false);
    EXPECT_EQ(readFrom(*other).result, NwShmReadNothing);
}

TEST_F(ShmQueueWait, aBlockingReadIsWokenByAMessage) {
    auto reader = newReader();
    NwShmMsgQueueWriter writer(segment.queue(), segment.capacity(), segment.semId(), 0);
    for (int round = 0; round < 20; ++round) {
        Read read;
        std::thread sleeper([&] { read = readFrom(*reader); });
        waitUntilAsleep();
        EXPECT_TRUE(writer.write("wake up", 7));
        sleeper.join();
        EXPECT_EQ(read.bytes, "wake up");
        EXPECT_EQ(header().attention, 0u);
    }
    EXPECT_EQ(::semctl(segment.semId(), 0, GETVAL), 0) << "no wake-up is left over";
}

TEST_F(ShmQueueWait, aMessageForSomebodyAwakeTouchesNoSemaphore) {
    auto reader = newReader();
    NwShmMsgQueueWriter writer(segment.queue(), segment.capacity(), segment.semId(), 0);
    for (int i = 0; i < 100; ++i) {
        writer.write("x", 1);
        readFrom(*reader);
    }
    EXPECT_EQ(::semctl(segment.semId(), 0, GETVAL), 0);
}

TEST_F(ShmQueueWait, aBlockingReadIsWokenByTheEnd) {
    for (int goAway : {NwShmGoAwayStopped, NwShmGoAwayDismissed}) {
        segment.remove();
        ASSERT_TRUE(make(segment));
        auto reader = newReader();
        NwShmMsgQueueWriter writer(segment.queue(), segment.capacity(), segment.semId(), 0);
        Read read;
        std::thread sleeper([&] { read = readFrom(*reader); });
        waitUntilAsleep();
        writer.sendAway(goAway);
        sleeper.join();
        EXPECT_EQ(read.result, goAway == 2 ? 4 : 3);
    }
}

TEST_F(ShmQueueWait, aBlockingReadEndsWhenTheSetIsRemoved) {
    auto reader = newReader();
    Read read;
    std::thread sleeper([&] { read = readFrom(*reader); });
    waitUntilAsleep();
    ::semctl(segment.semId(), 0, IPC_RMID);
    sleeper.join();
    EXPECT_EQ(read.result, NwShmReadDismissed);
}

TEST_F(ShmQueueWait, aBlockingReadReturnsAfterASignal) {
    auto reader = newReader();
    static volatile sig_atomic_t signals;
    signals = 0;
    struct sigaction action = {};
    struct sigaction former;
    action.sa_handler = [](int) { signals = signals + 1; };
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGUSR1, &action, &former);
    Read read;
    std::atomic<bool> isBack{false};
    std::thread sleeper([&] {
        read = readFrom(*reader);
        isBack = true;
    });
    const pthread_t sleeping = sleeper.native_handle();
    waitUntilAsleep();
    while (!isBack) {
        ::pthread_kill(sleeping, SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    sleeper.join();
    ::sigaction(SIGUSR1, &former, nullptr);
    EXPECT_EQ(read.result, NwShmReadNothing);
    EXPECT_EQ(read.length, 0);
    EXPECT_EQ(header().attention, 0u);
}

TEST_F(ShmQueueWait, aWakeUpOfFormerDaysEndsNothing) {
    auto reader = newReader();
    NwShmMsgQueueWriter writer(segment.queue(), segment.capacity(), segment.semId(), 0);
    sembuf post = {0, 5, 0};
    ASSERT_EQ(::semop(segment.semId(), &post, 1), 0);
    Read read;
    std::thread sleeper([&] { read = readFrom(*reader); });
    while (::semctl(segment.semId(), 0, GETVAL) != 0) std::this_thread::yield();
    waitUntilAsleep();
    writer.write("real", 4);
    sleeper.join();
    EXPECT_EQ(read.bytes, "real");
}

TEST_F(ShmQueueWait, aSemaphoreThatCannotCountHigherHoldsNoWriterUp) {
    ::semctl(segment.semId(), 0, SETVAL, 32767);
    header().attention = NwShmSleeping;
    NwShmMsgQueueWriter writer(segment.queue(), segment.capacity(), segment.semId(), 0);
    EXPECT_TRUE(writer.write("x", 1));
    segment.remove();
}

// Neither dead nor alive is what cannot be asked; and where there is no sleep, a reader looks again and
// again.
TEST_F(ShmQueueWait, aReaderThatMayNotUseTheSetGetsItsMessagesAllTheSame) {
    NwShmMsgQueueWriter writer(segment.queue(), segment.capacity(), segment.semId(), 0);
    theSetsAreForbidden = true;
    auto reader = newReader();
    reader->setSegmentId(segment.shmId());
    Read read;
    std::thread sleeper([&] { read = readFrom(*reader); });
    waitUntilAsleep();
    EXPECT_TRUE(writer.write("x", 1));
    sleeper.join();
    EXPECT_EQ(read.bytes, "x");
    EXPECT_TRUE(reader->isServerAlive());
    reader->queueMgr().setBlockingRead(false);
    EXPECT_EQ(readFrom(*reader).result, NwShmReadNothing);
    reader.reset();
    theSetsAreForbidden = false;
    EXPECT_TRUE(setExists(0));
    EXPECT_TRUE(segmentExists(0));
}

// --- death of the server ---

class ShmQueueDeath : public ShmSegment {
protected:
    std::unique_ptr<NwShmMsgQueueReader> readerOf(Server& server, bool nonBlocking) {
        std::unique_ptr<NwShmMsgQueueReader> reader(
            new NwShmMsgQueueReader(server.queue(), kCapacity, server.sem, 0, nonBlocking, false, true));
        reader->setSegmentId(server.shm);
        return reader;
    }

    const EndlessSleeps endlessSleeps;
};

TEST_F(ShmQueueDeath, aSleepingReaderLearnsItAndClearsAway) {
    for (bool marks : {false, true}) {
        Server server;
        start(server, false, marks);
        auto reader = readerOf(server, false);
        EXPECT_TRUE(reader->isServerAlive());
        Read read;
        std::thread sleeper([&] { read = readFrom(*reader); });
        const auto& attention = reinterpret_cast<NwShmMsgQueueHeader*>(server.queue())->attention;
        while (!(attention & NwShmSleeping)) std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        server.kill();
        sleeper.join();
        EXPECT_EQ(read.result, NwShmReadDismissed);
        EXPECT_FALSE(reader->isServerAlive());
        EXPECT_FALSE(setExists(0));
        EXPECT_FALSE(segmentExists(0));
    }
}

TEST_F(ShmQueueDeath, lastWordsComeFirst) {
    for (bool nonBlocking : {false, true}) {
        Server server;
        start(server, true, true);
        auto reader = readerOf(server, nonBlocking);
        server.kill();
        EXPECT_EQ(readFrom(*reader).bytes, "last words");
        EXPECT_EQ(readFrom(*reader).result, NwShmReadDismissed);
        EXPECT_EQ(readFrom(*reader).result, NwShmReadDismissed);
    }
}

// The reader has found nothing, then a last message comes and the server dies, then the reader asks for its
// life.
TEST_F(ShmQueueDeath, lastWordsAfterTheFirstLookComeFirstToo) {
    Server server;
    start(server, false, true);
    auto reader = readerOf(server, true);
    theInterlude = [&] {
        NwShmMsgQueueWriter(server.queue(), kCapacity, -1, 0).write("last words", 10);
        server.kill();
    };
    theInterludeIsDue = true;
    EXPECT_EQ(readFrom(*reader).bytes, "last words");
    EXPECT_EQ(readFrom(*reader).result, NwShmReadDismissed);
}

TEST_F(ShmQueueDeath, aPollingReaderLearnsIt) {
    Server server;
    start(server, false, true);
    auto reader = readerOf(server, true);
    EXPECT_EQ(readFrom(*reader).result, NwShmReadNothing);
    server.kill();
    Read read;
    do {
        read = readFrom(*reader);
    } while (read.result == NwShmReadNothing);
    EXPECT_EQ(read.result, NwShmReadDismissed);
    EXPECT_FALSE(setExists(0));
}

TEST_F(ShmQueueDeath, aReaderThatDoesNotReadAnyMoreClearsAwayAtItsEnd) {
    Server server;
    start(server, true, false);
    auto reader = readerOf(server, false);
    server.kill();
    EXPECT_TRUE(setExists(0));
    reader.reset();
    EXPECT_FALSE(setExists(0));
    EXPECT_FALSE(segmentExists(0));
}

TEST_F(ShmQueueDeath, aReaderThatMayNotClearAwayLeavesTheSet) {
    Server server;
    start(server, false, true);
    {
        NwShmMsgQueueReader reader(server.queue(), kCapacity, server.sem, 0, false, false, false);
        server.kill();
        EXPECT_EQ(readFrom(reader).result, NwShmReadDismissed);
    }
    EXPECT_TRUE(setExists(0));
    EXPECT_EQ(NwShmMsgQueueSegment::removeLeftovers(port, 1), 1);
}

TEST_F(ShmQueueDeath, theEndOfALivingServersReaderRemovesNothing) {
    Server server;
    start(server, false, false);
    readerOf(server, false).reset();
    EXPECT_TRUE(setExists(0));
    EXPECT_TRUE(segmentExists(0));
    server.kill();
    EXPECT_EQ(NwShmMsgQueueSegment::removeLeftovers(port, 1), 2);
}

// What a server sends may name any set: one that cannot be its own says nothing and is left alone, and so is
// the segment.
TEST_F(ShmQueueDeath, aSetOfAnotherSizeIsNoSignOfDeath) {
    const int foreign = ::semget(IPC_PRIVATE, 3, 0600);
    ASSERT_GE(foreign, 0);
    Server server;
    start(server, false, false);
    server.kill();
    {
        NwShmMsgQueueReader reader(server.queue(), kCapacity, foreign, 0, true, false, true);
        reader.setSegmentId(server.shm);
        EXPECT_TRUE(reader.isServerAlive());
        EXPECT_EQ(readFrom(reader).result, NwShmReadNothing);
    }
    EXPECT_EQ(::semctl(foreign, 2, GETVAL), 0) << "it is there";
    EXPECT_TRUE(segmentExists(0));
    ::semctl(foreign, 0, IPC_RMID);
    EXPECT_EQ(NwShmMsgQueueSegment::removeLeftovers(port, 1), 2);
}

TEST_F(ShmQueueDeath, aSetOfAnotherMakerThanTheSegmentsIsLeftAlone) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to become another user";
    const int key = NwShmMsgQueueSegment::semKeyOf(port, 7);
    const ChildResult result = runInChild([key] {
        if (::setuid(12345) != 0) ::_exit(9);
        ::_exit(::semget(key, 2, IPC_CREAT | IPC_EXCL | 0666) >= 0 ? 0 : 1);
    });
    if (result.exitedWith(9)) GTEST_SKIP() << "cannot become another user here";
    ASSERT_TRUE(result.exitedWith(0)) << result.status;
    const int foreign = ::semget(key, 0, 0);
    Server server;
    start(server, false, false);
    server.kill();
    {
        NwShmMsgQueueReader reader(server.queue(), kCapacity, foreign, 0, true, false, true);
        reader.setSegmentId(server.shm);
        EXPECT_EQ(readFrom(reader).result, NwShmReadDismissed);
    }
    EXPECT_EQ(::semctl(foreign, 1, GETVAL), 0) << "it is there";
    EXPECT_TRUE(segmentExists(0));
    ::semctl(foreign, 0, IPC_RMID);
    EXPECT_EQ(NwShmMsgQueueSegment::removeLeftovers(port, 1), 2);
}

TEST_F(ShmQueueDeath, withoutASoundQueueNothingIsClearedAway) {
    Server server;
    start(server, false, false);
    server.kill();
    const auto readerOfAShorterQueue = [&] {
        NwShmMsgQueueReader reader(server.queue(), kCapacity - 128, server.sem, 0, true, false, true);
        reader.setSegmentId(server.shm);
        EXPECT_EQ(readFrom(reader).result, NwShmReadDismissed);
    };
    readerOfAShorterQueue();
    EXPECT_TRUE(setExists(0));
    EXPECT_TRUE(segmentExists(0));
    EXPECT_EQ(NwShmMsgQueueSegment::removeLeftovers(port, 1), 2);
}

// --- both sides at once ---

// Messages whose length and every byte follow from their number: a loss, a repetition, a torn or mixed-up one
// shows.
class Traffic {
public:
    explicit Traffic(unsigned int longest) : myLongest(longest) {}

    // The message with this number, in `bytes`.
    unsigned int make(std::uint32_t number, char* bytes) const {
        const unsigned int length = 8 + number * 2654435761u % (myLongest - 7);
        std::memset(bytes, static_cast<int>(number * 37 + length), length);
        std::memcpy(bytes, &number, sizeof number);
        const std::uint32_t sum = checksum(bytes, length);
        std::memcpy(bytes + 4, &sum, sizeof sum);
        return length;
    }

    bool isMessage(std::uint32_t number, const char* bytes, int length) const {
        std::uint32_t told;
        std::uint32_t sum;
        if (length < 8 || static_cast<unsigned int>(length) > myLongest) return false;
        std::memcpy(&told, bytes, sizeof told);
        std::memcpy(&sum, bytes + 4, sizeof sum);
        return told == number &&
               static_cast<unsigned int>(length) == 8 + number * 2654435761u % (myLongest - 7) &&
               sum == checksum(bytes, static_cast<unsigned int>(length));
    }

private:
    // Over all but its own four bytes, eight at a time.
    static std::uint32_t checksum(const char* bytes, unsigned int length) {
        std::uint64_t sum = length;
        std::uint32_t number;
        std::memcpy(&number, bytes, sizeof number);
        sum = (sum ^ number) * 0x9E3779B97F4A7C15u;
        for (unsigned int i = 8; i < length; i += 8) {
            std::uint64_t word = 0;
            std::memcpy(&word, bytes + i, std::min(8u, length - i));
            sum = ((sum << 7 | sum >> 57) ^ word) * 0x9E3779B97F4A7C15u;
        }
        return static_cast<std::uint32_t>(sum >> 32);
    }

    unsigned int myLongest;
};

void writeAll(NwShmMsgQueueWriter& writer, const Traffic& traffic, std::uint32_t count) {
    alignas(8) static thread_local char bytes[4096];
    for (std::uint32_t number = 0; number < count; ++number) {
        const unsigned int length = traffic.make(number, bytes);
        while (!writer.put(bytes, length, nullptr, 0)) {
            writer.publish();
            std::this_thread::yield();
        }
        // Single messages, and batches of all sizes.
        if (number % 16 < 8 || number % 5 == 0) writer.publish();
    }
    writer.publish();
}

// The number of messages that came as they should, until one did not.
std::uint32_t readAll(NwShmMsgQueueReader& reader, const Traffic& traffic, std::uint32_t count) {
    alignas(8) static thread_local char bytes[4096];
    std::uint32_t number = 0;
    while (number < count) {
        int result;
        const int length = reader.read(bytes, sizeof bytes / 8, &result);
        if (result == NwShmReadNothing) {
            std::this_thread::yield();
            continue;
        }
        if (result != NwShmReadMessage || !traffic.isMessage(number, bytes, length)) break;
        ++number;
    }
    return number;
}

class ShmQueueTraffic : public ShmSegment, public testing::WithParamInterface<bool> {
    const EndlessSleeps endlessSleeps;
};

std::string nameOfWait(const testing::TestParamInfo<bool>& info) {
    return info.param ? "polling" : "sleeping";
}

TEST_P(ShmQueueTraffic, betweenThreadsEveryMessageComesWholeAndInOrder) {
    const std::uint32_t count = kUnderThreadSanitizer ? 10000 : 20000;
    NwShmMsgQueueSegment segment;
    ASSERT_TRUE(make(segment, 0, 32768));
    NwShmMsgQueueWriter writer(segment.queue(), segment.capacity(), segment.semId(), 0);
    NwShmMsgQueueReader reader(segment.queue(), segment.capacity(), segment.semId(), 0, GetParam(), false,
                               false);
    const Traffic traffic(2040);
    std::thread other([&] { writeAll(writer, traffic, count); });
    EXPECT_EQ(readAll(reader, traffic, count), count);
    other.join();
    EXPECT_EQ(reader.msgsRcvd(), count);
    EXPECT_EQ(reader.queueMgr().usedBytes(), 0u);
}

TEST_P(ShmQueueTraffic, betweenProcessesEveryMessageComesWholeAndInOrder) {
    const char* const wanted = std::getenv("CVUTIL_QUEUE_MESSAGES");
    const std::uint32_t count =
        wanted ? static_cast<std::uint32_t>(std::strtoul(wanted, nullptr, 10)) : 300000;
    NwShmMsgQueueSegment segment;
    ASSERT_TRUE(make(segment, 0, 65536));
    // Positions pass 2^32 under way, and places in the ring their end all the time.
    NwShmMsgQueueHeader& header = *static_cast<NwShmMsgQueueHeader*>(segment.queue());
    header.written = header.read = (1ull << 32) - 65536;
    const Traffic traffic(300);
    const pid_t child = ::fork();
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        NwShmMsgQueueReader reader(segment.queue(), segment.capacity(), segment.semId(), 0, GetParam(), false,
                                   false);
        ::_exit(readAll(reader, traffic, count) == count ? 0 : 1);
    }
    NwShmMsgQueueWriter writer(segment.queue(), segment.capacity(), segment.semId(), 0);
    writeAll(writer, traffic, count);
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

INSTANTIATE_TEST_SUITE_P(Waits, ShmQueueTraffic, testing::Bool(), nameOfWait);

// Each message is answered before the next: one lost wake-up, and this stands still.
TEST_F(ShmSegment, noWakeUpIsLostInPingPong) {
    const EndlessSleeps endlessSleeps;
    const int rounds = kUnderThreadSanitizer ? 3000 : 20000;
    NwShmMsgQueueSegment there;
    NwShmMsgQueueSegment back;
    ASSERT_TRUE(make(there, 0, 64));
    ASSERT_TRUE(make(back, 1, 64));
    std::thread other([&] {
        NwShmMsgQueueReader reader(there.queue(), there.capacity(), there.semId(), 0, false, false, false);
        NwShmMsgQueueWriter writer(back.queue(), back.capacity(), back.semId(), 0);
        for (int i = 0; i < rounds; ++i) {
            const std::string ball = readFrom(reader, 3).bytes;
            writer.write(ball.data(), static_cast<unsigned int>(ball.size()));
        }
    });
    NwShmMsgQueueWriter writer(there.queue(), there.capacity(), there.semId(), 0);
    NwShmMsgQueueReader reader(back.queue(), back.capacity(), back.semId(), 0, false, false, false);
    int returned = 0;
    for (int i = 0; i < rounds; ++i) {
        writer.write(&i, sizeof i);
        returned += readFrom(reader, 3).bytes == std::string(reinterpret_cast<const char*>(&i), sizeof i);
    }
    other.join();
    EXPECT_EQ(returned, rounds);
}

void spin(unsigned int turns) {
    for (volatile unsigned int i = 0; i < turns; i = i + 1) {
    }
}

// Each message comes when the reader has taken the last one and is about to sleep, now a little sooner, now
// later.
TEST_F(ShmSegment, noWakeUpIsLostOnTheBrinkOfSleep) {
    const EndlessSleeps endlessSleeps;
    const unsigned int messages = kUnderThreadSanitizer ? 3000 : 50000;
    NwShmMsgQueueSegment segment;
    ASSERT_TRUE(make(segment));
    NwShmMsgQueueWriter writer(segment.queue(), segment.capacity(), segment.semId(), 0);
    std::thread other([&] {
        for (unsigned int i = 0; i < messages; ++i) {
            while (writer.queueMgr().msgsRead() != i) {
            }
            writer.write(&i, sizeof i);
        }
    });
    NwShmMsgQueueReader reader(segment.queue(), segment.capacity(), segment.semId(), 0, false, false, false);
    for (unsigned int i = 0; i < messages; ++i) {
        int result;
        std::uint64_t room;
        reader.read(&room, 1, &result);
        spin(i % 251);
    }
    other.join();
    EXPECT_EQ(reader.msgsRcvd(), messages);
}

// The same with wishes to be notified in place of sleep: each is fulfilled once, by one side or the other.
TEST_F(ShmSegment, noNotificationIsLostOrDoubled) {
    const unsigned int messages = kUnderThreadSanitizer ? 2000 : 5000;
    NwShmMsgQueueSegment segment;
    ASSERT_TRUE(make(segment));
    NwShmMsgQueueWriter writer(segment.queue(), segment.capacity(), -1, 0);
    NwShmMsgQueueReader reader(segment.queue(), segment.capacity(), -1, 0, true, false, false);
    std::atomic<unsigned int> datagrams{0};
    std::thread other([&] {
        for (unsigned int i = 0; i < messages; ++i) {
            while (!writer.write(&i, sizeof i)) std::this_thread::yield();
            if (writer.takeNotify()) ++datagrams;
            if (i % 3 == 0) std::this_thread::yield();
        }
    });
    unsigned int read = 0;
    unsigned int wishes = 0;
    while (read < messages) {
        ++wishes;
        if (reader.queueMgr().setNotifyReader(reader.msgsRcvd() + 1)) ++datagrams;
        while (datagrams < wishes) std::this_thread::yield();
        ASSERT_EQ(datagrams, wishes);
        Read one = readFrom(reader);
        ASSERT_EQ(one.result, NwShmReadMessage) << "notified, so there is one";
        for (; one.result == NwShmReadMessage; one = readFrom(reader)) ++read;
    }
    other.join();
    EXPECT_EQ(datagrams, wishes);
}

}  // namespace

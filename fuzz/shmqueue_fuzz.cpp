// SPDX-License-Identifier: BSD-3-Clause
// Fuzz target for the queue in shared memory: what lies there is the other process's to change, at any time.
// Reader and writer work on memory of exactly the queue's size while an input changes it between their calls;
// each read is held against a model of what the header of cvShmMsgQueue.h promises. An input is
//
//     byte 0  size of the ring: 64 bytes doubled so often (modulo 5)
//          1  steps: a number (modulo 9), and what it needs, numbers least significant first
//               0  write: length, 2 bytes
//               1  read: room of the buffer in 8 bytes, 1 byte
//               2  change: place in the queue, 2 bytes; width modulo 8, 1 byte; up to 8 bytes
//               3  a new reader; 1 byte: odd to skip the backlog
//               4  a new writer
//               5  wish to be notified: how far ahead, 1 byte
//               6  go away: value, 1 byte
//               7  put without publishing: lengths of head and body, 1 byte each
//               8  publish
//
// An input that ends within a step goes on with zeros.
#include <cvutil/cvShmMsgQueue.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "input.h"

namespace {

// Memory of exactly the queue's size, so that the address sanitizer sees each byte beyond it; for builds
// without it there are marks on both sides.
class Memory {
public:
    explicit Memory(unsigned int ringBytes) : capacity(512 + ringBytes) {
        void* place = nullptr;
        if (::posix_memalign(&place, 128, kMargin + size()) != 0) std::abort();
        myBlock = static_cast<unsigned char*>(place);
        std::memset(myBlock, kMark, kMargin);
        std::memset(base(), 0, size());
        if (!NwShmMsgQueueMgr::format(base(), capacity, 5)) std::abort();
    }
    ~Memory() { std::free(myBlock); }
    Memory(const Memory&) = delete;
    Memory& operator=(const Memory&) = delete;

    unsigned char* base() { return myBlock + kMargin; }
    std::size_t size() const { return static_cast<std::size_t>(capacity) + 16; }
    std::uint64_t number(std::size_t place, std::size_t width) {
        std::uint64_t value = 0;
        std::memcpy(&value, base() + place, width);
        return value;
    }
    void expectMarks() {
        for (std::size_t i = 0; i < kMargin; ++i) expectEqual("byte before the queue", myBlock[i], kMark);
    }

    const long capacity;

private:
    static const std::size_t kMargin = 128;
    static const unsigned char kMark = 0xC3;

    unsigned char* myBlock;
};

// Where things are in a queue, told again so that a change of the layout shows.
enum Place : std::size_t {
    kMagic = 0,
    kLayout = 8,
    kRingBytes = 12,
    kGeneration = 16,
    kGoAway = 24,
    kWritten = 128,
    kMsgsWritten = 136,
    kRead = 256,
    kMsgsRead = 264,
    kRing = 512
};

// What a reader has to do, in the plainest words.
class ReaderModel {
public:
    ReaderModel(Memory& memory, bool skipsBacklog) : myMemory(memory) {
        const std::uint64_t ring = memory.number(kRingBytes, 4);
        const std::uint64_t magic = 0x3150524e54555643u;
        const std::size_t trailer = static_cast<std::size_t>(memory.capacity);
        isSound = memory.number(kMagic, 8) == magic && memory.number(kLayout, 4) == 1 && ring >= 64 &&
                  ring <= trailer - kRing && (ring & (ring - 1)) == 0 && memory.number(trailer, 8) == magic &&
                  memory.number(trailer + 8, 8) == memory.number(kGeneration, 8);
        if (!isSound) return;
        myRing = ring;
        myPosition = memory.number(kRead, 8);
        received = static_cast<unsigned int>(memory.number(kMsgsRead, 4));
        myKnown = myPosition;
        if (myPosition % 8 != 0) isSound = false;
        if (skipsBacklog && look())
            while (isSound && myKnown != myPosition) take(0);
    }

    // Length and result of the next read; the bytes are those at `bytes`.
    int read(std::uint64_t room) {
        if (look()) return take(room);
        if (myEnd < 0 && !isSound) myEnd = 3;
        const std::uint64_t goAway = isSound ? myMemory.number(kGoAway, 4) : 0;
        if (myEnd < 0 && goAway != 0) myEnd = goAway == 2 ? 4 : 3;
        result = myEnd < 0 ? 2 : myEnd;
        return 0;
    }

    bool isSound = false;
    unsigned int received = 0;
    int result = -1;
    const unsigned char* bytes = nullptr;

private:
    bool look() {
        if (!isSound) return false;
        if (myKnown == myPosition) {
            const std::uint64_t written = myMemory.number(kWritten, 8);
            if (written - myPosition > myRing || (written - myPosition) % 8 != 0) {
                isSound = false;
                return false;
            }
            myKnown = written;
        }
        return myKnown != myPosition;
    }

    int take(std::uint64_t room) {
        std::uint64_t start = myPosition;
        std::uint64_t length = lengthAt(start);
        if (length == 0xFFFFFFFF) {
            start += myRing - start % myRing;
            if (start - myPosition >= myKnown - myPosition) return giveUp();
            length = lengthAt(start);
        }
        const std::uint64_t whole = 8 + (length + 7) / 8 * 8;
        if (length == 0 || length > myRing / 2 - 8 || start % myRing + whole > myRing ||
            start + whole - myPosition > myKnown - myPosition)
            return giveUp();
        bytes = myMemory.base() + kRing + start % myRing + 8;
        myPosition = start + whole;
        ++received;
        result = length <= room ? 0 : 1;
        return length <= room ? static_cast<int>(length) : 0;
    }

    int giveUp() {
        isSound = false;
        result = myEnd = 3;
        return 0;
    }

    std::uint64_t lengthAt(std::uint64_t position) { return myMemory.number(kRing + position % myRing, 4); }

    Memory& myMemory;
    std::uint64_t myRing = 64;
    std::uint64_t myPosition = 0;
    std::uint64_t myKnown = 0;
    int myEnd = -1;
};

class Run {
public:
    explicit Run(Input& input) : myMemory(64u << input.number(1) % 5) {
        newReader(false);
        newWriter();
        while (!input.isAtEnd()) {
            step(input);
            myMemory.expectMarks();
        }
    }

private:
    void step(Input& input) {
        switch (input.number(1) % 9) {
            case 0:
                write(input.number(2));
                break;
            case 1:
                read(input.number(1));
                break;
            case 2:
                change(input);
                break;
            case 3:
                newReader(input.number(1) & 1);
                break;
            case 4:
                newWriter();
                break;
            case 5:
                myReader->queueMgr().setNotifyReader(myReader->msgsRcvd() + input.number(1));
                break;
            case 6:
                myWriter->sendAway(static_cast<int>(input.number(1)));
                break;
            case 7:
                put(input.number(1), input.number(1));
                break;
            default:
                myWriter->publish();
                myWriter->takeNotify();
        }
    }

    void newReader(bool skipsBacklog) {
        myReader.reset();
        myModel.reset(new ReaderModel(myMemory, skipsBacklog));
        myReader.reset(
            new NwShmMsgQueueReader(myMemory.base(), myMemory.capacity, -1, 0, false, skipsBacklog, true));
        expectReader();
    }

    void newWriter() { myWriter.reset(new NwShmMsgQueueWriter(myMemory.base(), myMemory.capacity, -1, 0)); }

    void read(unsigned int capacity8) {
        std::vector<std::uint64_t> buffer(capacity8);
        int result = -1;
        const int wanted = myModel->read(8ull * capacity8);
        const int length = myReader->read(buffer.data(), static_cast<int>(capacity8), &result);
        expectEqual("length", length, wanted);
        expectEqual("result", result, myModel->result);
        if (length > 0)
            expectEqual("bytes", std::memcmp(buffer.data(), myModel->bytes, static_cast<std::size_t>(length)),
                        0);
        expectReader();
    }

    void expectReader() {
        expectEqual("sound", myReader->queueMgr().isSound(), myModel->isSound);
        expectEqual("received", myReader->msgsRcvd(), myModel->received);
    }

    void write(unsigned int length) {
        const std::vector<char> message(length, 'm');
        if (!myWriter->write(message.data(), length)) return;
        if (length == 0 || length > myWriter->queueMgr().largestMessage())
            finding("length of a message taken", length, 0);
        // It is what lies right before the position that was published.
        const std::uint64_t start = myMemory.number(kWritten, 8) - (8 + (length + 7) / 8 * 8);
        const std::size_t place = kRing + start % myWriter->queueMgr().ringBytes();
        expectEqual("length in the ring", static_cast<long>(myMemory.number(place, 4)), length);
        expectEqual("message in the ring", std::memcmp(myMemory.base() + place + 8, message.data(), length),
                    0);
    }

    void put(unsigned int headLength, unsigned int bodyLength) {
        const std::vector<char> bytes(512, 'p');
        myWriter->put(bytes.data(), headLength, bytes.data(), bodyLength);
    }

    void change(Input& input) {
        const std::size_t place = input.number(2) % myMemory.size();
        const std::size_t width = std::min<std::size_t>(1 + input.number(1) % 8, myMemory.size() - place);
        for (std::size_t i = 0; i < width; ++i)
            myMemory.base()[place + i] = static_cast<unsigned char>(input.number(1));
    }

    Memory myMemory;
    std::unique_ptr<ReaderModel> myModel;
    std::unique_ptr<NwShmMsgQueueReader> myReader;
    std::unique_ptr<NwShmMsgQueueWriter> myWriter;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    Run run(input);
    return 0;
}

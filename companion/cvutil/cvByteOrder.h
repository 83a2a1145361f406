// SPDX-License-Identifier: BSD-3-Clause
// Numbers in messages: fields that can lie anywhere in a buffer and change their byte order on the way in and
// out.
//
//     NwNetU32* length = reinterpret_cast<NwNetU32*>(buffer + 3);
//     *length = packetLengthBytes;               // stored as 4 bytes, most significant first
//     std::uint32_t announcedBytes = *length;    // and back
//
// The order on the wire is a setting of the process: network order at the start, host order once it is
// switched off. Both ends of a connection must agree. A field is converted each time it is read or written,
// so it must be read under the setting it was written under.
#ifndef CVUTIL_CVBYTEORDER_H
#define CVUTIL_CVBYTEORDER_H

#include <atomic>
#include <cstdint>
#include <cstring>

#include <cvutil/cvExport.h>

// The setting behind the two functions below, which alone touch it.
extern NWUTIL_API std::atomic<int> NwNetworkByteOrderingSetting;

// 1 (the start value): fields are in network order. 0: in the order of this host. Any thread may ask.
inline int NwNetworkByteOrdering() {
    return NwNetworkByteOrderingSetting.load(std::memory_order_relaxed);
}

// Switches the order for the whole process: 0 for host order, anything else for network order. Any thread may
// call; which order a field gets that another thread writes at the same moment is open, so set it before
// traffic starts.
NWUTIL_API void NwSetNetworkByteOrdering(int on);

// A 16-bit and a 32-bit field. Each is as long as its number and has no alignment, so it may be laid over any
// bytes of any buffer with reinterpret_cast. Reading and writing whole fields is all it does: arithmetic
// happens on the numbers.
class NwNetU16 {
public:
    NwNetU16() = default;  // leaves the bytes as they are
    explicit NwNetU16(std::uint16_t value) { *this = value; }

    NwNetU16& operator=(std::uint16_t value) {
        value = swapped(value);
        std::memcpy(myBytes, &value, sizeof value);
        return *this;
    }

    operator std::uint16_t() const {
        std::uint16_t value;
        std::memcpy(&value, myBytes, sizeof value);
        return swapped(value);
    }

private:
    static std::uint16_t swapped(std::uint16_t value) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        return NwNetworkByteOrdering() ? __builtin_bswap16(value) : value;
#else
        return value;
#endif
    }

    unsigned char myBytes[2];
};

class NwNetU32 {
public:
    NwNetU32() = default;  // leaves the bytes as they are
    explicit NwNetU32(std::uint32_t value) { *this = value; }

    NwNetU32& operator=(std::uint32_t value) {
        value = swapped(value);
        std::memcpy(myBytes, &value, sizeof value);
        return *this;
    }

    operator std::uint32_t() const {
        std::uint32_t value;
        std::memcpy(&value, myBytes, sizeof value);
        return swapped(value);
    }

private:
    static std::uint32_t swapped(std::uint32_t value) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        return NwNetworkByteOrdering() ? __builtin_bswap32(value) : value;
#else
        return value;
#endif
    }

    unsigned char myBytes[4];
};

// These are laid over messages: size and alignment may not change.
static_assert(sizeof(NwNetU16) == 2 && alignof(NwNetU16) == 1, "NwNetU16 is exactly its two bytes");
static_assert(sizeof(NwNetU32) == 4 && alignof(NwNetU32) == 1, "NwNetU32 is exactly its four bytes");

#endif

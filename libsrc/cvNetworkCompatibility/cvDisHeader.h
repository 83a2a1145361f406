// SPDX-License-Identifier: BSD-3-Clause
// Not installed. Where packets carry what the library reads: the DIS PDU header (IEEE 1278.1, 12 bytes)
//
//     byte  0        1         2     3       4 .. 7      8 .. 9   10 .. 11
//           version  exercise  type  family  time stamp  length   padding or status
//
// and the length field in general.
#ifndef CVNETWORKCOMPATIBILITY_CVDISHEADER_H
#define CVNETWORKCOMPATIBILITY_CVDISHEADER_H

#include <cstdint>

#include <cvutil/cvByteOrder.h>

const int kDisHeaderSize = 12;
const int kDisVersionOffset = 0;
const int kDisExerciseOffset = 1;
const int kDisTypeOffset = 2;
const int kDisLengthOffset = 8;
const int kDisLengthWidth = 2;

// The length field of a packet of which `left` bytes are there: width 4 and 1 as such, every other width
// as 2 bytes. A field that does not lie inside these bytes counts as 0.
inline unsigned int nwPacketLength(const char* packet, int left, int offset, int width) {
    const int fieldBytes = width == 4 ? 4 : width == 1 ? 1 : 2;
    if (offset < 0 || left < fieldBytes || offset > left - fieldBytes) return 0;
    const char* field = packet + offset;
    if (width == 4) return static_cast<std::uint32_t>(*reinterpret_cast<const NwNetU32*>(field));
    if (width == 1) return static_cast<unsigned char>(*field);
    return static_cast<std::uint16_t>(*reinterpret_cast<const NwNetU16*>(field));
}

#endif

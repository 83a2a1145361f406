// SPDX-License-Identifier: BSD-3-Clause
// What the tool knows of DIS (IEEE 1278.1): the header of a PDU, the names of the types, and the walk
// that finds the PDUs of a datagram. All fields are in network byte order.
//
//   byte 0        1         2     3       4..7       8..9    10..11
//        version  exercise  type  family  timestamp  length  status, padding
#ifndef CVNET_PDU_H
#define CVNET_PDU_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace cvnet {

constexpr std::size_t kPduHeaderSize = 12;
constexpr std::size_t kPduLengthOffset = 8;

struct EntityId {
    unsigned site;
    unsigned application;
    unsigned entity;
};

/// Bytes that are, or claim to be, one PDU. It owns nothing. Fields beyond the end read as 0.
class PduView {
public:
    PduView() = default;
    PduView(const void* bytes, std::size_t lengthBytes)
        : bytes_(static_cast<const unsigned char*>(bytes)), lengthBytes_(lengthBytes) {}

    const unsigned char* bytes() const { return bytes_; }
    std::size_t lengthBytes() const { return lengthBytes_; }
    unsigned version() const { return byteAt(0); }
    unsigned exercise() const { return byteAt(1); }
    unsigned type() const { return byteAt(2); }

    /// The PDU's own length field, whatever number of bytes there really is.
    unsigned declaredLength() const { return u16At(kPduLengthOffset); }

    /// The identifier of the entity that the PDU is about or that issued it; nothing for types that
    /// carry none, or when the PDU ends before it.
    std::optional<EntityId> entity() const;

private:
    unsigned byteAt(std::size_t offset) const { return offset < lengthBytes_ ? bytes_[offset] : 0U; }
    unsigned u16At(std::size_t offset) const { return byteAt(offset) << 8 | byteAt(offset + 1); }

    const unsigned char* bytes_ = nullptr;
    std::size_t lengthBytes_ = 0;
};

/// Walks over a datagram by the length field of each PDU:
///
///     PduWalk walk(data, lengthBytes);
///     for (PduView pdu; walk.next(pdu);) use(pdu);
///     if (walk.rest().lengthBytes() != 0) ...   // what does not walk as PDUs
class PduWalk {
public:
    PduWalk(const void* datagram, std::size_t lengthBytes)
        : at_(static_cast<const unsigned char*>(datagram)), left_(lengthBytes) {}

    /// False at the end, and where what is left is no whole PDU (shorter than a header, or a length
    /// field below a header's size or beyond the end).
    bool next(PduView& pdu);

    /// What the walk has not given out.
    PduView rest() const { return PduView(at_, left_); }

private:
    const unsigned char* at_;
    std::size_t left_;
};

/// The type's name in IEEE 1278.1 ("Entity State"), "experimental" from 129 on, "reserved" else.
const char* pduTypeName(unsigned type);

/// "Entity State (1)".
std::string pduTypeText(unsigned type);

/// A type by its number or by its name; case, blanks and punctuation do not count, and neither does a
/// trailing "PDU". Nothing when there is no such type.
std::optional<unsigned> pduTypeFromText(const std::string& text);

/// "site:application:entity".
std::string entityText(const EntityId& id);

}  // namespace cvnet

#endif

// SPDX-License-Identifier: BSD-3-Clause
// The PDU header, the table of types and the walk over a datagram.
#include "pdu.h"

#include <cctype>
#include <cstdlib>
#include <iterator>

#include <fmt/format.h>

namespace cvnet {
namespace {

constexpr int kNoEntity = -1;
constexpr int kAfterHeader = 12;

struct PduType {
    const char* name;
    int entityOffset;  // where site, application and entity stand, two bytes each
};

// The index is the PDU type. Types whose first record names something else than an entity (a
// minefield, a synthetic object, an environmental process) or is not three 16-bit numbers have none.
constexpr PduType kTypes[] = {
    {"Other", kNoEntity},
    {"Entity State", kAfterHeader},
    {"Fire", kAfterHeader},
    {"Detonation", kAfterHeader},
    {"Collision", kAfterHeader},
    {"Service Request", kAfterHeader},
    {"Resupply Offer", kAfterHeader},
    {"Resupply Received", kAfterHeader},
    {"Resupply Cancel", kAfterHeader},
    {"Repair Complete", kAfterHeader},
    {"Repair Response", kAfterHeader},
    {"Create Entity", kAfterHeader},
    {"Remove Entity", kAfterHeader},
    {"Start/Resume", kAfterHeader},
    {"Stop/Freeze", kAfterHeader},
    {"Acknowledge", kAfterHeader},
    {"Action Request", kAfterHeader},
    {"Action Response", kAfterHeader},
    {"Data Query", kAfterHeader},
    {"Set Data", kAfterHeader},
    {"Data", kAfterHeader},
    {"Event Report", kAfterHeader},
    {"Comment", kAfterHeader},
    {"Electromagnetic Emission", kAfterHeader},
    {"Designator", kAfterHeader},
    {"Transmitter", kAfterHeader},
    {"Signal", kAfterHeader},
    {"Receiver", kAfterHeader},
    {"IFF", kAfterHeader},
    {"Underwater Acoustic", kAfterHeader},
    {"Supplemental Emission/Entity State", kAfterHeader},
    {"Intercom Signal", kAfterHeader},
    {"Intercom Control", kAfterHeader + 2},
    {"Aggregate State", kAfterHeader},
    {"IsGroupOf", kAfterHeader},
    {"Transfer Ownership", kAfterHeader},
    {"IsPartOf", kAfterHeader},
    {"Minefield State", kNoEntity},
    {"Minefield Query", kNoEntity},
    {"Minefield Data", kNoEntity},
    {"Minefield Response NACK", kNoEntity},
    {"Environmental Process", kNoEntity},
    {"Gridded Data", kNoEntity},
    {"Point Object State", kNoEntity},
    {"Linear Object State", kNoEntity},
    {"Areal Object State", kNoEntity},
    {"TSPI", kNoEntity},
    {"Appearance", kNoEntity},
    {"Articulated Parts", kNoEntity},
    {"LE Fire", kNoEntity},
    {"LE Detonation", kNoEntity},
    {"Create Entity-R", kAfterHeader},
    {"Remove Entity-R", kAfterHeader},
    {"Start/Resume-R", kAfterHeader},
    {"Stop/Freeze-R", kAfterHeader},
    {"Acknowledge-R", kAfterHeader},
    {"Action Request-R", kAfterHeader},
    {"Action Response-R", kAfterHeader},
    {"Data Query-R", kAfterHeader},
    {"Set Data-R", kAfterHeader},
    {"Data-R", kAfterHeader},
    {"Event Report-R", kAfterHeader},
    {"Comment-R", kAfterHeader},
    {"Record-R", kAfterHeader},
    {"Set Record-R", kAfterHeader},
    {"Record Query-R", kAfterHeader},
    {"Collision-Elastic", kAfterHeader},
    {"Entity State Update", kAfterHeader},
    {"Directed Energy Fire", kAfterHeader},
    {"Entity Damage Status", kAfterHeader},
    {"Information Operations Action", kAfterHeader},
    {"Information Operations Report", kAfterHeader},
    {"Attribute", kNoEntity},
};
constexpr unsigned kNamedTypes = std::size(kTypes);
static_assert(kNamedTypes == 73, "types 0 to 72 have names");

constexpr unsigned kFirstExperimental = 129;
constexpr unsigned kLastType = 255;

// "Start/Resume PDU" and "start-resume" are the same word to a person; "Data-R" keeps its R.
std::string lettersOf(const std::string& text) {
    std::string letters;
    for (unsigned char c : text) {
        if (std::isalnum(c)) letters += static_cast<char>(std::tolower(c));
    }
    const std::string ending = "pdu";
    if (letters.size() > ending.size() && letters.compare(letters.size() - 3, 3, ending) == 0) {
        letters.resize(letters.size() - ending.size());
    }
    return letters;
}

std::optional<unsigned> typeNumber(const std::string& text) {
    if (text.empty() || text.size() > 3) return std::nullopt;
    for (unsigned char c : text) {
        if (!std::isdigit(c)) return std::nullopt;
    }
    const unsigned long number = std::strtoul(text.c_str(), nullptr, 10);
    if (number > kLastType) return std::nullopt;
    return static_cast<unsigned>(number);
}

}  // namespace

std::optional<EntityId> PduView::entity() const {
    if (type() >= kNamedTypes || kTypes[type()].entityOffset == kNoEntity) return std::nullopt;
    const std::size_t offset = static_cast<std::size_t>(kTypes[type()].entityOffset);
    constexpr std::size_t idSize = 6;
    if (lengthBytes_ < offset + idSize) return std::nullopt;
    return EntityId{u16At(offset), u16At(offset + 2), u16At(offset + 4)};
}

bool PduWalk::next(PduView& pdu) {
    if (left_ < kPduHeaderSize) return false;
    const std::size_t length = rest().declaredLength();
    if (length < kPduHeaderSize || length > left_) return false;
    pdu = PduView(at_, length);
    at_ += length;
    left_ -= length;
    return true;
}

const char* pduTypeName(unsigned type) {
    if (type < kNamedTypes) return kTypes[type].name;
    return type >= kFirstExperimental && type <= kLastType ? "experimental" : "reserved";
}

std::string pduTypeText(unsigned type) {
    return fmt::format("{} ({})", pduTypeName(type), type);
}

std::optional<unsigned> pduTypeFromText(const std::string& text) {
    if (const auto number = typeNumber(text)) return number;
    const std::string wanted = lettersOf(text);
    for (unsigned type = 0; type < kNamedTypes; ++type) {
        if (!wanted.empty() && lettersOf(kTypes[type].name) == wanted) return type;
    }
    return std::nullopt;
}

std::string entityText(const EntityId& id) {
    return fmt::format("{}:{}:{}", id.site, id.application, id.entity);
}

}  // namespace cvnet

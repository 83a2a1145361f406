// SPDX-License-Identifier: BSD-3-Clause
// Counting, and the two forms in which counts are shown.
#include "tally.h"

#include <fmt/format.h>

#include "address.h"
#include "text.h"

namespace cvnet {
namespace {

// As wide as a terminal of 80 columns shows; the few longer names push their row's figures to the right.
constexpr const char* kRow = "{:<8} {:<24} {:>8} {:>9} {:>10} {:>8} {:>6}\n";

// Over less time than this a rate says nothing.
constexpr double kLeastSeconds = 0.001;

std::string rateText(double count, double seconds) {
    return seconds >= kLeastSeconds ? fmt::format("{:.1f}", count / seconds) : "-";
}

std::string headings() {
    return fmt::format(kRow, "by", "", "PDUs", "datagrams", "bytes", "PDUs/s", "kB/s");
}

std::string row(const char* by, const std::string& what, const Count& count, double seconds) {
    constexpr double bytesPerKilobyte = 1000.0;
    const bool isStream = count.pdus != 0 && count.datagrams == 0;
    return fmt::format(kRow, by, what, count.pdus, isStream ? "-" : std::to_string(count.datagrams),
                       count.bytes, rateText(static_cast<double>(count.pdus), seconds),
                       rateText(static_cast<double>(count.bytes) / bytesPerKilobyte, seconds));
}

std::string optionalRow(const char* by, const std::string& what, const Count& count, double seconds) {
    return count.pdus == 0 ? "" : row(by, what, count, seconds);
}

void putCounts(nlohmann::ordered_json& json, const Count& count) {
    json["pdus"] = count.pdus;
    if (count.pdus != 0 && count.datagrams == 0)
        json["datagrams"] = nullptr;
    else
        json["datagrams"] = count.datagrams;
    json["bytes"] = count.bytes;
}

}  // namespace

void Count::add(std::uint64_t lengthBytes, std::uint64_t datagramNumber) {
    ++pdus;
    bytes += lengthBytes;
    if (datagramNumber != lastDatagram) ++datagrams;
    lastDatagram = datagramNumber;
}

PacketKind kindOf(const PduView& packet) {
    const std::size_t declared = packet.declaredLength();
    if (declared == packet.lengthBytes() && declared >= kPduHeaderSize) return PacketKind::wholePdu;
    return declared > packet.lengthBytes() ? PacketKind::cutPdu : PacketKind::undividedRest;
}

void Tally::add(const PduView& packet, std::uint64_t datagramNumber) {
    const std::uint64_t length = packet.lengthBytes();
    total_.add(length, datagramNumber);
    exercises_[packet.exercise()].add(length, datagramNumber);
    switch (kindOf(packet)) {
        case PacketKind::wholePdu:
            types_[packet.type()].add(length, datagramNumber);
            break;
        case PacketKind::undividedRest:
            rests_.add(length, datagramNumber);
            break;
        case PacketKind::cutPdu:
            cut_.add(length, datagramNumber);
            break;
    }
}

void Tally::add(const PduView& packet, std::uint64_t datagramNumber, const Endpoint& source) {
    add(packet, datagramNumber);
    auto known = sources_.find(source);
    if (known == sources_.end() && sources_.size() < kMaxSources)
        known = sources_.emplace(source, Count()).first;
    Count& count = known != sources_.end() ? known->second : otherSources_;
    count.add(packet.lengthBytes(), datagramNumber);
}

std::string Tally::packetsText() const {
    const std::uint64_t odd = rests_.pdus + cut_.pdus;
    std::string text = counted(wholePdus(), "PDU");
    if (odd != 0)
        text += fmt::format(" and {} that {} no whole PDU", counted(odd, "packet"), odd == 1 ? "is" : "are");
    return text;
}

std::string Tally::typeRows(double seconds) const {
    std::string rows;
    for (const auto& [type, count] : types_) {
        rows += row("type", fmt::format("{:>3} {}", type, pduTypeName(type)), count, seconds);
    }
    rows += optionalRow("type", "  - undivided rest", rests_, seconds);
    rows += optionalRow("type", "  - cut PDU", cut_, seconds);
    return rows;
}

std::string Tally::typeTable(double seconds) const {
    return headings() + typeRows(seconds) + row("total", "", total_, seconds);
}

std::string Tally::fullTable(double seconds) const {
    std::string table = headings() + typeRows(seconds);
    for (const auto& [exercise, count] : exercises_) {
        table += row("exercise", fmt::format("{:>3}", exercise), count, seconds);
    }
    for (const auto& [source, count] : sources_) {
        table += row("source", endpointText(source.first, source.second), count, seconds);
    }
    table += optionalRow("source", "others", otherSources_, seconds);
    return table + row("total", "", total_, seconds);
}

nlohmann::ordered_json Tally::typesJson() const {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const auto& [type, count] : types_) {
        nlohmann::ordered_json entry = {{"type", type}, {"name", pduTypeName(type)}};
        putCounts(entry, count);
        list.push_back(entry);
    }
    return list;
}

nlohmann::ordered_json Tally::exercisesJson() const {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const auto& [exercise, count] : exercises_) {
        nlohmann::ordered_json entry = {{"exercise", exercise}};
        putCounts(entry, count);
        list.push_back(entry);
    }
    return list;
}

nlohmann::ordered_json Tally::sourcesJson() const {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const auto& [source, count] : sources_) {
        nlohmann::ordered_json entry = {{"source", addressText(source.first)}, {"port", nullptr}};
        if (source.second != 0) entry["port"] = source.second;  // else nobody could tell
        putCounts(entry, count);
        list.push_back(entry);
    }
    return list;
}

}  // namespace cvnet

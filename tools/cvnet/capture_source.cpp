// SPDX-License-Identifier: BSD-3-Clause
// Datagram after datagram, pass after pass.
#include "capture_source.h"

#include <algorithm>

#include <fmt/format.h>

#include "failure.h"
#include "text.h"

namespace cvnet {
namespace {

FrameCounts sum(const FrameCounts& a, const FrameCounts& b) {
    FrameCounts result;
    result.datagrams = a.datagrams + b.datagrams;
    result.other = a.other + b.other;
    result.cut = a.cut + b.cut;
    result.malformed = a.malformed + b.malformed;
    result.fragments = a.fragments + b.fragments;
    result.reassembled = a.reassembled + b.reassembled;
    result.incomplete = a.incomplete + b.incomplete;
    return result;
}

void addNote(std::vector<std::string>& notes, std::uint64_t count, const char* singular, const char* what) {
    if (count != 0) notes.push_back(fmt::format("{} {}", counted(count, singular), what));
}

}  // namespace

CaptureSource::CaptureSource(const std::string& path, std::uint64_t passes)
    : path_(path),
      passesLeft_(passes),
      forEver_(passes == 0),
      reader_(std::make_unique<CaptureReader>(path)) {}

bool CaptureSource::advance() {
    for (;;) {
        if (walk_ && takePacket()) return true;
        if (!nextDatagram() && !nextPass()) return false;
    }
}

bool CaptureSource::takePacket() {
    PduView pdu;
    const bool whole = walk_->next(pdu);
    if (!whole) {
        pdu = walk_->rest();
        walk_.reset();
        if (pdu.lengthBytes() == 0) return false;
    }
    const std::size_t offset =
        static_cast<std::size_t>(pdu.bytes() - reinterpret_cast<unsigned char*>(datagram_.data()));
    current_.bytes = datagram_.data() + offset;
    current_.lengthBytes = pdu.lengthBytes();
    current_.alone = !whole;
    return true;
}

bool CaptureSource::nextDatagram() {
    CapturedDatagram captured;
    if (!reader_->next(captured)) return false;
    if (datagramsInPass_ == 0) firstTime_ = captured.timeNanoseconds;
    ++datagramsInPass_;
    // A clock that was set back while recording must not hold up what follows.
    offsetSeconds_ = std::max(0.0, static_cast<double>(captured.timeNanoseconds - firstTime_) * 1e-9);
    longestOffset_ = std::max(longestOffset_, offsetSeconds_);
    const Bytes payload = captured.udp.payload;
    if (payload.size == 0) {
        ++emptyDatagrams_;
        walk_.reset();
        return true;
    }
    datagram_.assign(payload.data, payload.data + payload.size);
    walk_.emplace(datagram_.data(), datagram_.size());
    return true;
}

bool CaptureSource::nextPass() {
    if (reader_->counts().datagrams == emptyDatagrams_ && passStartSeconds_ == 0.0) {
        const FrameCounts counts = reader_->counts();
        throw Failure(fmt::format(
            "{} holds no UDP datagram over IPv4 to send ({} in it)", printable(path_),
            counted(counts.other + counts.cut + counts.malformed + counts.fragments, "other frame")));
    }
    if (!forEver_ && --passesLeft_ == 0) return false;
    addCounts();
    // The next pass follows after the mean distance of two datagrams.
    const double distance =
        datagramsInPass_ > 1 ? longestOffset_ / static_cast<double>(datagramsInPass_ - 1) : 1.0;
    passStartSeconds_ += longestOffset_ + distance;
    datagramsInPass_ = 0;
    longestOffset_ = 0.0;
    reader_ = std::make_unique<CaptureReader>(path_);
    return true;
}

void CaptureSource::addCounts() {
    finished_ = sum(finished_, reader_->counts());
}

Packet CaptureSource::packet() {
    return current_;
}

std::string CaptureSource::description() const {
    return printable(path_);
}

std::vector<std::string> CaptureSource::notes() const {
    const FrameCounts counts = sum(finished_, reader_->counts());
    std::vector<std::string> notes;
    addNote(notes, counts.other, "frame", "that are not UDP over IPv4 were left out");
    addNote(notes, counts.cut, "frame", "of which the recorder kept only a part were left out");
    addNote(notes, counts.malformed, "frame", "with contradicting lengths were left out");
    addNote(notes, counts.reassembled, "datagram", "put together from IPv4 fragments");
    addNote(notes, counts.incomplete, "fragmented datagram", "with pieces missing or overlapping left out");
    addNote(notes, emptyDatagrams_, "empty datagram", "left out");
    return notes;
}

}  // namespace cvnet

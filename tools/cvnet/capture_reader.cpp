// SPDX-License-Identifier: BSD-3-Clause
// A capture file, frame by frame.
#include "capture_reader.h"

#include <pcap/pcap.h>

#include <fmt/format.h>

#include "failure.h"
#include "text.h"

namespace cvnet {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1000000000;

// libpcap names the file in some of its texts and not in others.
[[noreturn]] void failToRead(const std::string& path, std::string reason) {
    if (reason.compare(0, path.size() + 2, path + ": ") == 0) reason.erase(0, path.size() + 2);
    throw Failure(fmt::format("cannot read the capture {}: {}", printable(path), oneLine(reason)));
}

std::string linkTypeText(int linkType) {
    const char* description = pcap_datalink_val_to_description_or_dlt(linkType);
    return fmt::format("link type {} is not read (Ethernet, Linux cooked, raw IPv4 and loopback are)",
                       description);
}

}  // namespace

void CaptureReader::Close::operator()(pcap* handle) const {
    pcap_close(handle);
}

CaptureReader::CaptureReader(const std::string& path) : path_(path) {
    char reason[PCAP_ERRBUF_SIZE] = "";
    handle_.reset(pcap_open_offline_with_tstamp_precision(path.c_str(), PCAP_TSTAMP_PRECISION_NANO, reason));
    if (!handle_) failToRead(path_, reason);
    const int linkType = pcap_datalink(handle_.get());
    if (!FrameParser::reads(linkType)) failToRead(path_, linkTypeText(linkType));
    parser_ = std::make_unique<FrameParser>(linkType);
}

bool CaptureReader::next(CapturedDatagram& datagram) {
    for (;;) {
        pcap_pkthdr* header = nullptr;
        const unsigned char* bytes = nullptr;
        const int result = pcap_next_ex(handle_.get(), &header, &bytes);
        if (result == PCAP_ERROR_BREAK) return false;
        if (result != 1) failToRead(path_, pcap_geterr(handle_.get()));
        if (!parser_->parse(Bytes{bytes, header->caplen}, datagram.udp)) continue;
        // With nanosecond precision libpcap puts nanoseconds where the structure says microseconds.
        datagram.timeNanoseconds =
            static_cast<std::int64_t>(header->ts.tv_sec) * kNanosecondsPerSecond + header->ts.tv_usec;
        return true;
    }
}

}  // namespace cvnet

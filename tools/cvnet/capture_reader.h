// SPDX-License-Identifier: BSD-3-Clause
// Reads the UDP datagrams of a capture file (pcap or pcapng) through libpcap.
#ifndef CVNET_CAPTURE_READER_H
#define CVNET_CAPTURE_READER_H

#include <cstdint>
#include <memory>
#include <string>

#include "frame.h"

struct pcap;

namespace cvnet {

struct CapturedDatagram {
    std::int64_t timeNanoseconds = 0;  // since the epoch, as recorded
    UdpDatagram udp;                   // its payload is lent until the next call
};

class CaptureReader {
public:
    /// Throws Failure when the file cannot be read, is no capture, or has a link type that is not read.
    explicit CaptureReader(const std::string& path);

    /// False at the end. Throws Failure where the file breaks off or is damaged.
    bool next(CapturedDatagram& datagram);

    FrameCounts counts() const { return parser_->counts(); }

private:
    struct Close {
        void operator()(pcap* handle) const;
    };

    std::string path_;
    std::unique_ptr<pcap, Close> handle_;
    std::unique_ptr<FrameParser> parser_;
};

}  // namespace cvnet

#endif

// SPDX-License-Identifier: BSD-3-Clause
// Writes packets to a capture file that protocol analysers open: classic pcap, raw IPv4 frames, times in
// nanoseconds, IPv4 and UDP headers with valid checksums.
#ifndef CVNET_CAPTURE_WRITER_H
#define CVNET_CAPTURE_WRITER_H

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "frame.h"

struct pcap;
struct pcap_dumper;

namespace cvnet {

class CaptureWriter {
public:
    /// Creates or empties the file. Throws Failure when that is refused.
    explicit CaptureWriter(const std::string& path);
    ~CaptureWriter();

    /// Adds one frame. `when` is wall-clock time; the payload has at most 65507 bytes.
    void write(const UdpDatagram& datagram, const timespec& when);

    /// Brings everything to the file. When the file refuses (a full disk), it is cut back to its last whole
    /// frame, so that what is there can be read, and Failure is thrown. Write and flush then do nothing more.
    void flush();

private:
    struct Close {
        void operator()(pcap* handle) const;
        void operator()(pcap_dumper* dumper) const;
    };

    [[noreturn]] void giveUp(const std::string& reason);

    std::string path_;
    std::unique_ptr<pcap, Close> handle_;
    std::unique_ptr<pcap_dumper, Close> dumper_;  // null once the file has refused
    std::vector<unsigned char> frame_;
    unsigned identification_ = 0;
    long long wholeSize_ = 0;  // bytes of the file up to its last flushed frame
    long long pendingSize_ = 0;
};

}  // namespace cvnet

#endif

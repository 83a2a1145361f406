// SPDX-License-Identifier: BSD-3-Clause
// IPv4 and UDP headers around packets, and a file that never keeps half a frame.
#include "capture_writer.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>

#include <fmt/format.h>
#include <pcap/pcap.h>

#include "descriptor.h"
#include "failure.h"
#include "text.h"

namespace cvnet {
namespace {

constexpr int kSnapLength = 65535;  // no IPv4 packet is longer
constexpr std::size_t kIpv4HeaderSize = 20;
constexpr std::size_t kUdpHeaderSize = 8;
constexpr std::size_t kHeadersSize = kIpv4HeaderSize + kUdpHeaderSize;
constexpr unsigned kVersionAndHeaderWords = 0x45;
constexpr unsigned kDontFragment = 0x4000;
constexpr unsigned kTimeToLive = 64;
constexpr unsigned kProtocolUdp = 17;
// Enough to make a write worth its system call.
constexpr long long kFlushSize = 65536;

void putU16(std::vector<unsigned char>& bytes, std::size_t offset, unsigned value) {
    bytes[offset] = static_cast<unsigned char>(value >> 8);
    bytes[offset + 1] = static_cast<unsigned char>(value);
}

void putU32(std::vector<unsigned char>& bytes, std::size_t offset, NwIpv4Addr value) {
    putU16(bytes, offset, value >> 16);
    putU16(bytes, offset + 2, value & 0xFFFFU);
}

// RFC 1071: the ones' complement of the ones' complement sum of 16-bit words.
unsigned long sumWords(const unsigned char* bytes, std::size_t size, unsigned long sum) {
    for (std::size_t i = 0; i + 1 < size; i += 2)
        sum += static_cast<unsigned long>(bytes[i]) << 8 | bytes[i + 1];
    if (size % 2 == 1) sum += static_cast<unsigned long>(bytes[size - 1]) << 8;
    return sum;
}

unsigned checksum(unsigned long sum) {
    while (sum >> 16 != 0) sum = (sum & 0xFFFFU) + (sum >> 16);
    return static_cast<unsigned>(~sum & 0xFFFFU);
}

void putIpv4Header(std::vector<unsigned char>& frame, const UdpDatagram& datagram, unsigned identification) {
    frame[0] = kVersionAndHeaderWords;
    putU16(frame, 2, static_cast<unsigned>(frame.size()));
    putU16(frame, 4, identification & 0xFFFFU);
    putU16(frame, 6, kDontFragment);
    frame[8] = kTimeToLive;
    frame[9] = kProtocolUdp;
    putU32(frame, 12, datagram.sourceHostOrder);
    putU32(frame, 16, datagram.destinationHostOrder);
    putU16(frame, 10, checksum(sumWords(frame.data(), kIpv4HeaderSize, 0)));
}

void putUdpHeader(std::vector<unsigned char>& frame, const UdpDatagram& datagram) {
    const std::size_t udpSize = frame.size() - kIpv4HeaderSize;
    putU16(frame, kIpv4HeaderSize, datagram.sourcePort);
    putU16(frame, kIpv4HeaderSize + 2, datagram.destinationPort);
    putU16(frame, kIpv4HeaderSize + 4, static_cast<unsigned>(udpSize));
    // The pseudo header: both addresses, the protocol and the UDP length.
    const unsigned long pseudo = sumWords(frame.data() + 12, 8, kProtocolUdp + udpSize);
    const unsigned sum = checksum(sumWords(frame.data() + kIpv4HeaderSize, udpSize, pseudo));
    putU16(frame, kIpv4HeaderSize + 6, sum == 0 ? 0xFFFFU : sum);  // 0 would mean "no checksum"
}

}  // namespace

void CaptureWriter::Close::operator()(pcap* handle) const {
    pcap_close(handle);
}
void CaptureWriter::Close::operator()(pcap_dumper* dumper) const {
    pcap_dump_close(dumper);
}

CaptureWriter::CaptureWriter(const std::string& path) : path_(path) {
    handle_.reset(pcap_open_dead_with_tstamp_precision(DLT_RAW, kSnapLength, PCAP_TSTAMP_PRECISION_NANO));
    if (!handle_) throw Failure("cannot write a capture: no memory");
    std::FILE* file = std::fopen(path.c_str(), "wbe");
    if (file == nullptr) {
        const int error = errno;
        throw Failure(fmt::format("cannot write {}: {}", printable(path), errorText(error)));
    }
    dumper_.reset(pcap_dump_fopen(handle_.get(), file));  // takes the file, on failure too
    if (!dumper_)
        throw Failure(
            fmt::format("cannot write {}: {}", printable(path), oneLine(pcap_geterr(handle_.get()))));
    flush();
}

CaptureWriter::~CaptureWriter() = default;

void CaptureWriter::write(const UdpDatagram& datagram, const timespec& when) {
    if (!dumper_) return;
    frame_.assign(kHeadersSize, 0);
    frame_.insert(frame_.end(), datagram.payload.data, datagram.payload.data + datagram.payload.size);
    putIpv4Header(frame_, datagram, ++identification_);
    putUdpHeader(frame_, datagram);

    pcap_pkthdr header{};
    header.ts.tv_sec = when.tv_sec;
    header.ts.tv_usec = when.tv_nsec;  // nanoseconds: the file says so
    header.caplen = static_cast<bpf_u_int32>(frame_.size());
    header.len = header.caplen;
    errno = 0;
    pcap_dump(reinterpret_cast<unsigned char*>(dumper_.get()), &header, frame_.data());
    const int error = errno;
    if (error != 0 && std::ferror(pcap_dump_file(dumper_.get())) != 0) giveUp(errorText(error));
    pendingSize_ += static_cast<long long>(frame_.size());
    if (pendingSize_ >= kFlushSize) flush();
}

void CaptureWriter::flush() {
    const bool headerPending = wholeSize_ == 0;
    if (!dumper_ || (pendingSize_ == 0 && !headerPending)) return;
    std::FILE* file = pcap_dump_file(dumper_.get());
    // Parts of the pending frames may have been written, and refused, before this call.
    const bool refusedBefore = std::ferror(file) != 0;
    errno = 0;
    if (pcap_dump_flush(dumper_.get()) != 0 || refusedBefore) {
        const int error = errno;
        giveUp(error != 0 ? errorText(error) : "the file refused the data");
    }
    pendingSize_ = 0;
    wholeSize_ = pcap_dump_ftell64(dumper_.get());  // -1 for a pipe
}

void CaptureWriter::giveUp(const std::string& reason) {
    const int fd = ::fileno(pcap_dump_file(dumper_.get()));
    const bool isCut = wholeSize_ < 0 || ::ftruncate(fd, wholeSize_) != 0;
    // What stdio still holds must not follow when the file is closed.
    const Descriptor nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (nowhere) ::dup2(nowhere.get(), fd);
    dumper_.reset();
    throw Failure(fmt::format("cannot write {}: {}{}", printable(path_), reason,
                              isCut ? "" : "; what is there ends with a whole packet"));
}

}  // namespace cvnet

// SPDX-License-Identifier: BSD-3-Clause
// How packets lie in a TCP stream: end to end, each with a length field that holds its whole length. Both
// ends have to agree.
#ifndef CVNET_STREAM_FORMAT_H
#define CVNET_STREAM_FORMAT_H

#include <cstddef>
#include <string>

#include "pdu.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace cvnet {

/// --size-offset, --size-length: DIS, unless others are given.
struct StreamFormat {
    int sizeOffset = static_cast<int>(kPduLengthOffset);
    int sizeLength = 2;

    /// With `needs`, the options are refused where that one is not given.
    void declare(CLI::App& app, CLI::Option* needs = nullptr);

    /// Throws UsageFailure where no packet could hold its own length.
    void check() const;

    /// Whether these bytes may go into the stream: their length field holds their number. Anything else
    /// would make the receiver lose its place. A packet that ends with its length field is a connection
    /// test, which no receiver is shown, and does not count.
    bool holds(const char* bytes, std::size_t lengthBytes) const;

    /// "lengths of 2 bytes at byte 8".
    std::string text() const;
};

}  // namespace cvnet

#endif

// SPDX-License-Identifier: BSD-3-Clause
// Tells the packets that a relay sends back to their sender from those of others.
#ifndef CVNET_ECHO_FILTER_H
#define CVNET_ECHO_FILTER_H

#include <cstddef>
#include <deque>
#include <string_view>

namespace cvnet {

/// A packet that came is the sender's own when its bytes are those of one that was sent and has not come back
/// yet. (The same bytes from someone else are taken for it: then its own copy, which comes too, is shown in
/// their place.) What a relay dropped never comes back: the oldest are forgotten beyond a limit.
class EchoFilter {
public:
    static constexpr std::size_t kMaxOutstanding = 4096;

    void sent(std::string_view packet);
    /// Each packet sent is recognised once.
    bool isOwn(std::string_view packet);

    std::size_t outstanding() const { return outstanding_.size(); }

private:
    std::deque<std::size_t> outstanding_;  // hashes, in the order of sending, in which most come back
};

}  // namespace cvnet

#endif

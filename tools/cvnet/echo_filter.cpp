// SPDX-License-Identifier: BSD-3-Clause
#include "echo_filter.h"

#include <algorithm>
#include <functional>

namespace cvnet {
namespace {

std::size_t hashOf(std::string_view packet) {
    return std::hash<std::string_view>()(packet);
}

}  // namespace

void EchoFilter::sent(std::string_view packet) {
    if (outstanding_.size() == kMaxOutstanding) outstanding_.pop_front();
    outstanding_.push_back(hashOf(packet));
}

bool EchoFilter::isOwn(std::string_view packet) {
    const auto found = std::find(outstanding_.begin(), outstanding_.end(), hashOf(packet));
    if (found == outstanding_.end()) return false;
    outstanding_.erase(found);
    return true;
}

}  // namespace cvnet

// SPDX-License-Identifier: BSD-3-Clause
#include "packet_filter.h"

namespace packetserver {

void FieldFilter::setOperator(bool excludes) {
    excludes_ = excludes;
    count_ = 0;
    bytes_.reset();
    others_.clear();
}

bool FieldFilter::add(std::uint32_t value) {
    if (count_ >= limit) return false;
    if (value < bytes_.size()) {
        bytes_.set(value);
    } else {
        others_.insert(value);
    }
    ++count_;
    return true;
}

NwCsFilterState FieldFilter::state() const {
    return NwCsFilterState{excludes_ ? 1U : 0U, count_};
}

bool PacketFilter::apply(const NwCsFilterMsg& request) {
    FieldFilter& field = fields_[static_cast<std::size_t>(request.filterIndex())];
    if (request.filterOp() == NwCsFilterOpAdd) return field.add(request.value());
    field.setOperator(request.value() == 1);
    return true;
}

}  // namespace packetserver

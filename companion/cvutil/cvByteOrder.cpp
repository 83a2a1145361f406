// SPDX-License-Identifier: BSD-3-Clause
// The process-wide byte order setting; the fields themselves are inline.
#include <cvutil/cvByteOrder.h>

#include <type_traits>

static_assert(std::is_trivially_copyable<NwNetU16>::value && std::is_trivially_copyable<NwNetU32>::value,
              "fields are copied with the messages they lie in");

std::atomic<int> NwNetworkByteOrderingSetting(1);

void NwSetNetworkByteOrdering(int on) {
    NwNetworkByteOrderingSetting.store(on ? 1 : 0, std::memory_order_relaxed);
}

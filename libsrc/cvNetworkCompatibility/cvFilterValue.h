// SPDX-License-Identifier: BSD-3-Clause
// Not installed. How a filter test's list holds its values: in the items' data pointers, without an
// allocation for each.
#ifndef CVNETWORKCOMPATIBILITY_CVFILTERVALUE_H
#define CVNETWORKCOMPATIBILITY_CVFILTERVALUE_H

#include <cvutil/cvList.h>

#include <cstdint>

inline void* nwAsItemData(unsigned int value) {
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(value));
}

inline unsigned int nwFilterValue(const NwListItem* item) {
    return static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(item->data()));
}

#endif

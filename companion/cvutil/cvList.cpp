// SPDX-License-Identifier: BSD-3-Clause
// A doubly linked list; what a walk needs is inline in the header.
#include <cvutil/cvList.h>

#include <new>

NwList::~NwList() {
    for (NwListItem* item = myFirst; item;) {
        NwListItem* next = item->myNext;
        delete item;
        item = next;
    }
}

NwListItem* NwList::add(void* data) {
    return insertAfter(myLast, data);
}

NwListItem* NwList::addToEnd(void* data) {
    return add(data);
}

NwListItem* NwList::addToStart(void* data) {
    return insertAfter(nullptr, data);
}

NwListItem* NwList::insertAfter(NwListItem* item, void* data) {
    NwListItem* added = new (std::nothrow) NwListItem(data);
    if (!added) return nullptr;
    added->myPrevious = item;
    added->myNext = item ? item->myNext : myFirst;
    (added->myPrevious ? added->myPrevious->myNext : myFirst) = added;
    (added->myNext ? added->myNext->myPrevious : myLast) = added;
    ++myCount;
    return added;
}

void* NwList::remove(NwListItem* item) {
    if (!item) return nullptr;
    (item->myPrevious ? item->myPrevious->myNext : myFirst) = item->myNext;
    (item->myNext ? item->myNext->myPrevious : myLast) = item->myPrevious;
    --myCount;
    void* data = item->myData;
    delete item;
    return data;
}

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
    for (NwListPosition* position = myPositions; position; position = position->myNextPosition) {
        position->myHasMoved = position->myHasMoved || position->myItem;
        position->myItem = nullptr;
        position->myList = nullptr;
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
    for (NwListPosition* position = myPositions; position; position = position->myNextPosition) {
        if (position->myItem != item) continue;
        position->myItem = item->myNext;
        position->myHasMoved = true;
    }
    (item->myPrevious ? item->myPrevious->myNext : myFirst) = item->myNext;
    (item->myNext ? item->myNext->myPrevious : myLast) = item->myPrevious;
    --myCount;
    void* data = item->myData;
    delete item;
    return data;
}

NwListPosition::NwListPosition(NwList& list, NwListItem* item)
    : myList(&list), myItem(item), myNextPosition(list.myPositions), myHasMoved(false) {
    list.myPositions = this;
}

NwListPosition::~NwListPosition() {
    if (!myList) return;
    NwListPosition** link = &myList->myPositions;
    while (*link != this) link = &(*link)->myNextPosition;
    *link = myNextPosition;
}

void NwListPosition::set(NwListItem* item) {
    myItem = myList ? item : nullptr;
    myHasMoved = false;
}

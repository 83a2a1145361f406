// SPDX-License-Identifier: BSD-3-Clause
// A list of pointers that owns its items and nothing else.
//
//     NwList sockets;
//     sockets.add(socket);
//     for (NwListItem* item = sockets.first(); item; item = item->next())
//         static_cast<NwSocket*>(item->data())->flush();
//
// What the pointers lead to belongs to the caller: no operation reads, copies or frees it, and null or the
// same pointer twice are data like any other. An item stays where it is until it is removed, whatever else is
// added or removed, so it serves as a position. Removing the current item during a walk: take next() first.
// Where a walk calls code that may remove any item, or a place is kept for later, use an NwListPosition.
//
// Adding and removing take the same short time at any length. A list is used by one thread at a time; the
// caller locks.
#ifndef CVUTIL_CVLIST_H
#define CVUTIL_CVLIST_H

#include <cvutil/cvExport.h>

class NwList;
class NwListPosition;

// One place in a list. Made and freed by its list alone.
class NWUTIL_API NwListItem {
public:
    // The neighbours; null at the end and at the start.
    NwListItem* next() const { return myNext; }
    NwListItem* previous() const { return myPrevious; }

    // The pointer given when the item was added.
    void* data() const { return myData; }

    NwListItem(const NwListItem&) = delete;
    NwListItem& operator=(const NwListItem&) = delete;

private:
    friend class NwList;
    explicit NwListItem(void* data) : myNext(nullptr), myPrevious(nullptr), myData(data) {}
    ~NwListItem() {}

    NwListItem* myNext;
    NwListItem* myPrevious;
    void* myData;
};

class NWUTIL_API NwList {
public:
    // An empty list.
    NwList() : myFirst(nullptr), myLast(nullptr), myCount(0), myPositions(nullptr) {}

    // Frees the items; what their data point to is not touched. Positions in the list are at the end then.
    ~NwList();

    NwList(const NwList&) = delete;
    NwList& operator=(const NwList&) = delete;

    // Adds `data` at the end (add and addToEnd are one operation under two names), at the start, or right
    // behind `item`, which must be of this list (null: at the start). Returns the new item, lent until it is
    // removed or the list goes; null when there is no memory for it, and the list is then as before.
    NwListItem* add(void* data);
    NwListItem* addToEnd(void* data);
    NwListItem* addToStart(void* data);
    NwListItem* insertAfter(NwListItem* item, void* data);

    // Takes `item`, which must be of this list, out and frees it. Returns the data it held, which belong to
    // the caller as before. A null item changes nothing and gives null.
    void* remove(NwListItem* item);

    // The ends of the list; null while it is empty.
    NwListItem* first() const { return myFirst; }
    NwListItem* last() const { return myLast; }

    // How many items there are.
    int count() const { return myCount; }

private:
    friend class NwListPosition;

    NwListItem* myFirst;
    NwListItem* myLast;
    int myCount;                  // both ends are null exactly while this is 0
    NwListPosition* myPositions;  // what to move on when an item goes
};

// A place in a list that stays good whatever is removed: when its item is removed, it moves on to the item
// that stood behind, or to the end (null).
//
//     NwListPosition position(sockets, sockets.first());
//     while (NwListItem* item = position.item()) {
//         position.advance();                        // now any item may go, the one below too
//         call(static_cast<NwSocket*>(item->data()));
//     }
//
// Positions cost their list a few instructions for each removal. A position may outlive its list.
class NWUTIL_API NwListPosition {
public:
    // At `item`, which must be of `list`; null: at the end.
    explicit NwListPosition(NwList& list, NwListItem* item = nullptr);
    ~NwListPosition();

    NwListPosition(const NwListPosition&) = delete;
    NwListPosition& operator=(const NwListPosition&) = delete;

    // The item here; null at the end.
    NwListItem* item() const { return myItem; }

    // Goes to `item` of the same list (null: the end); to the item behind.
    void set(NwListItem* item);
    void advance() { set(myItem ? myItem->next() : nullptr); }

    // True if the item last gone to has been removed since.
    bool hasMoved() const { return myHasMoved; }

private:
    friend class NwList;

    NwList* myList;  // null once the list is gone
    NwListItem* myItem;
    NwListPosition* myNextPosition;
    bool myHasMoved;
};

#endif

// SPDX-License-Identifier: BSD-3-Clause
// Lists of every length, each operation at both ends and in the middle, and without memory; positions whose
// items go away.
#include <cvutil/cvList.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <type_traits>

#include "sanitizers.h"

#if CVUTIL_OWN_OPERATOR_NEW

namespace {
bool theMemoryIsGone = false;
}

// In place of the standard library's, for this program and the library: refuses on request.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (theMemoryIsGone) return nullptr;
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

#endif

namespace {

void* pointerTo(char letter) {
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(letter));
}
char letterOf(void* data) {
    return static_cast<char>(reinterpret_cast<std::uintptr_t>(data));
}

class List : public testing::Test {
protected:
    // The letters from first to last; a walk back from the last must give the same.
    std::string letters() const {
        std::string forwards;
        for (NwListItem* item = myList.first(); item; item = item->next()) forwards += letterOf(item->data());
        std::string backwards;
        for (NwListItem* item = myList.last(); item; item = item->previous())
            backwards.insert(backwards.begin(), letterOf(item->data()));
        EXPECT_EQ(forwards, backwards);
        EXPECT_EQ(myList.count(), static_cast<int>(forwards.size()));
        return forwards;
    }

    NwListItem* item(int index) const {
        NwListItem* found = myList.first();
        while (index-- > 0) found = found->next();
        return found;
    }

    void fill(const std::string& text) {
        for (char letter : text) myList.add(pointerTo(letter));
    }

    NwList myList;
};

TEST_F(List, startsEmpty) {
    EXPECT_EQ(myList.first(), nullptr);
    EXPECT_EQ(myList.last(), nullptr);
    EXPECT_EQ(myList.count(), 0);
}

TEST_F(List, addAndAddToEndAppend) {
    myList.add(pointerTo('a'));
    EXPECT_EQ(letters(), "a");
    myList.addToEnd(pointerTo('b'));
    EXPECT_EQ(letters(), "ab");
    myList.add(pointerTo('c'));
    EXPECT_EQ(letters(), "abc");
}

TEST_F(List, addToStartPutsBeforeAllOthers) {
    myList.addToStart(pointerTo('a'));
    EXPECT_EQ(letters(), "a");
    myList.addToStart(pointerTo('b'));
    EXPECT_EQ(letters(), "ba");
    myList.addToEnd(pointerTo('c'));
    EXPECT_EQ(letters(), "bac");
}

TEST_F(List, insertAfterPutsRightBehindTheItem) {
    fill("ac");
    myList.insertAfter(item(0), pointerTo('b'));
    EXPECT_EQ(letters(), "abc");
    myList.insertAfter(item(2), pointerTo('d'));
    EXPECT_EQ(letters(), "abcd");
    EXPECT_EQ(letterOf(myList.last()->data()), 'd');
}

TEST_F(List, insertAfterNullPutsAtTheStart) {
    myList.insertAfter(nullptr, pointerTo('b'));
    EXPECT_EQ(letters(), "b");
    myList.insertAfter(nullptr, pointerTo('a'));
    EXPECT_EQ(letters(), "ab");
}

TEST_F(List, everyAdditionReturnsItsItem) {
    const NwListItem* added = myList.add(pointerTo('b'));
    EXPECT_EQ(added, myList.last());
    const NwListItem* addedToEnd = myList.addToEnd(pointerTo('d'));
    EXPECT_EQ(addedToEnd, myList.last());
    const NwListItem* addedToStart = myList.addToStart(pointerTo('a'));
    EXPECT_EQ(addedToStart, myList.first());
    const NwListItem* inserted = myList.insertAfter(item(1), pointerTo('c'));
    EXPECT_EQ(inserted, item(2));
    EXPECT_EQ(letters(), "abcd");
}

TEST_F(List, removeTakesOutFirstMiddleLastAndOnly) {
    fill("abcd");
    EXPECT_EQ(letterOf(myList.remove(item(1))), 'b');
    EXPECT_EQ(letters(), "acd");
    EXPECT_EQ(letterOf(myList.remove(myList.first())), 'a');
    EXPECT_EQ(letters(), "cd");
    EXPECT_EQ(letterOf(myList.remove(myList.last())), 'd');
    EXPECT_EQ(letters(), "c");
    EXPECT_EQ(letterOf(myList.remove(myList.first())), 'c');
    EXPECT_EQ(letters(), "");
    fill("xy");
    EXPECT_EQ(letters(), "xy");
}

TEST_F(List, removeOfNullChangesNothing) {
    EXPECT_EQ(myList.remove(nullptr), nullptr);
    fill("a");
    EXPECT_EQ(myList.remove(nullptr), nullptr);
    EXPECT_EQ(letters(), "a");
}

TEST_F(List, nullAndRepeatedPointersAreDataLikeAnyOther) {
    myList.add(nullptr);
    int value = 0;
    myList.add(&value);
    myList.add(&value);
    EXPECT_EQ(myList.count(), 3);
    EXPECT_EQ(myList.remove(myList.first()), nullptr);
    EXPECT_EQ(myList.remove(myList.first()), &value);
    EXPECT_EQ(myList.first()->data(), &value);
}

TEST_F(List, positionSurvivesWhatHappensAroundIt) {
    fill("abc");
    NwListItem* middle = item(1);
    myList.remove(middle->previous());
    myList.remove(middle->next());
    myList.addToStart(pointerTo('x'));
    myList.addToEnd(pointerTo('y'));
    EXPECT_EQ(letterOf(middle->data()), 'b');
    EXPECT_EQ(letterOf(middle->previous()->data()), 'x');
    EXPECT_EQ(letterOf(middle->next()->data()), 'y');
    EXPECT_EQ(letters(), "xby");
}

TEST_F(List, walkMayRemoveWhereItStands) {
    fill("aXbXX");
    for (NwListItem* current = myList.first(); current;) {
        NwListItem* next = current->next();
        if (letterOf(current->data()) == 'X') myList.remove(current);
        current = next;
    }
    EXPECT_EQ(letters(), "ab");
}

TEST_F(List, destructionLeavesTheDataAlone) {
    std::string owned = "still here";
    {
        NwList list;
        list.add(&owned);
        list.add(&owned);
    }
    EXPECT_EQ(owned, "still here");
}

#if CVUTIL_OWN_OPERATOR_NEW
TEST_F(List, withoutMemoryAnAdditionGivesNullAndLeavesTheList) {
    fill("ab");
    theMemoryIsGone = true;
    NwListItem* added = myList.add(pointerTo('c'));
    NwListItem* addedToEnd = myList.addToEnd(pointerTo('c'));
    NwListItem* addedToStart = myList.addToStart(pointerTo('c'));
    NwListItem* inserted = myList.insertAfter(myList.first(), pointerTo('c'));
    theMemoryIsGone = false;
    EXPECT_EQ(added, nullptr);
    EXPECT_EQ(addedToEnd, nullptr);
    EXPECT_EQ(addedToStart, nullptr);
    EXPECT_EQ(inserted, nullptr);
    EXPECT_EQ(letters(), "ab");
}
#endif

// --- positions -------------------------------------------------------------------------------------------

class Position : public List {
protected:
    void remove(int index) { myList.remove(item(index)); }
    // The letter at a position; '.' at the end.
    static char at(const NwListPosition& position) {
        return position.item() ? letterOf(position.item()->data()) : '.';
    }
};

TEST_F(Position, isWhereItIsPut) {
    fill("abc");
    NwListPosition end(myList), middle(myList, item(1));
    EXPECT_EQ(at(end), '.');
    EXPECT_EQ(middle.item(), item(1));
    EXPECT_FALSE(end.hasMoved());
    EXPECT_FALSE(middle.hasMoved());
    middle.set(item(2));
    EXPECT_EQ(at(middle), 'c');
    middle.set(nullptr);
    EXPECT_EQ(at(middle), '.');
    end.set(myList.first());
    EXPECT_EQ(at(end), 'a');
}

TEST_F(Position, advancesToTheEndAndStaysThere) {
    fill("ab");
    NwListPosition position(myList, myList.first());
    position.advance();
    EXPECT_EQ(at(position), 'b');
    position.advance();
    EXPECT_EQ(at(position), '.');
    position.advance();
    EXPECT_EQ(at(position), '.');
    myList.add(pointerTo('c'));
    EXPECT_EQ(at(position), '.') << "what is added behind the end is not in the way";
    EXPECT_FALSE(position.hasMoved());
}

TEST_F(Position, movesOnWhenItsItemGoes) {
    fill("abcd");
    NwListPosition position(myList, item(1));
    remove(1);
    EXPECT_EQ(at(position), 'c');
    EXPECT_TRUE(position.hasMoved());
    remove(1);
    EXPECT_EQ(at(position), 'd');
    remove(1);
    EXPECT_EQ(at(position), '.') << "behind the last is the end";
    EXPECT_TRUE(position.hasMoved());
    EXPECT_EQ(letters(), "a");
}

TEST_F(Position, movesOnFromTheFirst) {
    fill("ab");
    NwListPosition position(myList, myList.first());
    remove(0);
    EXPECT_EQ(at(position), 'b');
    remove(0);
    EXPECT_EQ(at(position), '.');
    EXPECT_TRUE(position.hasMoved());
}

TEST_F(Position, staysWhenOthersGo) {
    fill("abc");
    NwListPosition position(myList, item(1)), end(myList);
    remove(2);
    remove(0);
    myList.addToStart(pointerTo('x'));
    myList.addToEnd(pointerTo('y'));
    EXPECT_EQ(at(position), 'b');
    EXPECT_EQ(at(end), '.');
    EXPECT_FALSE(position.hasMoved());
    EXPECT_FALSE(end.hasMoved());
    position.advance();
    EXPECT_EQ(at(position), 'y');
}

TEST_F(Position, forgetsTheRemovalWhenItGoesOn) {
    fill("abcd");
    NwListPosition position(myList, item(0));
    remove(0);
    EXPECT_TRUE(position.hasMoved());
    position.advance();
    EXPECT_EQ(at(position), 'c');
    EXPECT_FALSE(position.hasMoved());
    remove(1);
    EXPECT_TRUE(position.hasMoved());
    position.set(position.item());
    EXPECT_FALSE(position.hasMoved());
}

TEST_F(Position, anyNumberAtOneItemMoveOn) {
    fill("abc");
    NwListPosition one(myList, item(1)), two(myList, item(1)), other(myList, item(0)), three(myList, item(1));
    remove(1);
    EXPECT_EQ(at(one), 'c');
    EXPECT_EQ(at(two), 'c');
    EXPECT_EQ(at(three), 'c');
    EXPECT_EQ(at(other), 'a');
    EXPECT_FALSE(other.hasMoved());
}

TEST_F(Position, mayEndInAnyOrder) {
    for (int gone = 0; gone < 3; ++gone) {
        NwList list;
        NwListItem* first = list.add(pointerTo('a'));
        list.add(pointerTo('b'));
        std::unique_ptr<NwListPosition> positions[3];
        for (auto& position : positions) position.reset(new NwListPosition(list, first));
        positions[gone].reset();
        list.remove(first);
        for (auto& position : positions)
            if (position) {
                EXPECT_EQ(at(*position), 'b') << gone;
            }
    }
}

TEST_F(Position, walkMayRemoveWhateverItWants) {
    for (int victim = 0; victim < 5; ++victim)
        for (int when = 0; when < 5; ++when) {
            NwList list;
            NwListItem* items[5];
            for (int i = 0; i < 5; ++i) items[i] = list.add(pointerTo(static_cast<char>('a' + i)));
            std::string seen;
            for (NwListPosition position(list, list.first()); NwListItem* current = position.item();) {
                position.advance();
                seen += letterOf(current->data());
                if (static_cast<int>(seen.size()) == when + 1) list.remove(items[victim]);
            }
            std::string expected = "abcde";
            if (victim > when) expected.erase(static_cast<std::size_t>(victim), 1);
            EXPECT_EQ(seen, expected) << victim << " goes at " << when;
        }
}

TEST_F(Position, walkMayEmptyTheList) {
    fill("abcde");
    std::string seen;
    for (NwListPosition position(myList, myList.first()); NwListItem* current = position.item();) {
        position.advance();
        seen += letterOf(current->data());
        while (myList.count()) remove(0);
    }
    EXPECT_EQ(seen, "a");
}

TEST_F(Position, outlivesItsList) {
    std::unique_ptr<NwList> list(new NwList);
    list->add(pointerTo('a'));
    NwListPosition there(*list, list->first()), end(*list);
    NwListItem* const first = list->first();
    list.reset();
    EXPECT_EQ(at(there), '.');
    EXPECT_TRUE(there.hasMoved());
    EXPECT_EQ(at(end), '.');
    EXPECT_FALSE(end.hasMoved()) << "it had no item to lose";
    there.set(first);
    EXPECT_EQ(at(there), '.') << "there is nowhere to go";
    there.advance();
    EXPECT_EQ(at(there), '.');
}

static_assert(!std::is_copy_constructible<NwListPosition>::value &&
                  !std::is_copy_assignable<NwListPosition>::value,
              "a list knows its positions by their address");

static_assert(!std::is_copy_constructible<NwList>::value && !std::is_copy_assignable<NwList>::value,
              "lists stay one");

}  // namespace

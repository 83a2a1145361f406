// SPDX-License-Identifier: BSD-3-Clause
// The filter test: a list of values and an operator, evaluated on one field of a packet.
#include <cvNetworkCompatibility/cvSocket.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

typedef std::vector<unsigned int> Values;

// Lets a test look at operator and list, in order.
class OpenTest : public NwFilterTest {
public:
    NwTestOperator oper() const { return op; }
    Values list() const {
        Values result;
        for (NwListItem* item = values.first(); item; item = item->next())
            result.push_back(static_cast<unsigned int>(reinterpret_cast<unsigned long>(item->data())));
        return result;
    }
    void extend(Values wanted) { extendTest(static_cast<int>(wanted.size()), wanted.data()); }
    void reduce(Values unwanted) { reduceTest(static_cast<int>(unwanted.size()), unwanted.data()); }
    void set(NwTestOperator newOperator, Values wanted) {
        setTest(newOperator, static_cast<int>(wanted.size()), wanted.data());
    }
    bool passesByte(unsigned char value) {
        char byte = static_cast<char>(value);
        return evalTest(&byte, 0, NwFilterByte);
    }
    bool passesInt(unsigned int value) { return evalTest(reinterpret_cast<char*>(&value), 0, NwFilterInt32); }
};

// Notes which virtual operations run, in order, with their arguments, and then runs them.
class RecordingTest : public OpenTest {
public:
    void setOperator(NwTestOperator newOperator) override {
        log.push_back("setOperator " + std::to_string(newOperator));
        OpenTest::setOperator(newOperator);
    }
    void setTest(NwTestOperator newOperator, int count, unsigned int* newValues) override {
        log.push_back("setTest " + std::to_string(newOperator) + " " + std::to_string(count) +
                      (newValues ? " values" : " null"));
        OpenTest::setTest(newOperator, count, newValues);
    }
    void extendTest(int count, unsigned int* newValues) override {
        log.push_back("extendTest " + std::to_string(count) + (newValues ? " values" : " null"));
        OpenTest::extendTest(count, newValues);
    }
    void reduceTest(int count, unsigned int* oldValues) override {
        log.push_back("reduceTest " + std::to_string(count));
        OpenTest::reduceTest(count, oldValues);
    }
    void clearList() override {
        log.push_back("clearList operator " + std::to_string(op) + " values " +
                      std::to_string(values.count()));
        OpenTest::clearList();
    }
    std::vector<std::string> log;
};

typedef std::vector<std::string> Log;

}  // namespace

TEST(FilterTest, enumeratorsHaveTheirDocumentedValues) {
    EXPECT_EQ(static_cast<int>(NwTestExclude), 1);
    EXPECT_EQ(static_cast<int>(NwTestInclude), 0);
    EXPECT_EQ(static_cast<int>(NwFilterInt32), 0);
    EXPECT_EQ(static_cast<int>(NwFilterByte), 1);
    static_assert(std::is_same<std::underlying_type<NwTestOperator>::type, int>::value,
                  "any int can be passed");
    static_assert(std::is_same<std::underlying_type<NwFilterType>::type, int>::value,
                  "any int can be passed");
}

TEST(FilterTest, cannotBeCopied) {
    static_assert(!std::is_copy_constructible<NwFilterTest>::value, "a socket owns it");
    static_assert(!std::is_copy_assignable<NwFilterTest>::value, "a socket owns it");
}

TEST(FilterTest, newOneLetsEverythingPass) {
    OpenTest test;
    EXPECT_EQ(test.oper(), NwTestExclude);
    EXPECT_EQ(test.list(), Values());
    for (int value = 0; value < 256; ++value)
        EXPECT_TRUE(test.passesByte(static_cast<unsigned char>(value))) << value;
    for (unsigned int value : {0u, 1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu})
        EXPECT_TRUE(test.passesInt(value)) << value;
    char byte = 0;
    EXPECT_TRUE(test.evalTest(&byte, 0, static_cast<NwFilterType>(7)));
}

TEST(FilterTest, inclusionOfNothingRefusesEverything) {
    OpenTest test;
    test.setTest(NwTestInclude, 0, nullptr);
    EXPECT_EQ(test.oper(), NwTestInclude);
    for (int value = 0; value < 256; ++value)
        EXPECT_FALSE(test.passesByte(static_cast<unsigned char>(value))) << value;
    for (unsigned int value : {0u, 1u, 0xFFFFFFFFu}) EXPECT_FALSE(test.passesInt(value)) << value;
    char byte = 0;
    EXPECT_FALSE(test.evalTest(&byte, 0, static_cast<NwFilterType>(7)));
}

TEST(FilterTest, inclusionPassesOnlyWhatItLists) {
    OpenTest test;
    test.set(NwTestInclude, {2, 5, 255});
    for (int value = 0; value < 256; ++value)
        EXPECT_EQ(test.passesByte(static_cast<unsigned char>(value)),
                  value == 2 || value == 5 || value == 255)
            << value;
}

TEST(FilterTest, exclusionPassesAllButWhatItLists) {
    OpenTest test;
    test.set(NwTestExclude, {2, 5, 255});
    for (int value = 0; value < 256; ++value)
        EXPECT_EQ(test.passesByte(static_cast<unsigned char>(value)),
                  value != 2 && value != 5 && value != 255)
            << value;
}

TEST(FilterTest, everyOperatorButOneBehavesAsInclusion) {
    for (int odd : {2, 3, -1, INT_MAX, INT_MIN}) {
        OpenTest test;
        test.set(static_cast<NwTestOperator>(odd), {4});
        EXPECT_EQ(static_cast<int>(test.oper()), odd) << "stored as given";
        EXPECT_TRUE(test.passesByte(4)) << odd;
        EXPECT_FALSE(test.passesByte(5)) << odd;
        test.clearList();
        EXPECT_FALSE(test.passesByte(4)) << odd;
    }
}

TEST(FilterTest, zeroIsAValueLikeAnyOther) {
    OpenTest test;
    test.set(NwTestInclude, {0});
    EXPECT_EQ(test.list(), Values{0});
    EXPECT_TRUE(test.passesByte(0));
    EXPECT_FALSE(test.passesByte(1));
    EXPECT_TRUE(test.passesInt(0));
    test.set(NwTestExclude, {7, 0, 9});
    EXPECT_FALSE(test.passesByte(0));
    EXPECT_FALSE(test.passesByte(9)) << "the walk goes on behind a 0";
    EXPECT_TRUE(test.passesByte(1));
    test.reduce({0});
    EXPECT_EQ(test.list(), (Values{7, 9}));
    EXPECT_TRUE(test.passesByte(0));
}

TEST(FilterTest, valuesAreWhole32BitNumbers) {
    OpenTest test;
    const Values edges = {0, 1, 0xFF, 0x100, 0xFFFF, 0x10000, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFE, 0xFFFFFFFF};
    test.set(NwTestInclude, edges);
    EXPECT_EQ(test.list(), edges);
    for (unsigned int value : edges) EXPECT_TRUE(test.passesInt(value)) << value;
    for (unsigned int value : {2u, 0xFEu, 0x101u, 0xFFFFFF00u, 0x80000001u})
        EXPECT_FALSE(test.passesInt(value)) << value;
}

// --- fields ------------------------------------------------------------------------------------------------

TEST(FilterTest, byteAtOffsetTwoIsTheThird) {
    OpenTest test;
    char packet[] = {0x01, 0x02, 0x05, 0x07};
    test.set(NwTestInclude, {5});
    EXPECT_TRUE(test.evalTest(packet, 2, NwFilterByte));
    EXPECT_FALSE(test.evalTest(packet, 1, NwFilterByte));
    EXPECT_FALSE(test.evalTest(packet, 3, NwFilterByte));
}

TEST(FilterTest, byteIsZeroExtended) {
    OpenTest test;
    test.set(NwTestInclude, {0x80, 0xFF});
    EXPECT_TRUE(test.passesByte(0x80));
    EXPECT_TRUE(test.passesByte(0xFF));
    test.set(NwTestInclude, {0xFFFFFF80, 0xFFFFFFFF, 0x180});
    EXPECT_FALSE(test.passesByte(0x80));
    EXPECT_FALSE(test.passesByte(0xFF));
}

TEST(FilterTest, byteTypeReadsOneByteOnly) {
    OpenTest test;
    test.set(NwTestInclude, {0x12});
    const std::unique_ptr<char[]> one(new char[1]);  // the address sanitizer guards the next byte
    one[0] = 0x12;
    EXPECT_TRUE(test.evalTest(one.get(), 0, NwFilterByte));
}

TEST(FilterTest, fourBytesAreComparedAsTheHostReadsThem) {
    OpenTest test;
    test.set(NwTestInclude, {1});
    char little[] = {1, 0, 0, 0};
    char big[] = {0, 0, 0, 1};
    const unsigned short probe = 1;
    const bool hostIsLittle = *reinterpret_cast<const char*>(&probe) == 1;
    EXPECT_EQ(test.evalTest(little, 0, NwFilterInt32), hostIsLittle);
    EXPECT_EQ(test.evalTest(big, 0, NwFilterInt32), !hostIsLittle);
}

TEST(FilterTest, fourBytesAreReadAtAnyAlignment) {
    OpenTest test;
    const unsigned int value = 0xC0A80114u;
    test.set(NwTestInclude, {value});
    char packet[16];
    for (int offset = 0; offset <= 12; ++offset) {
        std::memset(packet, 0, sizeof packet);
        std::memcpy(packet + offset, &value, 4);
        EXPECT_TRUE(test.evalTest(packet, offset, NwFilterInt32)) << offset;
    }
}

TEST(FilterTest, unknownTypeComparesTheValueZero) {
    OpenTest test;
    char packet[] = {5, 5, 5, 5};
    for (int odd : {2, 3, -1, INT_MAX, INT_MIN}) {
        const NwFilterType type = static_cast<NwFilterType>(odd);
        test.set(NwTestInclude, {0});
        EXPECT_TRUE(test.evalTest(packet, 0, type)) << odd;
        test.set(NwTestExclude, {0});
        EXPECT_FALSE(test.evalTest(packet, 0, type)) << odd;
        test.set(NwTestInclude, {5});
        EXPECT_FALSE(test.evalTest(packet, 0, type)) << odd;
    }
}

TEST(FilterTest, unknownTypeReadsNothing) {
    OpenTest test;
    test.set(NwTestInclude, {0});
    const std::unique_ptr<char[]> none(new char[0]);
    EXPECT_TRUE(test.evalTest(none.get(), 0, static_cast<NwFilterType>(2)));
}

TEST(FilterTest, evaluationChangesNothing) {
    OpenTest test;
    test.set(NwTestInclude, {3, 3, 1});
    char packet[] = {3, 0, 0, 0};
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(test.evalTest(packet, 0, NwFilterByte));
    EXPECT_EQ(std::memcmp(packet, "\3\0\0\0", 4), 0);
    EXPECT_EQ(test.list(), (Values{3, 3, 1}));
    EXPECT_EQ(test.oper(), NwTestInclude);
}

// --- list --------------------------------------------------------------------------------------------------

TEST(FilterTest, setOperatorEmptiesTheList) {
    OpenTest test;
    test.extend({1, 2, 3});
    test.setOperator(NwTestInclude);
    EXPECT_EQ(test.list(), Values());
    EXPECT_EQ(test.oper(), NwTestInclude);
}

TEST(FilterTest, setOperatorToTheSameOneEmptiesTheListToo) {
    OpenTest test;
    test.extend({1, 2, 3});
    test.setOperator(NwTestExclude);
    EXPECT_EQ(test.list(), Values());
}

TEST(FilterTest, setTestReplacesOperatorAndList) {
    OpenTest test;
    test.set(NwTestInclude, {1, 2});
    test.set(NwTestExclude, {3});
    EXPECT_EQ(test.oper(), NwTestExclude);
    EXPECT_EQ(test.list(), Values{3});
}

TEST(FilterTest, extendAppendsInOrderAndKeepsDuplicates) {
    OpenTest test;
    test.extend({3, 1, 3});
    test.extend({2, 1});
    EXPECT_EQ(test.list(), (Values{3, 1, 3, 2, 1}));
    EXPECT_EQ(test.oper(), NwTestExclude) << "the operator stays";
}

TEST(FilterTest, extendReadsItsArrayOnlyDuringTheCall) {
    OpenTest test;
    {
        const std::unique_ptr<unsigned int[]> lent(new unsigned int[2]);
        lent[0] = 4;
        lent[1] = 6;
        test.extendTest(2, lent.get());
        lent[0] = 99;
    }
    EXPECT_EQ(test.list(), (Values{4, 6}));
}

TEST(FilterTest, countOfZeroOrLessDoesNothing) {
    OpenTest test;
    test.set(NwTestInclude, {8});
    unsigned int more[] = {8, 9};
    for (int count : {0, -1, INT_MIN}) {
        test.extendTest(count, more);
        test.reduceTest(count, more);
        test.extendTest(count, nullptr);
        test.reduceTest(count, nullptr);
        EXPECT_EQ(test.list(), Values{8}) << count;
    }
    test.setTest(NwTestInclude, -1, more);
    EXPECT_EQ(test.list(), Values()) << "setTest empties the list whatever the count";
}

TEST(FilterTest, reduceRemovesOneCopyPerOccurrence) {
    OpenTest test;
    test.extend({5, 6, 5, 7, 5});
    test.reduce({5});
    EXPECT_EQ(test.list(), (Values{6, 5, 7, 5})) << "the first of them goes";
    test.reduce({5, 5});
    EXPECT_EQ(test.list(), (Values{6, 7}));
}

TEST(FilterTest, reduceIgnoresValuesNotInTheList) {
    OpenTest test;
    test.extend({1, 2});
    test.reduce({9, 2, 2, 0});
    EXPECT_EQ(test.list(), Values{1});
    OpenTest empty;
    empty.reduce({1});
    EXPECT_EQ(empty.list(), Values());
}

TEST(FilterTest, reduceOfTheLastIncludedValueRefusesEverything) {
    OpenTest test;
    test.set(NwTestInclude, {1});
    test.reduce({1});
    EXPECT_FALSE(test.passesByte(1));
}

TEST(FilterTest, reduceFindsHeadMiddleAndTail) {
    for (unsigned int gone : {1u, 2u, 3u}) {
        OpenTest test;
        test.extend({1, 2, 3});
        test.reduce({gone});
        Values left = {1, 2, 3};
        left.erase(left.begin() + static_cast<int>(gone) - 1);
        EXPECT_EQ(test.list(), left);
        test.extend({4});
        left.push_back(4);
        EXPECT_EQ(test.list(), left) << "appending still goes to the end";
    }
}

TEST(FilterTest, clearListKeepsTheOperator) {
    OpenTest test;
    test.set(NwTestInclude, {1, 1, 2});
    test.clearList();
    EXPECT_EQ(test.list(), Values());
    EXPECT_EQ(test.oper(), NwTestInclude);
    test.clearList();
    EXPECT_EQ(test.list(), Values());
    test.extend({6});
    EXPECT_EQ(test.list(), Values{6});
}

TEST(FilterTest, disableLetsEverythingPassAgain) {
    OpenTest test;
    test.set(NwTestInclude, {1});
    EXPECT_FALSE(test.passesByte(2));
    test.disableTest();
    EXPECT_EQ(test.oper(), NwTestExclude);
    EXPECT_EQ(test.list(), Values());
    EXPECT_TRUE(test.passesByte(2));
}

TEST(FilterTest, longListsAreSearchedToTheirEnd) {
    OpenTest test;
    Values many;
    for (unsigned int value = 0; value < 2000; ++value) many.push_back(value * 3);
    test.set(NwTestInclude, many);
    EXPECT_TRUE(test.passesInt(5997));
    EXPECT_FALSE(test.passesInt(5996));
    test.reduce(many);
    EXPECT_EQ(test.list(), Values());
}

// --- through the virtual table -----------------------------------------------------------------------------

TEST(FilterTest, setTestRunsSetOperatorThenClearListThenExtend) {
    RecordingTest test;
    test.set(NwTestInclude, {1, 2});
    EXPECT_EQ(test.log, (Log{"setTest 0 2 values", "setOperator 0", "clearList operator 1 values 0",
                             "extendTest 2 values"}));
}

TEST(FilterTest, setOperatorClearsBeforeItStores) {
    RecordingTest test;
    test.set(NwTestExclude, {1, 2});
    test.log.clear();
    test.setOperator(NwTestInclude);
    EXPECT_EQ(test.log, (Log{"setOperator 0", "clearList operator 1 values 2"}));
}

TEST(FilterTest, disableGoesThroughSetTest) {
    RecordingTest test;
    test.set(NwTestInclude, {1});
    test.log.clear();
    test.disableTest();
    EXPECT_EQ(test.log, (Log{"setTest 1 0 null", "setOperator 1", "clearList operator 0 values 1",
                             "extendTest 0 null"}));
}

TEST(FilterTest, extendReduceAndEvaluateCallNothingElse) {
    RecordingTest test;
    test.extend({1, 2});
    test.reduce({1});
    test.passesByte(1);
    EXPECT_EQ(test.log, (Log{"extendTest 2 values", "reduceTest 1"}));
}

TEST(FilterTest, constructionCallsNothingOfADerivedClass) {
    RecordingTest test;
    EXPECT_EQ(test.log, Log());
}

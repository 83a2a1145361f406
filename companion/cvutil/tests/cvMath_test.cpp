// SPDX-License-Identifier: BSD-3-Clause
// The smaller and the larger.
#include <cvutil/cvMath.h>

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace {

TEST(Math, picksTheSmallerAndTheLarger) {
    EXPECT_EQ(NwMin(3, 5), 3);
    EXPECT_EQ(NwMin(5, 3), 3);
    EXPECT_EQ(NwMax(3, 5), 5);
    EXPECT_EQ(NwMax(5, 3), 5);
    EXPECT_EQ(NwMin(INT_MIN, INT_MAX), INT_MIN);
    EXPECT_EQ(NwMax(INT_MIN, INT_MAX), INT_MAX);
    EXPECT_EQ(NwMin(0u, UINT_MAX), 0u);
}

// Equal by the operator, to be told apart by the second field.
struct Rank {
    int rank;
    char name;
    bool operator<(const Rank& other) const { return rank < other.rank; }
};

TEST(Math, picksTheFirstOfEquals) {
    const Rank a = {1, 'a'};
    const Rank b = {1, 'b'};
    EXPECT_EQ(NwMin(a, b).name, 'a');
    EXPECT_EQ(NwMax(a, b).name, 'a');
}

TEST(Math, resultOutlivesItsArguments) {
    const std::string& smaller = NwMin(std::string(100, 'a'), std::string(100, 'b'));
    EXPECT_EQ(smaller, std::string(100, 'a'));
}

static_assert(NwMin(1, 2) == 1 && NwMax(1, 2) == 2, "known to the compiler");

}  // namespace

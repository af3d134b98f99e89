// CSmallSortedSet against std::set: the same members in the same order and
// the same answers to inserts, through all three forms (inside the object,
// sorted array, tree), and after copies and moves.
#include <random>
#include <set>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "analysis/SmallSortedSet.h"

using VEXIL::CSmallSortedSet;

namespace {

template <typename Set>
std::vector<u16> Members(const Set& set) {
    std::vector<u16> members;
    set.ForEach([&](u16 member) { members.push_back(member); });
    return members;
}

TEST(SmallSortedSet, MatchesStdSetThroughEveryForm) {
    std::mt19937 random(7);
    // Small ranges force duplicates; the large one grows past the array.
    for (const u32 range : {3u, 20u, 300u, 65536u}) {
        CSmallSortedSet<u16, 8> set;
        std::set<u16> reference;
        for (int i = 0; i < 9000; ++i) {
            const u16 value = u16(random() % range);
            ASSERT_EQ(reference.insert(value).second, set.Insert(value)) << range << " " << i;
            ASSERT_EQ(reference.size(), set.Size());
        }
        const std::vector<u16> expected(reference.begin(), reference.end());
        ASSERT_EQ(expected, Members(set));

        CSmallSortedSet<u16, 8> copy(set);
        CSmallSortedSet<u16, 8> moved(std::move(set));
        EXPECT_EQ(0u, set.Size());
        EXPECT_EQ(expected, Members(copy));
        EXPECT_EQ(expected, Members(moved));
        CSmallSortedSet<u16, 8> merged;
        merged.Insert(1);
        merged.InsertAll(moved);
        copy = merged;
        std::set<u16> union_(reference);
        union_.insert(1);
        EXPECT_EQ(std::vector<u16>(union_.begin(), union_.end()), Members(copy));
    }
}

}  // namespace

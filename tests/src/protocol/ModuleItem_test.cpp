#include "protocol/ModuleItem.h"

#include <gtest/gtest.h>

#include <climits>
#include <list>

namespace {

struct OrderCase
{
    const char* name;
    ModuleItem a;
    ModuleItem b;
    bool aLess;     // a < b
    bool aGreater;  // a > b
};

const OrderCase kOrderCases[] = {
    {"greater sum wins", {1, 5, 5, 0}, {2, 5, 4, 0}, false, true},
    {"smaller sum loses", {9, 1, 1, 0}, {1, 2, 1, 0}, true, false},
    {"equal sums go to the greater uuid", {0x10, 10, 5, 0}, {0x20, 12, 3, 0}, true, false},
    {"equal sums, greater uuid first", {0x30, 12, 3, 0}, {0x20, 10, 5, 0}, false, true},
    {"sum beats uuid", {1, 10, 6, 0}, {0xFFFFFF, 10, 5, 0}, false, true},
    {"threshold takes no part", {7, 3, 3, 1}, {7, 3, 3, 999}, false, false},
    {"identical records are neither", {7, 3, 3, 0}, {7, 3, 3, 0}, false, false},
    {"module and prio may trade", {7, 1, 5, 0}, {7, 5, 1, 0}, false, false},
    {"overflowing sum wraps and ranks low", {1, UINT_MAX, 2, 0}, {2, 0, 0, 0}, false, true},
    {"wrapped to zero ranks below one", {9, UINT_MAX, 1, 0}, {1, 1, 0, 0}, true, false},
    {"largest sum without wrap wins", {1, UINT_MAX, 0, 0}, {2, UINT_MAX - 1, 0, 0}, false, true},
};

}  // namespace

TEST(ModuleItem, ElectionOrderFromTable)
{
    for (const OrderCase& c : kOrderCases) {
        EXPECT_EQ(c.a < c.b, c.aLess) << c.name;
        EXPECT_EQ(c.a > c.b, c.aGreater) << c.name;
        // operator> mirrors operator<.
        EXPECT_EQ(c.b > c.a, c.aLess) << c.name;
        EXPECT_EQ(c.b < c.a, c.aGreater) << c.name;
    }
}

TEST(ModuleItem, DefaultIsAllZero)
{
    const ModuleItem item;
    EXPECT_EQ(item.uuid, 0u);
    EXPECT_EQ(item.module, 0u);
    EXPECT_EQ(item.prio, 0u);
    EXPECT_EQ(item.threshold, 0u);
    EXPECT_TRUE(item.isEmpty());
}

TEST(ModuleItem, ClearKeepsUuid)
{
    ModuleItem item(0xABC, 4, 5, 6);
    item.clear();
    EXPECT_EQ(item.uuid, 0xABCu);
    EXPECT_EQ(item.module, 0u);
    EXPECT_EQ(item.prio, 0u);
    EXPECT_EQ(item.threshold, 0u);
}

TEST(ModuleItem, EmptyWhenModuleOrPrioIsZeroIgnoringThreshold)
{
    EXPECT_TRUE(ModuleItem(1, 0, 5, 7).isEmpty());
    EXPECT_TRUE(ModuleItem(1, 5, 0, 7).isEmpty());
    EXPECT_FALSE(ModuleItem(1, 5, 5, 0).isEmpty());
    EXPECT_FALSE(ModuleItem(0, 1, 1, 0).isEmpty());
}

TEST(ModuleItem, SortedListEndsWithTheElectedModule)
{
    // 10+5 and 12+3 tie and rank by uuid; 16 beats both whatever its uuid.
    std::list<ModuleItem> modules = {{0x300, 10, 5, 0}, {0x001, 10, 6, 0}, {0x200, 12, 3, 0}};
    modules.sort();
    ASSERT_EQ(modules.size(), 3u);
    EXPECT_EQ(modules.back().uuid, 0x001u);
    EXPECT_EQ(modules.front().uuid, 0x200u);
}

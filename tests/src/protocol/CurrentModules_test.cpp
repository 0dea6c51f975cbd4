#include "protocol/CurrentModules.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include "main/Debug.h"
#include "testsupport/SyslogCapture.h"

using orv::tsd::CurrentModules;
using orv::tsd::FRONT_FW;
using orv::tsd::interface_t;
using orv::tsd::REAR_FW;
using testsupport::SyslogCapture;

namespace {

const interface_t kSideTwo = static_cast<interface_t>(2);

class DebugOff
{
public:
    explicit DebugOff(bool on) { orv::tsd::setDebugModeFlag(on); }
    ~DebugOff() { orv::tsd::setDebugModeFlag(false); }
};

}  // namespace

TEST(CurrentModules, ConstructorPutsOwnEntryIntoEachList)
{
    CurrentModules modules(0x42);
    ASSERT_EQ(modules.size(REAR_FW), 1u);
    ASSERT_EQ(modules.size(FRONT_FW), 1u);
    EXPECT_EQ(modules.list(REAR_FW).front().uuid, 0x42u);
    EXPECT_TRUE(modules.list(FRONT_FW).front().isEmpty());
}

TEST(CurrentModules, NoReachableModulesLeavesOwnEntryAndSaysSo)
{
    SyslogCapture capture;
    CurrentModules modules(0x42);
    modules.init({}, {});
    EXPECT_EQ(modules.size(REAR_FW), 1u);
    EXPECT_EQ(modules.size(FRONT_FW), 1u);
    EXPECT_EQ(capture.count(LOG_INFO, "no modules connected to firewire"), 1u) << capture.dump();
    EXPECT_EQ(capture.countText("0 module(s) connected to firewire"), 0u);
}

TEST(CurrentModules, InitAppendsAfterOwnEntryAndLogsEachUuid)
{
    SyslogCapture capture;
    CurrentModules modules(0x42);
    modules.setEntry({0x42, 1, 1, 1}, REAR_FW);
    modules.init({0x123456, 0x7}, {0xABCDEF});
    ASSERT_EQ(modules.size(REAR_FW), 3u);
    ASSERT_EQ(modules.size(FRONT_FW), 2u);
    auto rear = modules.list(REAR_FW).begin();
    EXPECT_EQ(rear->uuid, 0x42u);
    EXPECT_TRUE(rear->isEmpty()) << "init discards received values";
    EXPECT_EQ((++rear)->uuid, 0x123456u);
    EXPECT_EQ((++rear)->uuid, 0x7u);
    EXPECT_EQ(modules.list(FRONT_FW).back().uuid, 0xABCDEFu);
    EXPECT_EQ(capture.count(LOG_INFO, "firewire back uuid 0x00000A7C31123456"), 1u) << capture.dump();
    EXPECT_EQ(capture.count(LOG_INFO, "firewire back uuid 0x00000A7C31000007"), 1u);
    EXPECT_EQ(capture.count(LOG_INFO, "firewire front uuid 0x00000A7C31ABCDEF"), 1u);
    EXPECT_EQ(capture.count(LOG_INFO, "3 module(s) connected to firewire"), 1u);
    // Order: back uuids, then front, then the count.
    const auto& lines = capture.lines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[lines.size() - 4].text, "firewire back uuid 0x00000A7C31123456");
    EXPECT_EQ(lines.back().text, "3 module(s) connected to firewire");
}

TEST(CurrentModules, ItemForUnknownUuidReturnsFalseAndChangesNothing)
{
    DebugOff debug(true);
    SyslogCapture capture;
    CurrentModules modules(0x42);
    modules.init({0x10}, {});
    EXPECT_FALSE(modules.setEntry({0x99, 5, 5, 5}, REAR_FW));
    ASSERT_EQ(modules.size(REAR_FW), 2u);
    for (const auto& item : modules.list(REAR_FW)) {
        EXPECT_NE(item.uuid, 0x99u);
        EXPECT_TRUE(item.isEmpty());
    }
    EXPECT_EQ(capture.count(LOG_DEBUG, "device 0x99 not found on interface 0"), 1u) << capture.dump();
}

TEST(CurrentModules, ItemWithZeroModuleOrPrioIsStoredButKeepsListIncomplete)
{
    CurrentModules modules(0x42);
    modules.init({0x10}, {});
    EXPECT_FALSE(modules.setEntry({0x42, 3, 3, 0}, REAR_FW));
    EXPECT_FALSE(modules.setEntry({0x10, 0, 9, 77}, REAR_FW));
    EXPECT_EQ(modules.list(REAR_FW).back().threshold, 77u) << "stored although empty";
    EXPECT_FALSE(modules.setEntry({0x10, 9, 0, 77}, REAR_FW));
    EXPECT_TRUE(modules.setEntry({0x10, 9, 1, 77}, REAR_FW));
}

TEST(CurrentModules, CompleteListIsSortedWithHighestLast)
{
    DebugOff debug(true);
    SyslogCapture capture;
    CurrentModules modules(0x42);
    modules.init({0x10, 0x20}, {});
    EXPECT_FALSE(modules.setEntry({0x10, 12, 3, 1}, REAR_FW));
    EXPECT_FALSE(modules.setEntry({0x20, 10, 5, 2}, REAR_FW));
    EXPECT_TRUE(modules.setEntry({0x42, 1, 1, 3}, REAR_FW));
    std::vector<unsigned> order;
    for (const auto& item : modules.list(REAR_FW))
        order.push_back(item.uuid);
    EXPECT_EQ(order, (std::vector<unsigned>{0x42, 0x10, 0x20}));
    EXPECT_EQ(modules.getHighest(REAR_FW).uuid, 0x20u);
    EXPECT_EQ(capture.count(
                  LOG_DEBUG,
                  "UPDATED LIST(0): uuid(10) = 16 module = 12 prio = 3 threshold = 1 BUS 0fw->size() = 3"),
              1u)
        << capture.dump();
}

TEST(CurrentModules, ModuleWithGreaterSumBeatsTiedPairWhateverItsUuid)
{
    CurrentModules modules(0x1);
    modules.init({0x10, 0x20}, {});
    modules.setEntry({0x10, 10, 5, 0}, REAR_FW);
    modules.setEntry({0x20, 12, 3, 0}, REAR_FW);
    EXPECT_TRUE(modules.setEntry({0x1, 8, 8, 0}, REAR_FW));
    EXPECT_EQ(modules.getHighest(REAR_FW).uuid, 0x1u);
}

TEST(CurrentModules, OverflowingSumWrapsAndRanksLow)
{
    CurrentModules modules(0x1);
    modules.init({0x10}, {});
    modules.setEntry({0x10, 0xFFFFFFFFu, 2, 0}, REAR_FW);  // wraps to 1
    EXPECT_TRUE(modules.setEntry({0x1, 1, 1, 0}, REAR_FW));
    EXPECT_EQ(modules.getHighest(REAR_FW).uuid, 0x1u);
}

TEST(CurrentModules, SetEntryUpdatesOnlyFirstOfDuplicateUuids)
{
    CurrentModules modules(0x1);
    modules.init({0x10, 0x10}, {});
    EXPECT_FALSE(modules.setEntry({0x10, 4, 4, 0}, REAR_FW));
    auto it = modules.list(REAR_FW).begin();
    ++it;
    EXPECT_FALSE(it->isEmpty());
    ++it;
    EXPECT_TRUE(it->isEmpty());
}

TEST(CurrentModules, ResetEntriesClearsValuesOfOneSideOnly)
{
    CurrentModules modules(0x1);
    modules.init({0x10}, {0x20});
    modules.setEntry({0x10, 4, 4, 4}, REAR_FW);
    modules.setEntry({0x20, 4, 4, 4}, FRONT_FW);
    modules.resetEntries(REAR_FW);
    EXPECT_TRUE(modules.list(REAR_FW).back().isEmpty());
    EXPECT_EQ(modules.list(REAR_FW).back().uuid, 0x10u);
    EXPECT_FALSE(modules.list(FRONT_FW).back().isEmpty());
    modules.resetEntries(FRONT_FW);
    EXPECT_TRUE(modules.list(FRONT_FW).back().isEmpty());
}

TEST(CurrentModules, SizeOfSideTwoReportsFrontListButSetEntryOfSideTwoWorksOnRear)
{
    CurrentModules modules(0x1);
    modules.init({0x10, 0x11}, {0x20});
    EXPECT_EQ(modules.size(kSideTwo), 2u) << "front list: own + 0x20";
    EXPECT_EQ(modules.size(REAR_FW), 3u);
    // 0x10 is only on the rear list, so side 2 must reach the rear list.
    EXPECT_FALSE(modules.setEntry({0x10, 5, 5, 0}, kSideTwo));
    auto it = modules.list(REAR_FW).begin();
    EXPECT_FALSE((++it)->isEmpty());
    // And an entry only on the front list is not found through side 2.
    EXPECT_FALSE(modules.setEntry({0x20, 5, 5, 0}, kSideTwo));
    EXPECT_TRUE(modules.list(FRONT_FW).back().isEmpty());
    modules.setEntry({0x11, 5, 5, 0}, kSideTwo);
    EXPECT_TRUE(modules.setEntry({0x1, 5, 5, 0}, kSideTwo));
    EXPECT_EQ(modules.getHighest(kSideTwo).uuid, 0x11u);
    modules.resetEntries(kSideTwo);
    EXPECT_TRUE(modules.list(REAR_FW).back().isEmpty());
}

TEST(CurrentModules, NoDebugLinesWhenDebugIsOff)
{
    DebugOff debug(false);
    SyslogCapture capture;
    CurrentModules modules(0x1);
    modules.setEntry({0x99, 1, 1, 1}, FRONT_FW);
    modules.setEntry({0x1, 1, 1, 1}, FRONT_FW);
    EXPECT_EQ(capture.lines().size(), 0u) << capture.dump();
}

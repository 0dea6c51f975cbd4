// What a rescan sends: only the differences between the published set and
// the new scan.
#include <gtest/gtest.h>

#include "DeviceChanges.h"

using orv::services::compareDevices;
using orv::services::DeviceChanges;
using orv::services::DeviceSet;

namespace {

Json::Value node(const std::string& guid, unsigned model = 1)
{
    Json::Value value;
    value["guid"] = guid;
    value["model"] = model;
    return value;
}

const std::string kA = "reachableDevices/firewire0/00000A7C31000001";
const std::string kB = "reachableDevices/firewire0/00000A7C31000002";
const std::string kC = "reachableDevices/firewire1/00000A7C31000003";

std::vector<std::string> pathsOf(const std::vector<std::pair<std::string, Json::Value>>& list)
{
    std::vector<std::string> out;
    for (const auto& entry : list) {
        out.push_back(entry.first);
    }
    return out;
}

struct Case
{
    const char* name;
    DeviceSet published;
    DeviceSet scanned;
    std::vector<std::string> added;
    std::vector<std::string> changed;
    std::vector<std::string> removed;
};

}  // namespace

TEST(DeviceChanges, TableOfRescans)
{
    const std::vector<Case> cases = {
        {"nothing before, nothing now", {}, {}, {}, {}, {}},
        {"first scan adds everything", {}, {{kA, node("1")}, {kB, node("2")}}, {kA, kB}, {}, {}},
        {"the same set sends nothing",
         {{kA, node("1")}, {kC, node("3")}},
         {{kA, node("1")}, {kC, node("3")}},
         {},
         {},
         {}},
        {"a device leaves", {{kA, node("1")}, {kB, node("2")}}, {{kA, node("1")}}, {}, {}, {kB}},
        {"everything leaves", {{kA, node("1")}, {kB, node("2")}}, {}, {}, {}, {kA, kB}},
        {"one leaves, one comes",
         {{kA, node("1")}, {kC, node("3")}},
         {{kB, node("2")}, {kC, node("3")}},
         {kB},
         {},
         {kA}},
        {"a node's value changes in place", {{kA, node("1", 1)}}, {{kA, node("1", 2)}}, {}, {kA}, {}},
        {"interleaved paths", {{kA, node("1")}, {kC, node("3")}}, {{kB, node("2")}}, {kB}, {}, {kA, kC}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const DeviceChanges changes = compareDevices(c.published, c.scanned);
        EXPECT_EQ(pathsOf(changes.added), c.added);
        EXPECT_EQ(pathsOf(changes.changed), c.changed);
        EXPECT_EQ(changes.removed, c.removed);
        EXPECT_EQ(changes.empty(), c.added.empty() && c.changed.empty() && c.removed.empty());
    }
}

TEST(DeviceChanges, AddedAndChangedCarryTheNewValue)
{
    const DeviceChanges changes =
        compareDevices({{kA, node("1", 1)}}, {{kA, node("1", 7)}, {kB, node("2", 9)}});
    ASSERT_EQ(changes.changed.size(), 1u);
    EXPECT_EQ(changes.changed[0].second["model"].asUInt(), 7u);
    ASSERT_EQ(changes.added.size(), 1u);
    EXPECT_EQ(changes.added[0].second["model"].asUInt(), 9u);
}

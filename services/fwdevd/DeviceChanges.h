#pragma once

#include <string>
#include <utility>
#include <vector>

#include "SysfsScan.h"

namespace orv::services {

// What must go to the bus to turn the published set into a newly scanned
// one. Paths within each list are sorted.
struct DeviceChanges
{
    std::vector<std::pair<std::string, Json::Value>> added;
    std::vector<std::pair<std::string, Json::Value>> changed;  // same path, other value
    std::vector<std::string> removed;

    bool empty() const { return added.empty() && changed.empty() && removed.empty(); }
};

// Pure: only the differences, so that a rescan that finds the same devices
// sends nothing and the fetchers (tsd restarts its election on every add and
// remove) see only real appearances and removals.
DeviceChanges compareDevices(const DeviceSet& published, const DeviceSet& scanned);

}  // namespace orv::services

#pragma once

#include <json/value.h>

#include <cstdint>

#include <map>
#include <string>
#include <vector>

namespace orv::services {

// What fwdevd publishes: bus path "reachableDevices/<interface>/<guid>" to
// the value describing that remote node. Ordered by path, so that listing it
// gives the sorted output of --once.
using DeviceSet = std::map<std::string, Json::Value>;

// One look at the kernel's FireWire devices and network interfaces.
struct ScanResult
{
    // False when the scan could not see the whole picture (a directory that
    // cannot be listed); then devices is empty and nothing may be published,
    // since removing what the scan missed would be wrong.
    bool complete = false;
    std::string failure;  // why the scan is not complete
    DeviceSet devices;
    // What was skipped and why, one line each, in a fixed order and wording,
    // so that the caller can log a problem once and stay quiet while it lasts.
    // Control bytes from sysfs arrive here escaped.
    std::vector<std::string> problems;
};

// The bus path of a remote node seen on interface: "reachableDevices/",
// the interface, "/" and the guid as 16 upper-case hex digits. Whoever
// predicts what fwdevd publishes (the simulator) builds paths with this too.
std::string reachablePath(const std::string& interface, std::uint64_t guid);

// Scans the sysfs mounted at root ("/sys" on a module, a tree of its own in
// tests and the simulator). Reads files only; never throws for what it finds.
ScanResult scanReachableDevices(const std::string& root);

}  // namespace orv::services

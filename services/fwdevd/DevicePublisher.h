#pragma once

#include <cstddef>
#include <functional>
#include <set>
#include <string>

#include "SysfsScan.h"

namespace vela {
class PeerAsync;
}

namespace orv::services {

// Keeps the bus in step with the FireWire devices in sysfs: every rescan
// compares a fresh scan with what is published and sends only the
// differences, one state per reachable remote node. An incomplete scan
// changes nothing on the bus. Runs on the loop of its peer; owns the
// published set and the memory of what it logged, so that a fault that lasts
// is logged once, when it appears.
class DevicePublisher
{
public:
    DevicePublisher(vela::PeerAsync& peer, std::string sysfsRoot);
    DevicePublisher(const DevicePublisher&) = delete;
    DevicePublisher& operator=(const DevicePublisher&) = delete;

    // Scans and publishes the differences. False when the scan was
    // incomplete and nothing was sent.
    bool rescan();

    // What the bus has been told (adds the broker refused are taken out
    // again, so that the next rescan tries them anew).
    const DeviceSet& published() const { return m_published; }

    // Adds and removals the broker has not answered yet; settled runs each
    // time the last of them is answered.
    std::size_t pending() const { return m_pending; }
    void onSettled(std::function<void()> settled) { m_settled = std::move(settled); }

private:
    vela::PeerAsync& m_peer;
    const std::string m_root;
    DeviceSet m_published;
    std::size_t m_pending = 0;
    std::function<void()> m_settled;
    std::set<std::string> m_loggedProblems;
    std::string m_loggedFailure;
    std::set<std::string> m_refusedPaths;

    void logProblems(const ScanResult& scan);
    void add(const std::string& path, const Json::Value& value);
    void remove(const std::string& path);
    void answered();
};

}  // namespace orv::services

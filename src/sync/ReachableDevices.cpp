// Which modules join an election is not learnt from telegrams but from the
// bus, where one state per reachable FireWire device is published as
// "reachableDevices/<local interface>/<64-bit node id in hex>", e.g.
// "reachableDevices/firewire0/0A7C31ABCDEF". The lists kept
// here feed the next initState(); a burst of changes restarts the election
// once, when the set has been quiet for kReachableDelayMs.
#include <syslog.h>

#include <chrono>
#include <cstdlib>
#include <sstream>
#include <vector>

#include <orv/string/split.h>

#include "config/Config.h"
#include "main/Debug.h"
#include "sync/TimeSyncManagement.h"

namespace orv::tsd {

namespace {
constexpr unsigned long long kOuiMask = 0xFFFFFF000000ULL;
constexpr unsigned long long kOwnOui = 0x0A7C31000000ULL;
constexpr unsigned long long kUuidMask = 0xFFFFFFULL;
}  // namespace

void TimeSyncManagement::cbReachableFirewire(const Json::Value& notification)
{
    const std::string path = notification["path"].asString();
    const std::vector<std::string> parts = orv::string::split(path, "/");
    if (parts.size() < 3) {
        if (isDebugMode()) {
            debugLog(std::string("TimeSyncManagement::") + "cbReachableFirewire" +
                     " notified with unexpected path '" + path + "'\n");
        }
        return;
    }

    const unsigned long long id = std::strtoull(parts[2].c_str(), nullptr, 16);
    // Devices of other makers run no daemon and would never answer: they must
    // neither join the election nor restart it. The top 16 bits do not matter.
    if ((id & kOuiMask) != kOwnOui) {
        syslog(LOG_INFO, "device %s is ignored by synchronisation", parts[2].c_str());
        return;
    }
    const auto uuid = static_cast<unsigned>(id & kUuidMask);
    const bool rear = parts[1] == Config::instance().getRearInterfaceName();
    std::list<unsigned>& side = rear ? m_reachableRear : m_reachableFront;
    const char* sideText = rear ? "back side" : "front side";

    const std::string event = notification["event"].asString();
    if (event == "add") {
        if (isDebugMode()) {
            std::ostringstream text;
            text << "TimeSyncManagement::"
                 << "cbReachableFirewire"
                 << " recognized appearance of device " << std::hex << uuid << " on ";
            debugLog(text.str());
            debugLog(sideText);
        }
        side.push_back(uuid);
    } else if (event == "remove") {
        if (isDebugMode()) {
            std::ostringstream text;
            text << "TimeSyncManagement::"
                 << "cbReachableFirewire"
                 << " recognized removal of device " << std::hex << uuid << " from ";
            debugLog(text.str());
            debugLog(sideText);
        }
        side.remove(uuid);
    } else {
        return;
    }

    if (isDebugMode()) {
        debugLog(std::string("TimeSyncManagement::") + "cbReachableFirewire" + " triggered delayed action");
    }
    // Every change re-arms the timer, so a burst restarts the election once.
    m_reachableDelayTimer.set(std::chrono::milliseconds(kReachableDelayMs), false,
                              [this](bool fired) { cbReachableDelayTimerCb(fired); });
}

void TimeSyncManagement::cbReachableDelayTimerCb(bool fired)
{
    if (fired) {
        initState();
    }
}

}  // namespace orv::tsd

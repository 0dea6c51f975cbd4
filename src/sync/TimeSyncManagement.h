#pragma once

#include <json/value.h>

#include <list>

#include <orv/sys/Timer.h>

#include "config/InterfaceType.h"
#include "config/TsdConfig.h"
#include "protocol/CurrentModules.h"
#include "protocol/ModuleItem.h"
#include "sync/SyncStatus.h"

namespace orv::communication {
class MulticastServer;
}
namespace orv::sys {
class EventLoop;
}
namespace vela {
class PeerAsync;
}

namespace orv::tsd {

// The sync manager: owns the per-side module lists, the time-source
// parameters ("sync/param"), the reachable-device lists and the published
// states "sync/app" and "sync/master". After every completed election on a
// side it applies the result to the local time services and drives the
// per-side phases. Runs on the event-loop thread only.
//
// Members are declared in the order in which they are built; the destructor
// relies on the reverse order (m_tsdConfig goes first).
class TimeSyncManagement
{
public:
    // Quiet time after the last reachable-device change before the election
    // restarts, so that a chain powering up restarts it once.
    static constexpr int kReachableDelayMs = 3000;
    static constexpr const char* kAppStatePath = "sync/app";
    static constexpr const char* kMasterStatePath = "sync/master";
    static constexpr const char* kReachablePrefix = "reachableDevices/firewire";

    TimeSyncManagement(orv::communication::MulticastServer& rear, orv::communication::MulticastServer& front,
                       orv::sys::EventLoop& loop, vela::PeerAsync& peer);
    virtual ~TimeSyncManagement();
    TimeSyncManagement(const TimeSyncManagement&) = delete;
    TimeSyncManagement& operator=(const TimeSyncManagement&) = delete;

    bool initState();
    void initRearFirewire();
    void initFrontFirewire();
    bool getTsdParam(unsigned& prio, unsigned& threshold, interface_t side);
    bool setEntry(const ModuleItem& item, interface_t side);
    void checkState(interface_t side);

    void setSyncMasterParam(interface_t side);

    void cbReachableFirewire(const Json::Value& notification);
    void cbReachableDelayTimerCb(bool fired);

    void notifyParams(enSyncStatus modeBack, enSyncStatus modeFront, unsigned uuidBack, unsigned uuidFront,
                      double thresholdBack, double thresholdFront);
    Json::Value cbAppParams(const Json::Value& request);

private:
    // Unit tests read and preset the state through this accessor.
    friend class TimeSyncManagementTestAccess;

    int m_fetchId = 0;
    std::list<unsigned> m_reachableRear;
    std::list<unsigned> m_reachableFront;
    CurrentModules m_currentModules;
    ModuleItem m_SyncMaster[2];
    unsigned m_lastSyncMasterUuid = 0;
    enSyncStatus m_SyncStatus[2] = {SYNC_ALONE, SYNC_ALONE};
    unsigned m_PropagationPrioToRear = 0;
    unsigned m_PropagationThresholdToRear = 0;
    unsigned m_PropagationPrioToFront = 0;
    unsigned m_PropagationThresholdToFront = 0;
    bool m_rearIndependent = true;
    bool m_frontIndependent = true;
    bool m_useOwnParams = true;
    bool m_ChangeFlag[2] = {false, false};
    interface_t m_ExpectedInterface = REAR_FW;
    enTsdPhase m_State = INITIALIZED_PHASE;
    orv::communication::MulticastServer& m_rearServer;
    orv::communication::MulticastServer& m_frontServer;
    orv::sys::Timer m_reachableDelayTimer;
    vela::PeerAsync& m_peer;
    TsdConfig m_tsdConfig;
};

}  // namespace orv::tsd

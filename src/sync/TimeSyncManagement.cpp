// The election driver. Every side runs its own election; a gateway module
// joins its two sides into one chain by announcing, on one side, the master
// values it learnt on the other ("propagation"). After each completed result
// setSyncMasterParam() applies it and hands over to checkState(), which asks
// the pure transition table what to do next and then does it here.
#include "sync/TimeSyncManagement.h"

#include <syslog.h>

#include <sstream>

#include <vela/PeerAsync.h>

#include "config/Config.h"
#include "main/Debug.h"
#include "protocol/CommandProcessor.h"
#include "sync/SyncPhase.h"

namespace orv::tsd {

TimeSyncManagement::TimeSyncManagement(orv::communication::MulticastServer& rear,
                                       orv::communication::MulticastServer& front, orv::sys::EventLoop& loop,
                                       vela::PeerAsync& peer)
    : m_currentModules(Config::instance().getUuid()),
      m_rearServer(rear),
      m_frontServer(front),
      m_reachableDelayTimer(loop),
      m_peer(peer),
      m_tsdConfig(peer, [this] { initState(); })
{
    m_SyncStatus[REAR_FW] = SYNC_ALONE;
    m_SyncStatus[FRONT_FW] = SYNC_ALONE;
    m_ChangeFlag[REAR_FW] = false;
    m_ChangeFlag[FRONT_FW] = false;

    // Until the first published result applications see "not yet determined".
    Json::Value app(Json::objectValue);
    app["mode_back"] = static_cast<int>(SYNC_UNKNOWN);
    app["mode_front"] = static_cast<int>(SYNC_UNKNOWN);
    app["master_uuid_back"] = 0;
    app["master_uuid_front"] = 0;
    app["master_threshold_back"] = 0.0;
    app["master_threshold_front"] = 0.0;
    m_peer.addStateAsync(kAppStatePath, app, {}, [this](const Json::Value& request, const std::string&) {
        return cbAppParams(request);
    });

    vela::matcher_t matcher;
    matcher.startsWith = kReachablePrefix;
    m_fetchId = m_peer.addFetchAsync(
        matcher, [this](const Json::Value& notification, int) { cbReachableFirewire(notification); }, {});

    // Until an election says otherwise this module is its own chain master.
    m_peer.addStateAsync(kMasterStatePath, Json::Value(Config::instance().getUuidAsOnLabel()), {}, {});
    // No telegram here: the first election starts with the first initState().
}

TimeSyncManagement::~TimeSyncManagement()
{
    m_peer.removeStateAsync(kMasterStatePath, {});
    m_peer.removeFetchAsync(m_fetchId, {});
    m_peer.removeStateAsync(kAppStatePath, {});
}

bool TimeSyncManagement::initState()
{
    m_currentModules.init(m_reachableRear, m_reachableFront);

    m_ChangeFlag[REAR_FW] = false;
    m_ChangeFlag[FRONT_FW] = false;
    m_SyncMaster[REAR_FW] = ModuleItem();
    m_SyncMaster[FRONT_FW] = ModuleItem();
    m_PropagationPrioToRear = 0;
    m_PropagationThresholdToRear = 0;
    m_PropagationPrioToFront = 0;
    m_PropagationThresholdToFront = 0;

    m_ExpectedInterface = REAR_FW;
    m_State = INITIALIZED_PHASE;
    m_SyncStatus[REAR_FW] = SYNC_ALONE;
    m_SyncStatus[FRONT_FW] = SYNC_ALONE;

    // The independence flags, the last published master and the bus states
    // survive a restart: applications keep the previous result until the new
    // one differs.
    CommandProcessor::sendInit(REAR_FW, m_rearServer);
    return true;
}

void TimeSyncManagement::initRearFirewire()
{
    m_State = INITIALIZED_PHASE;
    m_ExpectedInterface = REAR_FW;
    m_currentModules.resetEntries(REAR_FW);
    if (isDebugMode()) {
        debugLog("initRearFirewire sate: " + std::to_string(static_cast<int>(m_State)));
    }
}

void TimeSyncManagement::initFrontFirewire()
{
    // Before the rear result is known the front side has nothing to elect.
    if (static_cast<int>(m_State) <= 0) {
        return;
    }
    m_ExpectedInterface = FRONT_FW;
    m_currentModules.resetEntries(FRONT_FW);
    if (isDebugMode()) {
        debugLog(" initFrontFirewire state: " + std::to_string(static_cast<int>(m_State)));
    }
}

bool TimeSyncManagement::getTsdParam(unsigned& prio, unsigned& threshold, interface_t side)
{
    if (side == REAR_FW) {
        if (!m_useOwnParams && static_cast<int>(m_State) > 0 && Config::instance().IsKPModule()) {
            prio = m_PropagationPrioToRear;
            threshold = m_PropagationThresholdToRear;
        } else {
            prio = m_tsdConfig.getTimesourcePrio();
            threshold = m_tsdConfig.getThreshold();
        }
        return true;
    }

    if (m_State == INITIALIZED_PHASE) {
        syslog(LOG_WARNING, " TimeSyncManagement::getTsdParam in INITIALIZED_PHASE (FRONT FW)");
    }
    // Deliberately neither the phase nor the module family: after a restart a
    // front item keeps announcing the propagated values until the flag flips.
    if (!m_useOwnParams) {
        prio = m_PropagationPrioToFront;
        threshold = m_PropagationThresholdToFront;
    } else {
        prio = m_tsdConfig.getTimesourcePrio();
        threshold = m_tsdConfig.getThreshold();
    }
    return true;
}

bool TimeSyncManagement::setEntry(const ModuleItem& item, interface_t side)
{
    const bool complete = m_currentModules.setEntry(item, side);
    if (complete) {
        setSyncMasterParam(side);
    }
    return complete;
}

void TimeSyncManagement::checkState(interface_t side)
{
    // Values outside the two sides index the rear entries, as the module
    // lists treat them.
    const int index = side == FRONT_FW ? FRONT_FW : REAR_FW;

    if (isDebugMode()) {
        std::ostringstream text;
        text << "interface : " << static_cast<int>(side) << " current state : " << static_cast<int>(m_State)
             << " "
             << "ChangeFlag REAR_FW = " << m_ChangeFlag[REAR_FW]
             << " ChangeFlag[FRONT_FW] = " << m_ChangeFlag[FRONT_FW] << " "
             << "m_ExpectedInterface " << static_cast<int>(m_ExpectedInterface);
        debugLog(text.str());
    }

    bool rearChanged = false;
    if (m_ChangeFlag[REAR_FW]) {
        if (m_SyncStatus[REAR_FW] == SYNC_SLAVE) {
            m_rearIndependent = false;
            if (m_PropagationPrioToFront != m_SyncMaster[REAR_FW].prio ||
                m_PropagationThresholdToFront != m_SyncMaster[REAR_FW].threshold) {
                m_PropagationPrioToFront = m_SyncMaster[REAR_FW].prio;
                m_PropagationThresholdToFront = m_SyncMaster[REAR_FW].threshold;
                rearChanged = true;
            }
        } else {
            m_rearIndependent = true;
        }
    }

    bool frontChanged = false;
    if (m_ChangeFlag[FRONT_FW]) {
        if (m_SyncStatus[FRONT_FW] == SYNC_SLAVE) {
            m_frontIndependent = false;
            if (m_PropagationPrioToRear != m_SyncMaster[FRONT_FW].prio ||
                m_PropagationThresholdToRear != m_SyncMaster[FRONT_FW].threshold) {
                m_PropagationPrioToRear = m_SyncMaster[FRONT_FW].prio;
                m_PropagationThresholdToRear = m_SyncMaster[FRONT_FW].threshold;
                frontChanged = true;
            }
        } else {
            m_frontIndependent = true;
        }
    }

    if (isDebugMode()) {
        std::ostringstream text;
        text << " m_PropagationThresholdToRear : " << m_PropagationThresholdToRear
             << " m_PropagationPrioToRear : " << m_PropagationPrioToRear
             << " m_PropagationThresholdToFront : " << m_PropagationThresholdToFront
             << " m_PropagationPrioToFront : " << m_PropagationPrioToFront;
        debugLog(text.str());
    }

    const bool gateway = Config::instance().IsKPModule();
    // A gateway announces its own values only when neither side follows a
    // foreign master; any other module looks at its rear side alone.
    m_useOwnParams = (gateway && m_rearIndependent) ? m_frontIndependent : m_rearIndependent;

    PhaseEvent event;
    event.phase = m_State;
    event.side = side;
    event.expected = m_ExpectedInterface;
    event.changeFlag = m_ChangeFlag[index];
    event.gateway = gateway;
    event.rearChanged = rearChanged;
    event.frontChanged = frontChanged;
    const unsigned ownUuid = Config::instance().getUuid();
    event.rearMasterIsOwn = m_SyncMaster[REAR_FW].uuid == ownUuid;
    event.frontMasterIsOwn = m_SyncMaster[FRONT_FW].uuid == ownUuid;

    const PhaseStep step = nextPhase(event);
    switch (step.action) {
        case PhaseAction::None:
            break;
        case PhaseAction::PropagateAndStartFront:
            m_PropagationPrioToFront = m_SyncMaster[REAR_FW].prio;
            m_PropagationThresholdToFront = m_SyncMaster[REAR_FW].threshold;
            if (isDebugMode()) {
                // The threshold is printed twice and the priority not at all;
                // log readers match on this form.
                debugLog("m_PropagationThresholdToFront : " + std::to_string(m_PropagationThresholdToFront) +
                         " " +
                         "m_PropagationThresholdToFront : " + std::to_string(m_PropagationThresholdToFront));
            }
            CommandProcessor::sendInit(FRONT_FW, m_frontServer);
            break;
        case PhaseAction::ExpectRearAndResyncRear:
            m_ExpectedInterface = REAR_FW;
            [[fallthrough]];
        case PhaseAction::ResyncRear:
            if (isDebugMode()) {
                debugLog("m_PropagationThresholdToRear : " + std::to_string(m_PropagationThresholdToRear) +
                         " " + "m_PropagationPrioToRear : " + std::to_string(m_PropagationPrioToRear));
            }
            CommandProcessor::sendResync(REAR_FW, m_rearServer);
            break;
        case PhaseAction::ExpectFrontAndResyncFront:
            m_ExpectedInterface = FRONT_FW;
            [[fallthrough]];
        case PhaseAction::ResyncFront:
            if (isDebugMode()) {
                debugLog("m_PropagationThresholdToFront : " + std::to_string(m_PropagationThresholdToFront) +
                         " " + "m_PropagationPrioToFront : " + std::to_string(m_PropagationPrioToFront));
            }
            CommandProcessor::sendResync(FRONT_FW, m_frontServer);
            break;
    }
    m_State = step.next;

    // A result for a side we were not waiting for is dropped for good.
    m_ChangeFlag[index] = false;
    if (isDebugMode()) {
        debugLog("new state : " + std::to_string(static_cast<int>(m_State)));
    }
}

}  // namespace orv::tsd

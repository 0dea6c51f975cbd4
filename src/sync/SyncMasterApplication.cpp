// Applying a completed election on one side: record and publish the side's
// master, decide whether this module serves time to the chain, start,
// restart or stop the local time service, publish the chain master, and hand
// over to the election driver.
#include <sstream>

#include <vela/PeerAsync.h>

#include "config/Config.h"
#include "config/ConfigParams.h"
#include "main/Debug.h"
#include "sync/CommandRunner.h"
#include "sync/NtpManage.h"
#include "sync/PTPManage.h"
#include "sync/TimeServicePlan.h"
#include "sync/TimeSyncManagement.h"

namespace orv::tsd {

void TimeSyncManagement::setSyncMasterParam(interface_t side)
{
    // Values outside the two sides index the rear entries, as the module
    // lists treat them.
    const int index = side == FRONT_FW ? FRONT_FW : REAR_FW;
    const Config& config = Config::instance();
    const bool gateway = config.IsKPModule();

    const ModuleItem highest = m_currentModules.getHighest(side);
    const unsigned ownUuid = config.getUuid();
    const unsigned ownLevel = m_tsdConfig.getTimesourcePrio();
    const enSyncStatus status = sideStatus(m_currentModules.size(side), ownUuid, highest.uuid);

    ModuleItem& stored = m_SyncMaster[index];
    // A change of the module priority alone does not count: it cannot move the
    // time service, only the announced time source can.
    if (stored.uuid != highest.uuid || stored.threshold != highest.threshold || stored.prio != highest.prio ||
        m_SyncStatus[index] != status) {
        stored = highest;
        m_SyncStatus[index] = status;
        const double thresholdBack = static_cast<double>(m_SyncMaster[REAR_FW].threshold) * 0.1;
        const double thresholdFront = static_cast<double>(m_SyncMaster[FRONT_FW].threshold) * 0.1;
        // A gateway with modules on its front publishes only once both sides
        // have a master, so applications never see half a chain.
        if (!gateway || m_currentModules.size(FRONT_FW) < 2 ||
            (m_SyncMaster[REAR_FW].uuid != 0 && m_SyncMaster[FRONT_FW].uuid != 0)) {
            notifyParams(m_SyncStatus[REAR_FW], m_SyncStatus[FRONT_FW], m_SyncMaster[REAR_FW].uuid,
                         m_SyncMaster[FRONT_FW].uuid, thresholdBack, thresholdFront);
        }
        m_ChangeFlag[index] = true;
    }

    TimeServiceInput input;
    input.isServer = isTimeServer(gateway, ownUuid, m_SyncMaster[REAR_FW].uuid, m_SyncMaster[FRONT_FW].uuid);
    input.ownLevel = ownLevel;
    input.ntpLevel = ConfigParams::instance().getPrioLevel("Ntp");
    input.ptpLevel = ConfigParams::instance().getPrioLevel("Ptp");
    NtpManage& ntp = NtpManage::instance();
    PTPManage& ptp = PTPManage::instance();
    input.ntpRunning = ntp.isRunning();
    input.ptpRunning = ptp.isRunning();
    input.rearChanged = m_ChangeFlag[REAR_FW];

    CommandRunner& runner = systemRunner();
    switch (planTimeService(input)) {
        case TimeServiceAction::None:
            break;
        case TimeServiceAction::StopNtp:
            ntp.stop(runner);
            break;
        case TimeServiceAction::StopPtp:
            ptp.stop(runner);
            break;
        case TimeServiceAction::StartNtp:
            ntp.start(runner, m_tsdConfig.getNtpCfg(), ptp);
            break;
        case TimeServiceAction::RestartNtp:
            ntp.restart(runner, m_tsdConfig.getNtpCfg());
            break;
        case TimeServiceAction::StartPtp:
            ptp.start(runner, m_tsdConfig.getPtpCfg(), ntp);
            break;
        case TimeServiceAction::RestartPtp:
            ptp.restart(runner, m_tsdConfig.getPtpCfg());
            break;
    }

    if (isDebugMode()) {
        std::ostringstream text;
        text << "SYNCMASTER(" << static_cast<int>(side) << ") UUID : " << std::hex << highest.uuid << std::dec
             << " MODULE PRIO : " << highest.module << " TS-PRIO : " << highest.prio
             << " TS-THRESHOLD : " << highest.threshold << "\n";
        debugLog(text.str());
    }

    const unsigned chainMaster =
        chainMasterUuid(gateway, ownUuid, m_SyncMaster[REAR_FW].uuid, m_SyncMaster[FRONT_FW].uuid);
    if (chainMaster != m_lastSyncMasterUuid) {
        m_lastSyncMasterUuid = chainMaster;
        m_peer.notifyState(kMasterStatePath, labelUuid(chainMaster));
    }

    checkState(side);
}

}  // namespace orv::tsd

#include "sync/TimeServicePlan.h"

#include <cstdio>

namespace orv::tsd {

enSyncStatus sideStatus(unsigned sideSize, unsigned ownUuid, unsigned highestUuid)
{
    if (sideSize <= 1) {
        return SYNC_ALONE;
    }
    return ownUuid == highestUuid ? SYNC_MASTER : SYNC_SLAVE;
}

bool isTimeServer(bool gateway, unsigned ownUuid, unsigned rearMasterUuid, unsigned frontMasterUuid)
{
    if (gateway) {
        return ownUuid == rearMasterUuid && ownUuid == frontMasterUuid;
    }
    return ownUuid == rearMasterUuid;
}

TimeServiceAction planTimeService(const TimeServiceInput& in)
{
    const bool serveNtp = in.isServer && in.ownLevel == in.ntpLevel;
    const bool servePtp = in.isServer && !serveNtp && in.ownLevel == in.ptpLevel;

    if (serveNtp) {
        if (!in.ntpRunning) {
            return TimeServiceAction::StartNtp;
        }
        return in.rearChanged ? TimeServiceAction::RestartNtp : TimeServiceAction::None;
    }
    if (servePtp) {
        if (!in.ptpRunning) {
            return TimeServiceAction::StartPtp;
        }
        return in.rearChanged ? TimeServiceAction::RestartPtp : TimeServiceAction::None;
    }
    // Not serving: NTP is stopped first and PTP then left alone until the
    // next election.
    if (in.ntpRunning) {
        return TimeServiceAction::StopNtp;
    }
    if (in.ptpRunning) {
        return TimeServiceAction::StopPtp;
    }
    return TimeServiceAction::None;
}

unsigned chainMasterUuid(bool gateway, unsigned ownUuid, unsigned rearMasterUuid, unsigned frontMasterUuid)
{
    if (gateway && ownUuid == rearMasterUuid) {
        return frontMasterUuid;
    }
    return rearMasterUuid;
}

std::string labelUuid(unsigned uuid)
{
    char text[32];
    std::snprintf(text, sizeof text, "0A7C31%06X", uuid);
    return text;
}

const char* toString(TimeServiceAction action)
{
    switch (action) {
        case TimeServiceAction::None:
            return "none";
        case TimeServiceAction::StopNtp:
            return "stop NTP";
        case TimeServiceAction::StopPtp:
            return "stop PTP";
        case TimeServiceAction::StartNtp:
            return "start NTP";
        case TimeServiceAction::RestartNtp:
            return "restart NTP";
        case TimeServiceAction::StartPtp:
            return "start PTP";
        case TimeServiceAction::RestartPtp:
            return "restart PTP";
    }
    return "?";
}

}  // namespace orv::tsd

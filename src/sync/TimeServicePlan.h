#pragma once

#include <string>

#include "sync/SyncStatus.h"

namespace orv::tsd {

// The pure decisions behind applying an election result: the side's status,
// whether this module serves time to the chain, which service to start,
// restart or stop, and the chain master shown on "sync/master". No logging,
// no bus, no commands: TimeSyncManagement carries the results out.

enum class TimeServiceAction
{
    None,
    StopNtp,
    StopPtp,
    StartNtp,
    RestartNtp,
    StartPtp,
    RestartPtp,
};

struct TimeServiceInput
{
    bool isServer = false;
    unsigned ownLevel = 0;  // priority level of the configured time source
    unsigned ntpLevel = 0;  // configured level of "Ntp"
    unsigned ptpLevel = 0;  // configured level of "Ptp"
    bool ntpRunning = false;
    bool ptpRunning = false;
    // The rear side's change flag, whichever side is being applied: a running
    // service is restarted only while the rear result is new.
    bool rearChanged = false;
};

// Fewer than two modules: alone; the highest is this module: master; else slave.
enSyncStatus sideStatus(unsigned sideSize, unsigned ownUuid, unsigned highestUuid);

// A gateway serves time only when it is master on both sides; any other module
// when it is the rear master (its front side does not count).
bool isTimeServer(bool gateway, unsigned ownUuid, unsigned rearMasterUuid, unsigned frontMasterUuid);

// NTP is compared first, so with equal levels NTP wins. A server whose level
// is neither stops its services like a non-server.
TimeServiceAction planTimeService(const TimeServiceInput& input);

// The rear master, except on a gateway that is the rear master itself: then
// the front master (its own uuid when it serves the chain).
unsigned chainMasterUuid(bool gateway, unsigned ownUuid, unsigned rearMasterUuid, unsigned frontMasterUuid);

// A uuid as printed on a module's label: "0A7C31" and at least six upper-case
// hex digits.
std::string labelUuid(unsigned uuid);

const char* toString(TimeServiceAction action);

}  // namespace orv::tsd

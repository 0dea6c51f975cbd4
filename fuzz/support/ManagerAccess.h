#pragma once

// The sync manager's own lists, which its header opens to this accessor, so
// that a fuzz target can compare what a notification did with what it should
// have done.

#include <list>

#include "protocol/CurrentModules.h"
#include "sync/TimeSyncManagement.h"

namespace orv::tsd {

class TimeSyncManagementTestAccess
{
public:
    explicit TimeSyncManagementTestAccess(TimeSyncManagement& tsm) : m_tsm(tsm) {}

    const std::list<unsigned>& reachable(interface_t side) const
    {
        return side == FRONT_FW ? m_tsm.m_reachableFront : m_tsm.m_reachableRear;
    }
    const CurrentModules& modules() const { return m_tsm.m_currentModules; }
    bool delayPending() const { return m_tsm.m_reachableDelayTimer.isPending(); }
    void cancelDelay() { m_tsm.m_reachableDelayTimer.cancel(); }

private:
    TimeSyncManagement& m_tsm;
};

}  // namespace orv::tsd

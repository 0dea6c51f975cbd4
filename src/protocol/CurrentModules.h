#pragma once

#include <list>

#include "config/InterfaceType.h"
#include "protocol/ModuleItem.h"

namespace orv::tsd {

// The modules known on each FireWire side, this module included, with the
// values each announced. Entries come only from init() (the reachable
// devices); telegrams update them but never add one.
//
// Side selection is deliberately uneven: setEntry, getHighest and resetEntries
// take the front list for 1 and the rear list for any other value, size takes
// the rear list for 0 and the front list for any other value.
class CurrentModules
{
public:
    explicit CurrentModules(unsigned ownUuid);

    void init(const std::list<unsigned>& rearUuids, const std::list<unsigned>& frontUuids);
    // True only when the side's list is complete (every entry announced); the
    // list is then sorted in election order.
    bool setEntry(const ModuleItem& item, interface_t side);
    ModuleItem getHighest(interface_t side);
    void resetEntries(interface_t side);
    unsigned size(interface_t side) const;

    const std::list<ModuleItem>& list(interface_t side) const;

private:
    std::list<ModuleItem>& select(interface_t side);

    unsigned m_ownUuid;
    std::list<ModuleItem> m_rear;
    std::list<ModuleItem> m_front;
};

}  // namespace orv::tsd

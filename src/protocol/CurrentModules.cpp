#include "protocol/CurrentModules.h"

#include <syslog.h>

#include <sstream>

#include "main/Debug.h"

namespace orv::tsd {

CurrentModules::CurrentModules(unsigned ownUuid) : m_ownUuid(ownUuid)
{
    m_rear.emplace_back(ownUuid, 0u, 0u, 0u);
    m_front.emplace_back(ownUuid, 0u, 0u, 0u);
}

void CurrentModules::init(const std::list<unsigned>& rearUuids, const std::list<unsigned>& frontUuids)
{
    m_rear.clear();
    m_front.clear();
    // The own entry comes first so that a side without neighbours still has
    // its one member, which then elects this module.
    m_rear.emplace_back(m_ownUuid, 0u, 0u, 0u);
    m_front.emplace_back(m_ownUuid, 0u, 0u, 0u);

    std::size_t count = 0;
    for (unsigned uuid : rearUuids) {
        syslog(LOG_INFO, "firewire back uuid 0x00000A7C31%06X", uuid);
        m_rear.emplace_back(uuid, 0u, 0u, 0u);
        ++count;
    }
    for (unsigned uuid : frontUuids) {
        syslog(LOG_INFO, "firewire front uuid 0x00000A7C31%06X", uuid);
        m_front.emplace_back(uuid, 0u, 0u, 0u);
        ++count;
    }
    if (count != 0)
        syslog(LOG_INFO, "%zu module(s) connected to firewire", count);
    else
        syslog(LOG_INFO, "no modules connected to firewire");
}

std::list<ModuleItem>& CurrentModules::select(interface_t side)
{
    return side == FRONT_FW ? m_front : m_rear;
}

const std::list<ModuleItem>& CurrentModules::list(interface_t side) const
{
    return side == FRONT_FW ? m_front : m_rear;
}

bool CurrentModules::setEntry(const ModuleItem& item, interface_t side)
{
    std::list<ModuleItem>& modules = select(side);
    auto entry = modules.begin();
    while (entry != modules.end() && entry->uuid != item.uuid)
        ++entry;

    if (entry == modules.end()) {
        // Membership comes only from the reachable devices: a telegram from a
        // module nobody reported must not enter the election.
        if (isDebugMode()) {
            std::ostringstream text;
            text << "device 0x" << std::hex << item.uuid << std::dec << " not found on interface "
                 << static_cast<int>(side);
            debugLog(text.str());
        }
        return false;
    }

    *entry = item;
    if (isDebugMode()) {
        std::ostringstream text;
        text << "UPDATED LIST(" << static_cast<int>(side) << "): uuid(" << std::hex << item.uuid << std::dec
             << ") = " << item.uuid << " module = " << item.module << " prio = " << item.prio
             << " threshold = " << item.threshold << " BUS " << static_cast<int>(side)
             << "fw->size() = " << modules.size();
        debugLog(text.str());
    }

    for (const ModuleItem& module : modules) {
        if (module.isEmpty())
            return false;
    }
    // Sort only once every expected module has answered; a partial list would
    // elect the wrong master.
    modules.sort();
    return true;
}

ModuleItem CurrentModules::getHighest(interface_t side)
{
    std::list<ModuleItem>& modules = select(side);
    modules.sort();
    return modules.back();
}

void CurrentModules::resetEntries(interface_t side)
{
    for (ModuleItem& module : select(side))
        module.clear();
}

unsigned CurrentModules::size(interface_t side) const
{
    // Deliberately the opposite default from select(): 0 is rear, anything
    // else front.
    const std::list<ModuleItem>& modules = side == REAR_FW ? m_rear : m_front;
    return static_cast<unsigned>(modules.size());
}

}  // namespace orv::tsd

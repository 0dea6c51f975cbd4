#pragma once

#include <map>
#include <string>

#include "config/InterfaceType.h"

// The daemon's XML configuration file (/etc/TimeSourceDaemonConfig.xml, else
// TimeSourceDaemonConfig.xml in the working directory): multicast group and
// base port, and one table of priority levels shared by module types and time
// sources. Read once on first use; no reload.
class ConfigParams
{
public:
    static ConfigParams& instance();

    const std::string& getMulticastAddress() const { return m_multicastAddress; }
    // REAR_FW: the base port; any other value: base port + 1.
    unsigned getMulticastPort(orv::tsd::interface_t side) const;
    // 0 for a name that is not configured.
    unsigned getPrioLevel(const std::string& name) const;
    unsigned addPrioLevel(const std::string& name, const std::string& level);

    ConfigParams(const ConfigParams&) = delete;
    ConfigParams& operator=(const ConfigParams&) = delete;

private:
    ConfigParams();

    std::string m_multicastAddress;
    unsigned m_multicastPort = 0;
    std::map<std::string, unsigned> m_prioLevels;
};

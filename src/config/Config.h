#pragma once

#include <string>

#include "config/InterfaceType.h"

namespace orv::communication {
class Netadapter;
}

namespace orv::tsd {

// The module this daemon runs on: its UUID (environment "UUID"), its election
// priority (module type from the device tree, looked up in the configuration
// file) and its rear and front FireWire interfaces with their addresses.
// Built once on first use on the event-loop thread; read-only afterwards.
class Config
{
public:
    static Config& instance();

    unsigned getUuid() const { return m_uuid; }
    std::string getUuidAsOnLabel() const { return m_uuidAsOnLabel; }
    unsigned getModulePrio() const { return m_modulePrio; }
    const std::string& getRearInterfaceName() const { return m_rearInterfaceName; }
    // FRONT_FW gives the front address; every other value the rear one.
    const std::string& getInterfaceAddress(interface_t side) const;
    bool isFront(const orv::communication::Netadapter& adapter) const;
    bool IsKPModule() const { return m_isKPModule; }

    Config(const Config&) = delete;
    Config& operator=(const Config&) = delete;

private:
    // Tests force the gateway family on through this accessor; production code
    // never touches it.
    friend class ConfigTestAccess;

    Config();

    unsigned m_uuid = 0;
    std::string m_uuidAsOnLabel;
    unsigned m_modulePrio = 0;
    std::string m_rearInterfaceName;
    std::string m_frontInterfaceName;
    std::string m_rearInterfaceAddress;
    std::string m_frontInterfaceAddress;
    bool m_isKPModule = false;
};

}  // namespace orv::tsd

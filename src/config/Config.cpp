#include "config/Config.h"

#include <syslog.h>

#include <cctype>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>

#include <orv/communication/Netadapter.h>
#include <orv/communication/NetadapterList.h>
#include <orv/exception/exception.h>

#include "config/ConfigParams.h"

namespace orv::tsd {
namespace {

const char kModuleTypeFile[] = "/proc/device-tree/stratova/moduletype";
// The maker's OUI as it is printed in front of the UUID on the module's label.
const char kLabelPrefix[] = "0A7C31";
// The module type of the gateway family, and the names its priority levels
// have in the configuration file.
const char kGatewayType[] = "KP40";
const char kGatewayPrioName[] = "KP";
const char kOtherPrioName[] = "RZ";
// The rear port is the module's own FireWire node: its node id ends in the
// 24 bits of the module's UUID.
constexpr std::uint64_t kUuidMask = 0xFFFFFF;
constexpr std::size_t kModuleTypeBufferSize = 1024;

std::string readModuleType()
{
    std::ifstream stream(kModuleTypeFile);
    if (!stream.is_open()) {
        syslog(LOG_ERR, "%s does not exist", kModuleTypeFile);
        return {};
    }
    char buffer[kModuleTypeBufferSize] = {};
    stream.getline(buffer, sizeof buffer);
    // The device tree ends its strings with a NUL byte, which is not part of
    // the type.
    const std::string type(buffer);
    if (type.empty())
        syslog(LOG_ERR, "%s is empty", kModuleTypeFile);
    return type;
}

std::string firstAddress(const orv::communication::Netadapter& adapter)
{
    const auto& addresses = adapter.getIpv4Addresses();
    return addresses.empty() ? std::string() : addresses.front().address;
}

}  // namespace

Config& Config::instance()
{
    static Config config;
    return config;
}

Config::Config()
{
    if (const char* uuid = std::getenv("UUID")) {
        m_uuid = static_cast<unsigned>(std::strtoul(uuid, nullptr, 16));
        m_uuidAsOnLabel = kLabelPrefix;
        for (const char* c = uuid; *c != '\0'; ++c)
            m_uuidAsOnLabel += static_cast<char>(std::toupper(static_cast<unsigned char>(*c)));
    }
    syslog(LOG_INFO, "uuid: %s", m_uuidAsOnLabel.c_str());

    const std::string moduleType = readModuleType();
    if (moduleType == kGatewayType) {
        m_isKPModule = true;
        m_modulePrio = ConfigParams::instance().getPrioLevel(kGatewayPrioName);
    } else {
        m_modulePrio = ConfigParams::instance().getPrioLevel(kOtherPrioName);
    }
    // The gateway family is recognised but deliberately not acted upon: every
    // module runs one chain per side until joining the sides is released.
    m_isKPModule = false;
    syslog(LOG_INFO, "MOD_PRIO : %u", m_modulePrio);

    // A list of its own: the process-wide one is not needed for a look at the
    // adapters present at start.
    const orv::communication::NetadapterList adapters;
    for (const char* name : {"firewire0", "firewire1"}) {
        try {
            const orv::communication::Netadapter adapter = adapters.getAdapterByName(name);
            // The names do not decide the side: the node id does.
            if (isFront(adapter)) {
                m_frontInterfaceName = adapter.getName();
                m_frontInterfaceAddress = firstAddress(adapter);
            } else {
                m_rearInterfaceName = adapter.getName();
                m_rearInterfaceAddress = firstAddress(adapter);
                if (std::string(name) == "firewire0") {
                    std::cerr << " TSD m_rearInterfaceAddress " << m_rearInterfaceAddress << std::endl;
                    std::cerr << " TSD m_rearInterfaceName " << m_rearInterfaceName << std::endl;
                }
            }
        } catch (const orv::exception::exception&) {
            std::cerr << " TSD "
                      << "Config"
                      << " this adapter does not exist: " << name << std::endl;
        } catch (const std::exception& e) {
            std::cerr << " TSD "
                      << "Config"
                      << " " << name << " :" << e.what() << std::endl;
        }
    }

    if (m_rearInterfaceAddress.empty())
        syslog(LOG_ERR, "error detecting back side firewire interface");
    if (m_isKPModule && m_frontInterfaceAddress.empty())
        syslog(LOG_ERR, "error detecting front side firewire interface");
}

const std::string& Config::getInterfaceAddress(interface_t side) const
{
    return side == FRONT_FW ? m_frontInterfaceAddress : m_rearInterfaceAddress;
}

bool Config::isFront(const orv::communication::Netadapter& adapter) const
{
    if (adapter.isFirewireAdapter())
        return (adapter.getFirewireNodeId() & kUuidMask) != (m_uuid & kUuidMask);
    return adapter.getName() != "eth0";
}

}  // namespace orv::tsd

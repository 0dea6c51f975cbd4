#include "config/ConfigParams.h"

#include <syslog.h>

#include <pugixml.hpp>

#include "config/ConfigDocument.h"

namespace {

const char kSystemConfigFile[] = "/etc/TimeSourceDaemonConfig.xml";
// Lets a daemon started by hand from a development tree find its file.
const char kLocalConfigFile[] = "TimeSourceDaemonConfig.xml";

}  // namespace

ConfigParams& ConfigParams::instance()
{
    static ConfigParams params;
    return params;
}

ConfigParams::ConfigParams()
{
    pugi::xml_document document;
    if (!document.load_file(kSystemConfigFile, pugi::parse_default, pugi::encoding_auto) &&
        !document.load_file(kLocalConfigFile, pugi::parse_default, pugi::encoding_auto)) {
        // Without a file the daemon still runs: it cannot start its receivers
        // on an empty group, which is reported where that fails.
        syslog(LOG_ERR, "Missing configuration file TimeSourceDaemonConfig.xml");
        return;
    }

    const orv::tsd::ConfigDocument values = orv::tsd::ConfigDocument::read(document);
    syslog(LOG_DEBUG, "APPLICATION NAME : %s", values.rootName.c_str());

    m_multicastAddress = values.multicastAddress;
    m_multicastPort = orv::tsd::ConfigDocument::toNumber(values.multicastPort);
    syslog(LOG_DEBUG, " MULTICAST ADDRESS : %s", m_multicastAddress.c_str());
    syslog(LOG_DEBUG, " MULTICAST PORT    : %u ", m_multicastPort);

    // Module types and time sources share one table: a name given twice keeps
    // its last level.
    for (const auto& level : values.prioLevels)
        addPrioLevel(level.first, level.second);
}

unsigned ConfigParams::getMulticastPort(orv::tsd::interface_t side) const
{
    // The front side listens on the neighbouring port of the same group.
    return side == orv::tsd::REAR_FW ? m_multicastPort : m_multicastPort + 1;
}

unsigned ConfigParams::getPrioLevel(const std::string& name) const
{
    const auto level = m_prioLevels.find(name);
    return level == m_prioLevels.end() ? 0 : level->second;
}

unsigned ConfigParams::addPrioLevel(const std::string& name, const std::string& level)
{
    syslog(LOG_DEBUG, "PRIO TYPE [NAME/LEVEL] : %s / %s ", name.c_str(), level.c_str());
    const unsigned value = orv::tsd::ConfigDocument::toNumber(level);
    m_prioLevels[name] = value;
    return value;
}

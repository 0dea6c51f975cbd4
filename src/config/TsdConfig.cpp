#include "config/TsdConfig.h"

#include <json/writer.h>
#include <syslog.h>

#include <limits>

#include <vela/PeerAsync.h>

#include "config/ConfigParams.h"
#include "main/Debug.h"

namespace orv::tsd {

namespace {
const char* const kParamPath = "sync/param";
}

TsdConfig::TsdConfig(vela::PeerAsync& peer, std::function<void()> onChange)
    : m_peer(peer), m_onChange(std::move(onChange))
{
    vela::matcher_t matcher;
    matcher.equals = kParamPath;
    m_fetchId = m_peer.addFetchAsync(
        matcher, [this](const Json::Value& notification, int) { cbTsdParams(notification); }, {});
}

TsdConfig::~TsdConfig()
{
    m_peer.removeFetchAsync(m_fetchId, {});
    // The state belongs to another participant; the removal is harmless and
    // kept so that an owner on this peer would be taken down with us.
    m_peer.removeStateAsync(kParamPath, {});
}

void TsdConfig::cbTsdParams(const Json::Value& notification)
{
    if (isDebugMode()) {
        Json::StyledWriter writer;
        debugLog(std::string("cbTsdParams") + ": " + writer.write(notification));
    }

    const std::string event = notification["event"].asString();
    if (event != "add" && event != "change") {
        return;
    }

    const Json::Value& value = notification["value"];
    // An unknown source would be announced with priority 0, which leaves this
    // module's entry empty at every receiver and stalls their elections.
    if (ConfigParams::instance().getPrioLevel(value["timesource"].asString()) == 0) {
        syslog(LOG_WARNING, " wrong timesource");
        return;
    }

    m_ptpCfg = value["ptp4l"].asString();
    m_ntpCfg = value["ntpserver"].asString();
    m_timeSource = value["timesource"].asString();
    m_threshold = value["threshold"].asDouble();

    // Every accepted notification restarts the election, also an unchanged one.
    m_onChange();
}

unsigned TsdConfig::getTimesourcePrio() const
{
    return ConfigParams::instance().getPrioLevel(m_timeSource);
}

unsigned TsdConfig::getThreshold() const
{
    // Rounded in double precision on purpose: 0.15 gives 1, because 0.15 / 0.1
    // is just below 1.5. Every module must compute the same tenths.
    const double tenths = m_threshold / 0.1 + 0.5;
    if (!(tenths > 0.0)) {
        return 0;
    }
    if (tenths >= static_cast<double>(std::numeric_limits<unsigned>::max())) {
        return std::numeric_limits<unsigned>::max();
    }
    return static_cast<unsigned>(tenths);
}

}  // namespace orv::tsd

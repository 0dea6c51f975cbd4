#pragma once

#include <json/value.h>

#include <functional>
#include <string>

namespace vela {
class PeerAsync;
}

namespace orv::tsd {

// This module's time-source parameters, followed on the bus state
// "sync/param" (owned by another participant). Every accepted "add" or
// "change" is stored and reported through the change callback, which
// restarts the election. Thresholds: double in the bus's units, tenths
// (unsigned) towards the election.
class TsdConfig
{
public:
    TsdConfig(vela::PeerAsync& peer, std::function<void()> onChange);
    virtual ~TsdConfig();
    TsdConfig(const TsdConfig&) = delete;
    TsdConfig& operator=(const TsdConfig&) = delete;

    void cbTsdParams(const Json::Value& notification);

    unsigned getTimesourcePrio() const;
    unsigned getThreshold() const;  // tenths
    const std::string& getNtpCfg() const { return m_ntpCfg; }
    const std::string& getPtpCfg() const { return m_ptpCfg; }

private:
    vela::PeerAsync& m_peer;
    std::function<void()> m_onChange;
    std::string m_timeSource;
    double m_threshold = 0.0;
    std::string m_ntpCfg = "127.0.0.1";
    std::string m_ptpCfg = "-4 -E -H -i eth0";
    int m_fetchId = 0;
};

}  // namespace orv::tsd

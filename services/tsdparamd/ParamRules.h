#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace orv::tsd {
struct ConfigDocument;
}

namespace orv::services {

class Ptp4lAllowList;

// What a value of "sync/param" must be before it is kept, stored and shown
// to tsd. The value is an object with exactly these keys:
//   "timesource"  a time source of the configuration file whose level is
//                 not 0 (tsd ignores any other name)
//   "threshold"   a finite number from 0 to kMaxThreshold (tsd announces it
//                 in unsigned 32-bit tenths)
//   "ntpserver"   an address or host name (isNtpServer)
//   "ptp4l"       ptp4l options from the allow-list (Ptp4lAllowList::check)
// Pure: the time sources and the allow-list are given at construction.
class ParamRules
{
public:
    static constexpr double kMaxThreshold = 429496729.5;

    ParamRules(std::vector<std::string> timeSources, const Ptp4lAllowList& ptp4lOptions);

    // The time sources of a configuration document as tsd rates them: the
    // names under TimeSource whose level, with tsd's reading (a later
    // entry of the same name wins, text read as strtoul), is not 0. Sorted.
    static std::vector<std::string> timeSourcesOf(const orv::tsd::ConfigDocument& document);

    // Every fault of a whole value, "\"key\": why" each, joined by "; " (the
    // first 8, then how many more); empty when the value is valid. Keys and
    // values from the request appear escaped (printable()).
    std::string check(const Json::Value& value) const;

    const std::vector<std::string>& timeSources() const { return m_timeSources; }

private:
    std::vector<std::string> m_timeSources;
    const Ptp4lAllowList& m_ptp4lOptions;

    std::string checkKey(const std::string& key, const Json::Value& value) const;
};

}  // namespace orv::services

#include "ParamRules.h"

#include <algorithm>
#include <cmath>
#include <map>

#include "NtpServer.h"
#include "Printable.h"
#include "Ptp4lAllowList.h"
#include "config/ConfigDocument.h"

namespace orv::services {
namespace {

constexpr std::size_t kMaxShown = 64;
// A request with thousands of unknown keys gets a refusal of bounded size.
constexpr std::size_t kMaxFaults = 8;
const char* const kKeys[] = {"timesource", "threshold", "ntpserver", "ptp4l"};

std::string shown(const std::string& text)
{
    return "\"" + printable(text, kMaxShown) + "\"";
}

}  // namespace

ParamRules::ParamRules(std::vector<std::string> timeSources, const Ptp4lAllowList& ptp4lOptions)
    : m_timeSources(std::move(timeSources)), m_ptp4lOptions(ptp4lOptions)
{
    std::sort(m_timeSources.begin(), m_timeSources.end());
}

std::vector<std::string> ParamRules::timeSourcesOf(const orv::tsd::ConfigDocument& document)
{
    // Module types and time sources share tsd's one table of levels, so a
    // time source's level is whatever its last entry in either part says.
    std::map<std::string, unsigned> levels;
    for (const auto& [name, text] : document.prioLevels) {
        levels[name] = orv::tsd::ConfigDocument::toNumber(text);
    }
    std::vector<std::string> names;
    for (std::size_t i = document.moduleTypeCount; i < document.prioLevels.size(); ++i) {
        const std::string& name = document.prioLevels[i].first;
        if (levels[name] != 0 && std::find(names.begin(), names.end(), name) == names.end()) {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string ParamRules::check(const Json::Value& value) const
{
    if (!value.isObject()) {
        return "the value must be an object with the keys timesource, threshold, ntpserver and ptp4l";
    }
    std::vector<std::string> faults;
    for (const std::string& key : value.getMemberNames()) {
        if (std::find(std::begin(kKeys), std::end(kKeys), key) == std::end(kKeys)) {
            faults.push_back(shown(key) +
                             ": not a key of sync/param (timesource, threshold, ntpserver, ptp4l)");
        }
    }
    for (const char* key : kKeys) {
        std::string fault = checkKey(key, value[key]);
        if (!fault.empty()) {
            faults.push_back(shown(key) + ": " + fault);
        }
    }
    std::string text;
    for (std::size_t i = 0; i < faults.size() && i < kMaxFaults; ++i) {
        text += (text.empty() ? "" : "; ") + faults[i];
    }
    if (faults.size() > kMaxFaults) {
        text += "; and " + std::to_string(faults.size() - kMaxFaults) + " more";
    }
    return text;
}

std::string ParamRules::checkKey(const std::string& key, const Json::Value& value) const
{
    if (value.isNull()) {
        return "missing";
    }
    if (key == "threshold") {
        const Json::ValueType type = value.type();
        if (type != Json::intValue && type != Json::uintValue && type != Json::realValue) {
            return "must be a number";
        }
        const double threshold = value.asDouble();
        if (!std::isfinite(threshold) || threshold < 0 || threshold > kMaxThreshold) {
            return "must be a finite number from 0 to 429496729.5";
        }
        return {};
    }
    if (!value.isString()) {
        return "must be a string";
    }
    const std::string text = value.asString();
    if (key == "timesource") {
        if (std::find(m_timeSources.begin(), m_timeSources.end(), text) != m_timeSources.end()) {
            return {};
        }
        std::string known;
        for (const std::string& name : m_timeSources) {
            known += (known.empty() ? "" : ", ") + printable(name, kMaxShown);
        }
        return shown(text) + " is not a time source of the configuration file (" +
               (known.empty() ? std::string("it offers none") : "known: " + known) + ")";
    }
    if (key == "ntpserver") {
        if (isNtpServer(text)) {
            return {};
        }
        return shown(text) + " is neither an IPv4 or IPv6 address nor a host name";
    }
    return m_ptp4lOptions.check(text);
}

}  // namespace orv::services

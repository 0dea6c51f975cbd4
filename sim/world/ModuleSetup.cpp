#include "tsdsim/ModuleSetup.h"

#include <cstdio>
#include <sstream>

namespace tsdsim {

Json::Value SyncParam::toJson() const
{
    Json::Value v(Json::objectValue);
    v["timesource"] = timesource;
    v["threshold"] = threshold;
    v["ptp4l"] = ptp4l;
    v["ntpserver"] = ntpserver;
    return v;
}

std::string ModuleSetup::label() const
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "0A7C31%06X", uuid & 0xFFFFFFu);
    return buf;
}

std::uint64_t ModuleSetup::nodeId(Side side) const
{
    std::uint64_t low = uuid & 0xFFFFFFu;
    if (side == Side::Front) {
        low ^= 0x800000u;
    }
    return (kMakerOui << 24) | low;
}

std::string ModuleSetup::configFile() const
{
    if (!configXml.empty()) {
        return configXml;
    }
    std::ostringstream x;
    x << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      << "<TimeSyncDaemon>\n"
      << "  <MultiCastParam>\n"
      << "    <Address>" << group << "</Address>\n"
      << "    <Port>" << port << "</Port>\n"
      << "  </MultiCastParam>\n"
      << "  <PrioLevel>\n"
      << "    <ModuleType>\n";
    for (const auto& l : moduleLevels) {
        x << "      <" << l.first << ">" << l.second << "</" << l.first << ">\n";
    }
    x << "    </ModuleType>\n"
      << "    <TimeSource>\n";
    for (const auto& l : sourceLevels) {
        x << "      <" << l.first << ">" << l.second << "</" << l.first << ">\n";
    }
    x << "    </TimeSource>\n"
      << "  </PrioLevel>\n"
      << "</TimeSyncDaemon>\n";
    return x.str();
}

std::string nodeIdAddress(std::uint64_t nodeId)
{
    std::string out;
    for (int i = 7; i >= 0; --i) {
        char buf[4];
        std::snprintf(buf, sizeof buf, "%02x", static_cast<unsigned>((nodeId >> (8 * i)) & 0xFF));
        out += buf;
        if (i > 0) {
            out += ':';
        }
    }
    return out;
}

}  // namespace tsdsim

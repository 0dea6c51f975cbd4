#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tsdsim {

// The two FireWire ports of a module. The numbers are the daemon's side
// numbers (rear 0 = firewire0, the module's own node; front 1 = firewire1).
enum class Side
{
    Rear = 0,
    Front = 1
};

inline const char* interfaceName(Side side)
{
    return side == Side::Rear ? "firewire0" : "firewire1";
}
inline const char* sideName(Side side)
{
    return side == Side::Rear ? "rear" : "front";
}

// The maker's OUI, bits 24..47 of every FireWire node id of a module.
constexpr std::uint64_t kMakerOui = 0x0A7C31;

// A module's "sync/param": its tsdparamd starts from it.
struct SyncParam
{
    std::string timesource = "Ptp";
    double threshold = 1.0;
    std::string ptp4l = "-4 -E -H -i firewire0";
    std::string ntpserver = "127.0.0.1";

    Json::Value toJson() const;
};

// Everything that makes one simulated module (defaults give a plain RZ
// module offering PTP).
struct ModuleSetup
{
    std::string name;                    // short, unique in the world, e.g. "m1"
    std::uint32_t uuid = 0;              // low 24 bits are used, e.g. 0xabcdef
    std::string type = "RZ";             // device-tree module type, e.g. "RZ" or "KP40"
    SyncParam param;                     // the parameters the module ships ...
    bool publishParam = true;            // ... and keeps (tsdparamd), unless false
    std::string group = "239.255.77.1";  // multicast group of the configuration file
    unsigned port = 14000;               // base port (front side uses port + 1)
    // Priority levels of the configuration file: module types and time sources.
    std::vector<std::pair<std::string, unsigned>> moduleLevels{{"KP", 20}, {"RZ", 10}};
    std::vector<std::pair<std::string, unsigned>> sourceLevels{{"Ptp", 2}, {"Ntp", 1}};
    std::string configXml;  // when set, written verbatim instead of the generated file

    // Label UUID text as the daemon shows it: "0A7C31" + 6 upper-case hex digits.
    std::string label() const;
    // FireWire node ids: rear = OUI << 24 | uuid; front = same OUI, the other
    // low bits (uuid with bit 23 flipped), so the daemon classifies it front.
    std::uint64_t nodeId(Side side) const;
    // The generated configuration file.
    std::string configFile() const;
};

// The sysfs address text of a node id: 8 colon-separated lower-case hex bytes.
std::string nodeIdAddress(std::uint64_t nodeId);

}  // namespace tsdsim

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orv::communication {

// One IPv4 address of an interface, as dotted text.
struct Ipv4Address
{
    std::string address;  // e.g. "169.254.1.2"
    std::string mask;     // e.g. "255.255.0.0"
};

// A snapshot of one network interface. A plain value: copying it copies the
// snapshot, and it does not change when the interface does.
//
// FireWire identity comes from sysfs exactly as the firewire-net driver shows
// it: the interface is FireWire when /sys/class/net/NAME/type reads 24
// (ARPHRD_IEEE1394), and its node id is the first 8 bytes, big-endian, of
// /sys/class/net/NAME/address (colon-separated hex); 0 with fewer than 8 bytes.
class Netadapter
{
public:
    Netadapter() = default;

    const std::string& getName() const { return m_name; }
    unsigned getInterfaceIndex() const { return m_index; }
    // ARPHRD_* link type; 0 when unknown.
    unsigned getLinkType() const { return m_linkType; }
    bool isUp() const { return m_up; }
    // IPv4 addresses in the order the kernel reports them; may be empty.
    const std::vector<Ipv4Address>& getIpv4Addresses() const { return m_ipv4; }
    // True when address (dotted text) is one of the interface's IPv4 addresses.
    bool hasIpv4Address(const std::string& address) const;

    bool isFirewireAdapter() const;
    // 64-bit FireWire node id (GUID); 0 for other adapters or when unknown.
    std::uint64_t getFirewireNodeId() const { return m_nodeId; }

    // Builders, used by NetadapterList and Netlink while they track the kernel.
    void setName(const std::string& name) { m_name = name; }
    void setInterfaceIndex(unsigned index) { m_index = index; }
    void setLinkType(unsigned type) { m_linkType = type; }
    void setUp(bool up) { m_up = up; }
    void setFirewireNodeId(std::uint64_t id) { m_nodeId = id; }
    void addIpv4Address(const Ipv4Address& address);
    // Returns true when the address was present.
    bool removeIpv4Address(const std::string& address);

    // Reads type and node id of the named interface from sysfs into this adapter.
    void readSysfsIdentity();

    // Parses the kernel's colon-separated hex address text ("00:0a:7c:31:...")
    // into a node id: the first 8 bytes big-endian, 0 when there are fewer than
    // 8 or the text is not hex.
    static std::uint64_t parseNodeId(const std::string& addressText);

private:
    std::string m_name;
    unsigned m_index = 0;
    unsigned m_linkType = 0;
    bool m_up = false;
    std::uint64_t m_nodeId = 0;
    std::vector<Ipv4Address> m_ipv4;
};

}  // namespace orv::communication

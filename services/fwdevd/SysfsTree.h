#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace orv::services {

// Writes a sysfs tree of FireWire nodes and network interfaces laid out as
// the kernel lays them out (see SysfsScan.cpp), for fwdevd --sysfs: the
// simulator keeps one per module in step with its cabling, tests and the
// benchmark build theirs.
//   devices/<card>/fwN/{guid,is_local,...}    one directory per node
//   bus/firewire/devices/fwN                  relative link to the node's directory
//   devices/<card>/net/NAME/{type,address}    the card's interface
//   class/net/NAME                            relative link to it
// so that resolving the links stays inside the tree. A node or interface
// becomes visible to a scan running meanwhile only once its files are
// written (the link comes last and goes first). Throws
// std::filesystem::filesystem_error when the file system refuses.
class SysfsTree
{
public:
    using Attributes = std::map<std::string, std::string>;

    // Creates root (emptied first) with bus/firewire/devices, class/net and
    // devices.
    explicit SysfsTree(const std::string& root);

    const std::string& root() const { return m_root; }

    // A node with the given attributes (file name to content, written with a
    // line end as sysfs shows them).
    void addNode(const std::string& card, const std::string& name, const Attributes& attributes);
    // A node as the kernel shows one: guid, is_local, vendor and model.
    void addNode(const std::string& card, const std::string& name, std::uint64_t guid, bool local,
                 std::uint32_t vendor = 0x000a7c, std::uint32_t model = 0x000001);
    void removeNode(const std::string& name);
    // Writes one attribute of an existing node (raw: no line end added).
    void writeNodeFile(const std::string& name, const std::string& file, const std::string& content);

    // An IPv4-over-FireWire interface (type 24) whose address starts with
    // nodeId, as the driver shows it (16 bytes, colon-separated).
    void addInterface(const std::string& card, const std::string& name, std::uint64_t nodeId);
    void addInterface(const std::string& card, const std::string& name, const std::string& type,
                      const std::string& address);
    void removeInterface(const std::string& name);

    // The node's or interface's directory, resolved.
    std::string nodeDir(const std::string& name) const;

private:
    std::string m_root;
    std::map<std::string, std::string> m_nodeCards;
    std::map<std::string, std::string> m_interfaceCards;
};

// "00:0a:7c:31:..." as the IPv4-over-FireWire driver shows an address: the
// 8 bytes of the node id, then 6 bytes of link parameters.
std::string firewireAddress(std::uint64_t nodeId);

// The hex text the kernel writes for a guid: "0x" and 16 lower-case digits.
std::string guidAttribute(std::uint64_t guid);

}  // namespace orv::services

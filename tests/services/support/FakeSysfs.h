#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace servicetest {

// A sysfs tree of the test's own, laid out as the kernel lays out FireWire
// nodes and network interfaces (see the scan in services/fwdevd):
//   devices/<card>/fwN/{guid,is_local,...}    one directory per node
//   bus/firewire/devices/fwN                  relative link to the node's directory
//   devices/<card>/net/NAME/{type,address}    the card's interface
//   class/net/NAME                            relative link to it
// so that resolving the links stays inside the tree. Files are written
// whole; removals take the link and the directory.
class FakeSysfs
{
public:
    using Attributes = std::map<std::string, std::string>;

    // Creates root with bus/firewire/devices, class/net and devices.
    explicit FakeSysfs(const std::string& root);

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

// The tree most tests start from. Card A: its own node fw0 on firewire0, a
// module fw1 and a foreign camera fw2 (with a unit fw2.0). Card B: its own
// node fw3 on firewire1 and a module fw4. An Ethernet interface beside them.
namespace twocards {
extern const std::string kCardA;
extern const std::string kCardB;
// A module's node id carries the maker's OUI in bits 24..47 and the
// module's uuid below it, which is what tsd looks for.
constexpr std::uint64_t kLocalA = 0x00000a7c31000a01;
constexpr std::uint64_t kLocalB = 0x00000a7c31000a02;
constexpr std::uint64_t kRemoteOwn = 0x00000a7c31000b02;      // fw1
constexpr std::uint64_t kRemoteForeign = 0x0011220000334455;  // fw2
constexpr std::uint64_t kRemoteB = 0x00000a7c31000c03;        // fw4
extern const std::string kPathOwn;
extern const std::string kPathForeign;
extern const std::string kPathB;

void build(FakeSysfs& tree);
}  // namespace twocards

// "00:0a:7c:31:..." as the IPv4-over-FireWire driver shows an address: the
// 8 bytes of the node id, then 6 bytes of link parameters.
std::string firewireAddress(std::uint64_t nodeId);

// The hex text the kernel writes for a guid: "0x" and 16 lower-case digits.
std::string guidAttribute(std::uint64_t guid);

}  // namespace servicetest

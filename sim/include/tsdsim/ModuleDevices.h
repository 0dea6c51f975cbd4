#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "tsdsim/ModuleSetup.h"

namespace orv::services {
class SysfsTree;
}

namespace tsdsim {

// The FireWire devices a module's kernel would show, kept as a sysfs tree in
// the module's directory, in the layout fwdevd reads (fwdevd --sysfs): one
// card per FireWire port with its own node and its interface (firewire0 or
// firewire1, whose address starts with the port's node id), and one node per
// other port the cable reaches. The world rewrites the remote nodes after
// every change of the cabling; the module then tells fwdevd to look again
// (SIGHUP), as the kernel's device events would.
//
// Only the thread that owns the world uses this.
class ModuleDevices
{
public:
    // The remote nodes of each port: node ids, per side.
    using Remote = std::map<Side, std::set<std::uint64_t>>;

    // Creates an empty tree at root (emptied first). Throws
    // std::filesystem::filesystem_error when the file system refuses.
    explicit ModuleDevices(const std::string& root);
    ~ModuleDevices();
    ModuleDevices(const ModuleDevices&) = delete;
    ModuleDevices& operator=(const ModuleDevices&) = delete;

    const std::string& root() const;

    // The card of a port, with its own node and its interface.
    void addCard(Side side, std::uint64_t ownNodeId);
    // Replaces the remote nodes, writing only what changed: a node that
    // stays keeps its directory, as a device that stays on the bus does.
    // Nodes of a port without card are ignored.
    void setRemote(const Remote& remote);
    // The paths fwdevd publishes for the present tree, sorted.
    const std::set<std::string>& paths() const { return m_paths; }

private:
    struct Card
    {
        std::string name;                            // the card's device directory
        std::map<std::uint64_t, std::string> nodes;  // remote node id -> fwN
    };

    std::unique_ptr<orv::services::SysfsTree> m_tree;
    std::map<Side, Card> m_cards;
    unsigned m_nextNode = 0;  // fwN, numbered as the kernel numbers them: never reused
    std::set<std::string> m_paths;
};

// The bus path fwdevd publishes for a remote node seen on a port:
// "reachableDevices/firewire0/00000A7C31000102".
std::string reachablePath(Side side, std::uint64_t nodeId);

}  // namespace tsdsim

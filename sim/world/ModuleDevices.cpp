#include "tsdsim/ModuleDevices.h"

#include "SysfsScan.h"
#include "SysfsTree.h"

namespace tsdsim {

ModuleDevices::ModuleDevices(const std::string& root)
    : m_tree(std::make_unique<orv::services::SysfsTree>(root))
{
}

ModuleDevices::~ModuleDevices() = default;

const std::string& ModuleDevices::root() const
{
    return m_tree->root();
}

void ModuleDevices::addCard(Side side, std::uint64_t ownNodeId)
{
    if (m_cards.count(side)) {
        return;
    }
    Card& card = m_cards[side];
    card.name = std::string("firewire-card") + (side == Side::Rear ? "0" : "1");
    m_tree->addNode(card.name, "fw" + std::to_string(m_nextNode++), ownNodeId, true);
    m_tree->addInterface(card.name, interfaceName(side), ownNodeId);
}

void ModuleDevices::setRemote(const Remote& remote)
{
    static const std::set<std::uint64_t> kNone;
    m_paths.clear();
    for (auto& [side, card] : m_cards) {
        const auto wanted = remote.find(side);
        const std::set<std::uint64_t>& nodes = wanted == remote.end() ? kNone : wanted->second;
        for (auto it = card.nodes.begin(); it != card.nodes.end();) {
            if (nodes.count(it->first)) {
                ++it;
                continue;
            }
            m_tree->removeNode(it->second);
            it = card.nodes.erase(it);
        }
        for (std::uint64_t node : nodes) {
            if (!card.nodes.count(node)) {
                const std::string name = "fw" + std::to_string(m_nextNode++);
                m_tree->addNode(card.name, name, node, false);
                card.nodes.emplace(node, name);
            }
            m_paths.insert(reachablePath(side, node));
        }
    }
}

std::string reachablePath(Side side, std::uint64_t nodeId)
{
    return orv::services::reachablePath(interfaceName(side), nodeId);
}

}  // namespace tsdsim

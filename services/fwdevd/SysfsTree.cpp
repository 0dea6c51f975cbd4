#include "SysfsTree.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace orv::services {
namespace {

void writeText(const fs::path& path, const std::string& content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

}  // namespace

SysfsTree::SysfsTree(const std::string& root) : m_root(root)
{
    fs::remove_all(m_root);
    fs::create_directories(m_root + "/bus/firewire/devices");
    fs::create_directories(m_root + "/class/net");
    fs::create_directories(m_root + "/devices");
}

void SysfsTree::addNode(const std::string& card, const std::string& name, const Attributes& attributes)
{
    const fs::path dir = m_root + "/devices/" + card + "/" + name;
    fs::create_directories(dir);
    for (const auto& [file, content] : attributes) {
        writeText(dir / file, content + "\n");
    }
    // bus/firewire/devices/NAME -> ../../../devices/CARD/NAME
    fs::create_symlink("../../../devices/" + card + "/" + name, m_root + "/bus/firewire/devices/" + name);
    m_nodeCards[name] = card;
}

void SysfsTree::addNode(const std::string& card, const std::string& name, std::uint64_t guid, bool local,
                        std::uint32_t vendor, std::uint32_t model)
{
    char vendorText[16];
    char modelText[16];
    std::snprintf(vendorText, sizeof vendorText, "0x%06x", vendor);
    std::snprintf(modelText, sizeof modelText, "0x%06x", model);
    addNode(card, name,
            {{"guid", guidAttribute(guid)},
             {"is_local", local ? "1" : "0"},
             {"vendor", vendorText},
             {"model", modelText}});
}

void SysfsTree::removeNode(const std::string& name)
{
    fs::remove(m_root + "/bus/firewire/devices/" + name);
    const auto card = m_nodeCards.find(name);
    if (card != m_nodeCards.end()) {
        fs::remove_all(m_root + "/devices/" + card->second + "/" + name);
        m_nodeCards.erase(card);
    }
}

void SysfsTree::writeNodeFile(const std::string& name, const std::string& file, const std::string& content)
{
    writeText(nodeDir(name) + "/" + file, content);
}

void SysfsTree::addInterface(const std::string& card, const std::string& name, std::uint64_t nodeId)
{
    addInterface(card, name, "24", firewireAddress(nodeId));
}

void SysfsTree::addInterface(const std::string& card, const std::string& name, const std::string& type,
                             const std::string& address)
{
    const fs::path dir = m_root + "/devices/" + card + "/net/" + name;
    fs::create_directories(dir);
    writeText(dir / "type", type + "\n");
    writeText(dir / "address", address + "\n");
    // class/net/NAME -> ../../devices/CARD/net/NAME
    fs::create_symlink("../../devices/" + card + "/net/" + name, m_root + "/class/net/" + name);
    m_interfaceCards[name] = card;
}

void SysfsTree::removeInterface(const std::string& name)
{
    fs::remove(m_root + "/class/net/" + name);
    const auto card = m_interfaceCards.find(name);
    if (card != m_interfaceCards.end()) {
        fs::remove_all(m_root + "/devices/" + card->second + "/net/" + name);
        m_interfaceCards.erase(card);
    }
}

std::string SysfsTree::nodeDir(const std::string& name) const
{
    const auto card = m_nodeCards.find(name);
    return card == m_nodeCards.end() ? std::string() : m_root + "/devices/" + card->second + "/" + name;
}

std::string firewireAddress(std::uint64_t nodeId)
{
    std::string text;
    char byte[4];
    for (int shift = 56; shift >= 0; shift -= 8) {
        std::snprintf(byte, sizeof byte, "%02x:", static_cast<unsigned>((nodeId >> shift) & 0xff));
        text += byte;
    }
    // max_rec, sspd, the unicast FIFO's address: what the driver appends.
    return text + "0a:02:ff:ff:f0:00:00:00";
}

std::string guidAttribute(std::uint64_t guid)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%016llx", static_cast<unsigned long long>(guid));
    return text;
}

}  // namespace orv::services

#include "FakeSysfs.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace servicetest {
namespace {

void writeText(const fs::path& path, const std::string& content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

}  // namespace

FakeSysfs::FakeSysfs(const std::string& root) : m_root(root)
{
    fs::remove_all(m_root);
    fs::create_directories(m_root + "/bus/firewire/devices");
    fs::create_directories(m_root + "/class/net");
    fs::create_directories(m_root + "/devices");
}

void FakeSysfs::addNode(const std::string& card, const std::string& name, const Attributes& attributes)
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

void FakeSysfs::addNode(const std::string& card, const std::string& name, std::uint64_t guid, bool local,
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

void FakeSysfs::removeNode(const std::string& name)
{
    fs::remove(m_root + "/bus/firewire/devices/" + name);
    const auto card = m_nodeCards.find(name);
    if (card != m_nodeCards.end()) {
        fs::remove_all(m_root + "/devices/" + card->second + "/" + name);
        m_nodeCards.erase(card);
    }
}

void FakeSysfs::writeNodeFile(const std::string& name, const std::string& file, const std::string& content)
{
    writeText(nodeDir(name) + "/" + file, content);
}

void FakeSysfs::addInterface(const std::string& card, const std::string& name, std::uint64_t nodeId)
{
    addInterface(card, name, "24", firewireAddress(nodeId));
}

void FakeSysfs::addInterface(const std::string& card, const std::string& name, const std::string& type,
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

void FakeSysfs::removeInterface(const std::string& name)
{
    fs::remove(m_root + "/class/net/" + name);
    const auto card = m_interfaceCards.find(name);
    if (card != m_interfaceCards.end()) {
        fs::remove_all(m_root + "/devices/" + card->second + "/net/" + name);
        m_interfaceCards.erase(card);
    }
}

std::string FakeSysfs::nodeDir(const std::string& name) const
{
    const auto card = m_nodeCards.find(name);
    return card == m_nodeCards.end() ? std::string() : m_root + "/devices/" + card->second + "/" + name;
}

namespace twocards {

const std::string kCardA = "pci0000:00/0000:00:1c.0/0000:05:00.0";
const std::string kCardB = "pci0000:00/0000:00:1c.1/0000:06:00.0";
const std::string kPathOwn = "reachableDevices/firewire0/00000A7C31000B02";
const std::string kPathForeign = "reachableDevices/firewire0/0011220000334455";
const std::string kPathB = "reachableDevices/firewire1/00000A7C31000C03";

void build(FakeSysfs& tree)
{
    tree.addNode(kCardA, "fw0", kLocalA, true);
    tree.addNode(kCardA, "fw1", kRemoteOwn, false);
    tree.addNode(kCardA, "fw2",
                 {{"guid", guidAttribute(kRemoteForeign)},
                  {"is_local", "0"},
                  {"vendor", "0x001122"},
                  {"model", "0x000042"},
                  {"vendor_name", "Camera Maker"},
                  {"model_name", "Cam 1"}});
    tree.addNode(kCardA + "/fw2", "fw2.0", {{"rom_index", "7"}});
    tree.addNode(kCardB, "fw3", kLocalB, true);
    tree.addNode(kCardB, "fw4", kRemoteB, false);
    tree.addInterface(kCardA, "firewire0", kLocalA);
    tree.addInterface(kCardB, "firewire1", kLocalB);
    tree.addInterface("pci0000:00/0000:00:19.0", "eth0", "1", "52:54:00:12:34:56");
}

}  // namespace twocards

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

}  // namespace servicetest

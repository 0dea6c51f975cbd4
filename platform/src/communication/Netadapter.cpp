#include "orv/communication/Netadapter.h"

#include <net/if_arp.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <string>

#include "orv/string/split.h"

namespace orv::communication {

namespace {

constexpr std::size_t kNodeIdBytes = 8;

// The first line of a sysfs attribute, without its line end; false when the
// file cannot be read.
bool readFirstLine(const std::string& path, std::string& line)
{
    std::ifstream in(path);
    if (!in) {
        return false;
    }
    std::getline(in, line);
    return !in.bad();
}

bool parseHexByte(const std::string& text, std::uint64_t& value)
{
    if (text.empty() || text.size() > 2 ||
        !std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isxdigit(c) != 0; })) {
        return false;
    }
    value = std::stoul(text, nullptr, 16);
    return true;
}

}  // namespace

bool Netadapter::isFirewireAdapter() const
{
    return m_linkType == ARPHRD_IEEE1394;
}

bool Netadapter::hasIpv4Address(const std::string& address) const
{
    return std::any_of(m_ipv4.begin(), m_ipv4.end(),
                       [&address](const Ipv4Address& a) { return a.address == address; });
}

void Netadapter::addIpv4Address(const Ipv4Address& address)
{
    const auto it = std::find_if(m_ipv4.begin(), m_ipv4.end(),
                                 [&address](const Ipv4Address& a) { return a.address == address.address; });
    if (it != m_ipv4.end()) {
        it->mask = address.mask;
        return;
    }
    m_ipv4.push_back(address);
}

bool Netadapter::removeIpv4Address(const std::string& address)
{
    const auto it = std::find_if(m_ipv4.begin(), m_ipv4.end(),
                                 [&address](const Ipv4Address& a) { return a.address == address; });
    if (it == m_ipv4.end()) {
        return false;
    }
    m_ipv4.erase(it);
    return true;
}

void Netadapter::readSysfsIdentity()
{
    // Interface names never contain '/', but a name from elsewhere must not
    // lead the path out of the interface's own directory.
    if (m_name.empty() || m_name == "." || m_name == ".." || m_name.find('/') != std::string::npos) {
        return;
    }
    const std::string dir = "/sys/class/net/" + m_name + "/";
    std::string text;
    // sysfs decides the link type, so that a FireWire identity given there is
    // the one that counts; the kernel's netlink type stays when sysfs is silent.
    if (readFirstLine(dir + "type", text)) {
        try {
            std::size_t used = 0;
            const unsigned long type = std::stoul(text, &used, 10);
            if (used == text.size() && type <= 0xffff) {
                m_linkType = static_cast<unsigned>(type);
            }
        } catch (const std::exception&) {
            // Not a number: keep the type netlink reported.
        }
    }
    m_nodeId = 0;
    if (isFirewireAdapter() && readFirstLine(dir + "address", text)) {
        m_nodeId = parseNodeId(text);
    }
}

std::uint64_t Netadapter::parseNodeId(const std::string& addressText)
{
    std::string text = addressText;
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())) != 0) {
        text.pop_back();
    }
    const std::vector<std::string> bytes = orv::string::split(text, ":");
    if (bytes.size() < kNodeIdBytes) {
        return 0;
    }
    std::uint64_t id = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        std::uint64_t byte = 0;
        if (!parseHexByte(bytes[i], byte)) {
            return 0;
        }
        if (i < kNodeIdBytes) {
            id = (id << 8) | byte;
        }
    }
    return id;
}

}  // namespace orv::communication

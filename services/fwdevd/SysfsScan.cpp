// Where the FireWire nodes and their interfaces show in sysfs, as the
// kernel's FireWire core and its IPv4 driver lay them out:
//
//   bus/firewire/devices/fwN -> ../../../devices/<card's device>/fwN
//   devices/<card's device>/fwN/guid          "0x000a7c3100123456"
//                               is_local      "1" for the card's own node, else "0"
//                               vendor, model "0x000a7c", where the node's ROM has them
//                               vendor_name, model_name   text from the node's ROM, where present
//   devices/<card's device>/fwN.M             a unit of node N (listed on the bus too; not a node)
//   class/net/NAME -> ../../devices/<card's device>/net/NAME
//   class/net/NAME/type                       "24" for IPv4 over FireWire
//   class/net/NAME/address                    the card's own guid as its first 8 bytes, then
//                                             6 bytes of link parameters, colon-separated hex
//
// The core registers one fwN device per node it sees on a card's bus, the
// card's own node included, each with the card's device (the controller,
// e.g. a PCI function) as its parent. So the nodes whose device directories
// share one parent are the nodes of one card, the one among them with
// is_local 1 is the card itself, and the card's interface is the one whose
// address starts with that node's guid (the node id liborv reads from the
// same file). Only links are followed to find a device's parent; nothing is
// trusted to stay inside the tree unless its resolved path does.
#include "SysfsScan.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <orv/communication/Netadapter.h>

#include "Printable.h"
#include "SmallFile.h"

namespace orv::services {
namespace {

// sysfs shows at most one page per attribute; anything longer is not sysfs.
constexpr std::size_t kMaxAttributeBytes = 4096;
// ROM text and names from the tree are shown up to this many bytes.
constexpr std::size_t kMaxShownBytes = 64;
constexpr unsigned long kFirewireLinkType = 24;  // ARPHRD_IEEE1394
const char kPathPrefix[] = "reachableDevices/";

// The attribute's text without its line end: 0, or a negative errno.
int readAttribute(const std::string& path, std::string& text)
{
    const int rc = readSmallFile(path, kMaxAttributeBytes, text);
    if (rc == 0 && !text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return rc;
}

// Entry names of a directory, sorted; 0 or a negative errno.
int listDirectory(const std::string& path, std::vector<std::string>& names)
{
    DIR* dir = ::opendir(path.c_str());
    if (dir == nullptr) {
        return -errno;
    }
    int rc = 0;
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(dir);
        if (entry == nullptr) {
            rc = -errno;
            break;
        }
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end());
    return rc;
}

// "0x" (optional) and 1..maxDigits hex digits, as the kernel prints ids.
bool parseHex(std::string_view text, std::size_t maxDigits, std::uint64_t& value)
{
    if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        text.remove_prefix(2);
    }
    if (text.empty() || text.size() > maxDigits) {
        return false;
    }
    std::uint64_t result = 0;
    for (const char c : text) {
        int digit = 0;
        if (c >= '0' && c <= '9') {
            digit = c - '0';
        } else if (c >= 'a' && c <= 'f') {
            digit = c - 'a' + 10;
        } else if (c >= 'A' && c <= 'F') {
            digit = c - 'A' + 10;
        } else {
            return false;
        }
        result = (result << 4) | static_cast<std::uint64_t>(digit);
    }
    value = result;
    return true;
}

// "fw" and the node's number: the node devices. Units ("fw1.0") and anything
// else listed beside them are not nodes.
bool nodeNumber(const std::string& name, unsigned long& number)
{
    if (name.size() < 3 || name.size() > 11 || name.compare(0, 2, "fw") != 0) {
        return false;
    }
    number = 0;
    for (std::size_t i = 2; i < name.size(); ++i) {
        if (name[i] < '0' || name[i] > '9') {
            return false;
        }
        number = number * 10 + static_cast<unsigned long>(name[i] - '0');
    }
    return true;
}

// An interface name goes into a bus path as it is: printable ASCII without
// blanks and without '/', or it is not used.
bool isPathComponent(const std::string& name)
{
    return !name.empty() && name != "." && name != ".." &&
           std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c <= '~' && c != '/'; });
}

std::string guidText(std::uint64_t guid)
{
    char text[17];
    std::snprintf(text, sizeof text, "%016llX", static_cast<unsigned long long>(guid));
    return text;
}

std::string quoted(std::string_view text)
{
    return "'" + printable(text, kMaxShownBytes) + "'";
}

std::string resolved(const std::string& path, int& error)
{
    char buffer[PATH_MAX];
    if (::realpath(path.c_str(), buffer) == nullptr) {
        error = errno;
        return {};
    }
    error = 0;
    return buffer;
}

struct Node
{
    std::string name;
    unsigned long number = 0;
    std::string card;  // resolved path of the parent device
    bool local = false;
    std::uint64_t guid = 0;
    Json::Value value;
};

class Scanner
{
public:
    explicit Scanner(const std::string& root) : m_root(root) {}

    ScanResult run()
    {
        int error = 0;
        m_realRoot = resolved(m_root, error);
        if (m_realRoot.empty()) {
            return fail("cannot resolve " + quoted(m_root) + ": " + std::strerror(error));
        }
        if (!readNodes() || !readInterfaces()) {
            return m_result;
        }
        publishCards();
        m_result.complete = true;
        return m_result;
    }

private:
    const std::string m_root;
    std::string m_realRoot;
    std::vector<Node> m_nodes;
    std::map<std::uint64_t, std::string> m_interfaceByNodeId;
    ScanResult m_result;

    ScanResult fail(const std::string& why)
    {
        m_result.complete = false;
        m_result.failure = why;
        m_result.devices.clear();
        return m_result;
    }

    void problem(const std::string& text) { m_result.problems.push_back(text); }

    std::string shownCard(const std::string& card) const
    {
        return quoted(card.size() > m_realRoot.size() ? card.substr(m_realRoot.size() + 1) : card);
    }

    // A missing directory is a machine without that part of the kernel (no
    // FireWire core, say): nothing to see there. Any other failure leaves the
    // picture incomplete.
    bool list(const std::string& relative, std::vector<std::string>& names)
    {
        const int rc = listDirectory(m_root + "/" + relative, names);
        if (rc == -ENOENT) {
            names.clear();
            return true;
        }
        if (rc < 0) {
            fail("cannot list " + quoted(m_root + "/" + relative) + ": " + std::strerror(-rc));
            return false;
        }
        return true;
    }

    bool readNodes()
    {
        std::vector<std::string> names;
        if (!list("bus/firewire/devices", names)) {
            return false;
        }
        for (const std::string& name : names) {
            Node node;
            if (!nodeNumber(name, node.number)) {
                continue;
            }
            node.name = name;
            if (readNode(node)) {
                m_nodes.push_back(std::move(node));
            }
        }
        std::sort(m_nodes.begin(), m_nodes.end(),
                  [](const Node& a, const Node& b) { return a.number < b.number; });
        return true;
    }

    bool readNode(Node& node)
    {
        int error = 0;
        const std::string device = resolved(m_root + "/bus/firewire/devices/" + node.name, error);
        if (device.empty()) {
            // Gone between the listing and now: a node that left the bus.
            if (error != ENOENT) {
                problem(node.name + ": cannot resolve its device: " + std::strerror(error) + "; skipped");
            }
            return false;
        }
        const std::string devices = m_realRoot + "/devices/";
        if (device.compare(0, devices.size(), devices) != 0) {
            problem(node.name + ": its device lies outside " + quoted(m_root + "/devices") + "; skipped");
            return false;
        }
        node.card = device.substr(0, device.rfind('/'));

        std::string text;
        int rc = readAttribute(device + "/is_local", text);
        if (rc < 0) {
            problem(node.name + ": cannot read is_local: " + std::strerror(-rc) + "; skipped");
            return false;
        }
        if (text != "0" && text != "1") {
            problem(node.name + ": is_local " + quoted(text) + " is neither 0 nor 1; skipped");
            return false;
        }
        node.local = text == "1";

        rc = readAttribute(device + "/guid", text);
        if (rc < 0) {
            problem(node.name + ": cannot read guid: " + std::strerror(-rc) + "; skipped");
            return false;
        }
        if (!parseHex(text, 16, node.guid)) {
            problem(node.name + ": guid " + quoted(text) + " is not a 64-bit hex number; skipped");
            return false;
        }
        node.value["guid"] = guidText(node.guid);
        for (const char* attribute : {"vendor", "model"}) {
            rc = readAttribute(device + "/" + attribute, text);
            std::uint64_t id = 0;
            if (rc == -ENOENT) {
                continue;
            }
            if (rc < 0) {
                problem(node.name + ": cannot read " + attribute + ": " + std::strerror(-rc) + "; left out");
            } else if (!parseHex(text, 8, id)) {
                problem(node.name + ": " + attribute + " " + quoted(text) + " is not a hex number; left out");
            } else {
                node.value[attribute] = static_cast<Json::UInt>(id);
            }
        }
        for (const char* attribute : {"vendor_name", "model_name"}) {
            if (readAttribute(device + "/" + attribute, text) == 0) {
                node.value[attribute] = printable(text, kMaxShownBytes);
            }
        }
        return true;
    }

    bool readInterfaces()
    {
        std::vector<std::string> names;
        if (!list("class/net", names)) {
            return false;
        }
        for (const std::string& name : names) {
            const std::string dir = m_root + "/class/net/" + name;
            std::string text;
            // An interface that vanished since the listing has no type any more.
            if (readAttribute(dir + "/type", text) < 0) {
                continue;
            }
            char* end = nullptr;
            errno = 0;
            const unsigned long type = std::strtoul(text.c_str(), &end, 10);
            if (text.empty() || errno != 0 || *end != '\0' || type != kFirewireLinkType) {
                continue;
            }
            if (!isPathComponent(name)) {
                problem("interface " + quoted(name) + ": the name cannot be part of a bus path; skipped");
                continue;
            }
            const int rc = readAttribute(dir + "/address", text);
            if (rc == -ENOENT) {
                continue;
            }
            const std::uint64_t nodeId = rc < 0 ? 0 : orv::communication::Netadapter::parseNodeId(text);
            if (nodeId == 0) {
                problem("interface " + name + ": address " + quoted(text) + " holds no node id; skipped");
                continue;
            }
            const auto known = m_interfaceByNodeId.find(nodeId);
            if (known != m_interfaceByNodeId.end()) {
                problem("interface " + name + ": node id " + guidText(nodeId) + " is shown by " +
                        known->second + " already; skipped");
                continue;
            }
            m_interfaceByNodeId.emplace(nodeId, name);
        }
        return true;
    }

    void publishCards()
    {
        std::map<std::string, std::vector<const Node*>> cards;
        for (const Node& node : m_nodes) {
            cards[node.card].push_back(&node);
        }
        for (const auto& [card, nodes] : cards) {
            std::vector<const Node*> locals;
            std::size_t remotes = 0;
            for (const Node* node : nodes) {
                if (node->local) {
                    locals.push_back(node);
                } else {
                    ++remotes;
                }
            }
            const std::string count = std::to_string(remotes) + " remote node" + (remotes == 1 ? "" : "s");
            if (locals.size() != 1) {
                if (locals.empty() && remotes == 0) {
                    continue;
                }
                problem("card " + shownCard(card) + ": " +
                        (locals.empty() ? std::string("no local node") : "more than one local node") + "; " +
                        count + " skipped");
                continue;
            }
            const Node& local = *locals.front();
            const auto iface = m_interfaceByNodeId.find(local.guid);
            if (iface == m_interfaceByNodeId.end()) {
                problem("card " + shownCard(card) + ": no FireWire interface shows its node id " +
                        guidText(local.guid) + " (" + local.name + "); " + count + " skipped");
                continue;
            }
            std::map<std::string, std::string> seenBy;
            for (const Node* node : nodes) {
                if (node->local) {
                    continue;
                }
                const std::string guid = guidText(node->guid);
                if (node->guid == local.guid) {
                    problem(node->name + ": shows the guid of its own card's node " + local.name +
                            "; skipped");
                    continue;
                }
                const std::string path = reachablePath(iface->second, node->guid);
                const auto [seen, fresh] = seenBy.emplace(path, node->name);
                if (!fresh) {
                    problem(node->name + ": guid " + guid + " is shown by " + seen->second +
                            " already; skipped");
                    continue;
                }
                m_result.devices.emplace(path, node->value);
            }
        }
    }
};

}  // namespace

std::string reachablePath(const std::string& interface, std::uint64_t guid)
{
    return kPathPrefix + interface + "/" + guidText(guid);
}

ScanResult scanReachableDevices(const std::string& root)
{
    return Scanner(root).run();
}

}  // namespace orv::services

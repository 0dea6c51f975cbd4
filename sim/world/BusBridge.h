#pragma once

#include <cstdint>
#include <map>
#include <string>

struct mnl_socket;
struct nlmsghdr;

namespace tsdsim {

// The kernel's side of a simulated FireWire bus: a network namespace of the
// bus's own holding a bridge, and per port a veth pair whose one end is a
// port of that bridge and whose other end is a module's FireWire interface,
// made directly inside the module's network namespace. While its ports
// forward, the kernel copies each frame to every other port, as FireWire
// hardware broadcasts a packet to every node of its bus: no process of the
// simulator touches a frame, and the copies cost no system call each. A port
// taken out of the bridge neither sends into the bus nor receives from it,
// which is an unplugged cable; the interfaces keep their carrier either way,
// as a module's FireWire interface does when a cable goes.
//
// The bridge floods multicast to every port (no snooping) and runs no
// spanning tree, so a port forwards as soon as it is enabled; IPv6 is off in
// the namespace, so the bridge itself adds nothing to the bus.
//
// Everything goes through one rtnetlink socket made inside the namespace.
// Not thread-safe: its Bus serialises the calls. The namespace lives as long
// as this object holds it; when it goes, the kernel deletes the bridge and
// every veth pair, the modules' ends included.
class BusBridge
{
public:
    // Per port, as the bus end counts them.
    struct Counters
    {
        std::uint64_t fromModule = 0;  // frames the module sent into the bus
        std::uint64_t toModule = 0;    // frames handed to the module
    };

    // Throws std::runtime_error when the namespace or the bridge cannot be made.
    BusBridge();
    ~BusBridge();
    BusBridge(const BusBridge&) = delete;
    BusBridge& operator=(const BusBridge&) = delete;

    int netnsFd() const { return m_netns; }
    int bridgeIndex() const { return m_bridge; }

    // Makes the pair for port portId: the bridge port "p<portId>", up, and
    // ifname inside moduleNetnsFd, left down and without an
    // address for the module to configure. Returns the bridge port's
    // interface index, -1 with error() set on failure.
    int addPort(int portId, int moduleNetnsFd, const std::string& ifname);
    // Hands the bus end at index over to the bus of to, as its port
    // "p<portId>", a forwarding port of to's bridge; the module's end stays
    // where it is. Returns the index in to's namespace, -1 with error() set.
    int movePort(int index, BusBridge& to, int portId);
    // Deletes the pair (both ends).
    bool removePort(int index);
    // A forwarding port is a port of the bridge and takes part in the bus;
    // otherwise it is taken out of the bridge: cut off.
    bool setForwarding(int index, bool forwarding);
    // The counters of every interface in the namespace, by index.
    bool allCounters(std::map<int, Counters>& out);

    const std::string& error() const { return m_error; }

private:
    // Sends the request and waits for the kernel's answer; false with
    // error() set when it refused. what names the request in the error.
    bool request(nlmsghdr* nlh, const char* what);
    // The same, handing each answer to callback until it returns MNL_CB_STOP.
    bool exchange(nlmsghdr* nlh, const char* what, int (*callback)(const nlmsghdr*, void*), void* data);
    bool setUp(int index);
    int linkIndex(const std::string& name);

    int m_netns = -1;
    mnl_socket* m_socket = nullptr;
    unsigned m_portId = 0;  // the socket's netlink port
    unsigned m_sequence = 0;
    int m_bridge = -1;
    std::string m_error;
};

}  // namespace tsdsim

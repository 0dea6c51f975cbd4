#pragma once

#include <map>
#include <string>
#include <vector>

#include "orv/communication/Netadapter.h"

namespace orv::communication {

// The interfaces of the process's network namespace. The constructor takes a
// snapshot (links, IPv4 addresses, sysfs identity); Netlink keeps a shared
// list current afterwards. Lookups return copies, so a caller's adapter stays
// valid when the interface vanishes.
class NetadapterList
{
public:
    NetadapterList();

    // Re-reads everything from the kernel. Returns 0 or a negative errno; on
    // failure the previous contents stay.
    int refresh();

    // Throw orv::exception::exception for an unknown name or index.
    Netadapter getAdapterByName(const std::string& name) const;
    Netadapter getAdapterByInterfaceIndex(unsigned index) const;

    bool contains(unsigned index) const;
    std::vector<Netadapter> getAdapters() const;  // ordered by index
    std::size_t size() const { return m_adapters.size(); }

    // Used by Netlink to mirror the kernel's changes.
    void updateAdapter(const Netadapter& adapter);  // insert or replace by index
    void removeAdapter(unsigned index);
    void addAddress(unsigned index, const Ipv4Address& address);
    void removeAddress(unsigned index, const std::string& address);

private:
    std::map<unsigned, Netadapter> m_adapters;
};

}  // namespace orv::communication

#include "orv/communication/NetadapterList.h"

#include "Rtnetlink.h"
#include "orv/exception/exception.h"

namespace orv::communication {

NetadapterList::NetadapterList()
{
    // A failed first snapshot leaves the list empty; lookups then throw, which
    // callers handle like an unknown adapter.
    refresh();
}

int NetadapterList::refresh()
{
    return rtnl::readAdapters(m_adapters);
}

Netadapter NetadapterList::getAdapterByName(const std::string& name) const
{
    for (const auto& entry : m_adapters) {
        if (entry.second.getName() == name) {
            return entry.second;
        }
    }
    throw orv::exception::exception("no network adapter named '" + name + "'");
}

Netadapter NetadapterList::getAdapterByInterfaceIndex(unsigned index) const
{
    const auto it = m_adapters.find(index);
    if (it == m_adapters.end()) {
        throw orv::exception::exception("no network adapter with interface index " + std::to_string(index));
    }
    return it->second;
}

bool NetadapterList::contains(unsigned index) const
{
    return m_adapters.count(index) != 0;
}

std::vector<Netadapter> NetadapterList::getAdapters() const
{
    std::vector<Netadapter> adapters;
    adapters.reserve(m_adapters.size());
    for (const auto& entry : m_adapters) {
        adapters.push_back(entry.second);
    }
    return adapters;
}

void NetadapterList::updateAdapter(const Netadapter& adapter)
{
    m_adapters[adapter.getInterfaceIndex()] = adapter;
}

void NetadapterList::removeAdapter(unsigned index)
{
    m_adapters.erase(index);
}

void NetadapterList::addAddress(unsigned index, const Ipv4Address& address)
{
    const auto it = m_adapters.find(index);
    if (it != m_adapters.end()) {
        it->second.addIpv4Address(address);
    }
}

void NetadapterList::removeAddress(unsigned index, const std::string& address)
{
    const auto it = m_adapters.find(index);
    if (it != m_adapters.end()) {
        it->second.removeIpv4Address(address);
    }
}

}  // namespace orv::communication

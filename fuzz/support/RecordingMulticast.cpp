// The multicast server of the fuzz targets: the daemon's telegrams go into
// the record instead of onto a FireWire side, so that a target sees what a
// module would have answered. It never opens a socket; receiving is the
// target's business (it hands datagrams to the command processor itself).
#include <orv/communication/MulticastServer.h>
#include <orv/communication/Netadapter.h>

#include <cerrno>

#include "Record.h"

namespace orv::communication {

MulticastServer::MulticastServer(NetadapterList& adapters, orv::sys::EventLoop& loop)
    : m_adapters(adapters), m_loop(loop)
{
}

MulticastServer::~MulticastServer() = default;

int MulticastServer::start(const std::string& groupAddress, unsigned port, ReceiveCallback callback)
{
    m_group = groupAddress;
    m_port = port;
    m_callback = std::move(callback);
    return 0;
}

void MulticastServer::stop() {}

int MulticastServer::setMulticastLoop(bool enable)
{
    m_multicastLoop = enable;
    return 0;
}

int MulticastServer::addInterface(const std::string&)
{
    return 0;
}

int MulticastServer::addInterface(int)
{
    return 0;
}

int MulticastServer::dropInterface(int)
{
    return 0;
}

int MulticastServer::receiveTelegram(void*, unsigned, Netadapter&, int&)
{
    return -EAGAIN;
}

int MulticastServer::sendOverInterface(const Netadapter& adapter, const std::string& telegram, unsigned ttl)
{
    fuzzsupport::SentTelegram sent;
    sent.text = telegram;
    sent.interfaceIndex = adapter.getInterfaceIndex();
    sent.ttl = ttl;
    fuzzsupport::record().sent.push_back(sent);
    return static_cast<int>(telegram.size());
}

int MulticastServer::sendOverInterfaceByAddress(const std::string& interfaceAddress, const std::string& telegram,
                                                unsigned ttl)
{
    fuzzsupport::SentTelegram sent;
    sent.text = telegram;
    sent.byAddress = true;
    sent.address = interfaceAddress;
    sent.ttl = ttl;
    fuzzsupport::record().sent.push_back(sent);
    return static_cast<int>(telegram.size());
}

}  // namespace orv::communication

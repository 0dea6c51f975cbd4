#include "TelegramListener.h"

#include <time.h>

#include <cstring>

#include <orv/communication/Netadapter.h>
#include <orv/exception/exception.h>
#include <orv/sys/EventLoop.h>

namespace tsdmon {

using orv::communication::MulticastServer;
using orv::communication::Netadapter;
using orv::communication::Netlink;

namespace {

// A datagram can never be larger, so nothing is ever cut short.
constexpr unsigned kReceiveBufferSize = 65536;

std::int64_t clockMs(clockid_t clock)
{
    timespec now{};
    ::clock_gettime(clock, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

TelegramListener::TelegramListener(orv::sys::EventLoop& loop)
    : m_receivers{MulticastServer(m_adapters, loop), MulticastServer(m_adapters, loop)},
      m_links(m_adapters, loop),
      m_buffer(kReceiveBufferSize)
{
}

std::int64_t TelegramListener::monotonicMs()
{
    return clockMs(CLOCK_MONOTONIC);
}

std::int64_t TelegramListener::wallMs()
{
    return clockMs(CLOCK_REALTIME);
}

std::string TelegramListener::start(const std::string& group, unsigned basePort, const std::string interfaceNames[2],
                                    ObservationCallback onTelegram, StateCallback onState)
{
    m_group = group;
    m_basePort = basePort;
    m_onTelegram = std::move(onTelegram);
    m_onState = std::move(onState);
    for (interface_t side : {orv::tsd::REAR_FW, orv::tsd::FRONT_FW}) {
        Side& state = m_sides[side];
        state.interfaceName = interfaceNames[side];
        if (state.interfaceName.empty())
            continue;
        MulticastServer& receiver = m_receivers[side];
        const int result =
            receiver.start(group, basePort + static_cast<unsigned>(side),
                           [this, side](MulticastServer& server) { return onReadable(server, side); });
        if (result != 0)
            return std::string("cannot listen on group ") + group + " port " +
                   std::to_string(basePort + static_cast<unsigned>(side)) + ": " + std::strerror(-result);
    }
    // The link monitor first reports every present link, which makes the
    // receivers join; later reports follow interfaces that come and go.
    const int result = m_links.start(
        [this](Netlink::event_t event, unsigned index, const std::string&) { onLinkEvent(event, index); });
    if (result != 0)
        return std::string("cannot follow the network interfaces: ") + std::strerror(-result);
    return {};
}

int TelegramListener::onReadable(MulticastServer& receiver, interface_t side)
{
    Netadapter from;
    int index = 0;
    Observation observation;
    const int received = receiver.receiveTelegram(m_buffer.data(), kReceiveBufferSize, from, index, observation.sender);
    if (received < 0)
        return received;
    observation.monotonicMs = monotonicMs();
    observation.wallMs = wallMs();
    observation.side = side;
    observation.interfaceName = from.getName();
    observation.bytes.assign(m_buffer.data(), static_cast<std::size_t>(received));
    m_onTelegram(observation);
    return received;
}

void TelegramListener::report(EventType type, interface_t side, const std::string& address)
{
    MonitorEvent event;
    event.type = type;
    event.wallMs = wallMs();
    event.side = side;
    event.interfaceName = m_sides[side].interfaceName;
    event.sender = address;
    event.group = m_group;
    event.port = m_basePort + static_cast<unsigned>(side);
    m_onState(event);
}

void TelegramListener::onLinkEvent(Netlink::event_t event, unsigned index)
{
    if (event == Netlink::COMPLETE) {
        for (interface_t side : {orv::tsd::REAR_FW, orv::tsd::FRONT_FW}) {
            if (!m_sides[side].interfaceName.empty() && m_sides[side].joinedIndex == 0)
                report(EventType::Waiting, side);
        }
        return;
    }

    Netadapter adapter;
    try {
        adapter = m_adapters.getAdapterByInterfaceIndex(index);
    } catch (const orv::exception::exception&) {
        // Gone before its report was read; its removal follows.
        return;
    }
    for (interface_t side : {orv::tsd::REAR_FW, orv::tsd::FRONT_FW}) {
        Side& state = m_sides[side];
        if (state.interfaceName.empty() || adapter.getName() != state.interfaceName)
            continue;
        const std::string address =
            adapter.getIpv4Addresses().empty() ? std::string() : adapter.getIpv4Addresses().front().address;
        if (event == Netlink::LINK_ADDED || event == Netlink::ADDRESS_ADDED) {
            if (m_receivers[side].addInterface(static_cast<int>(index)) != 0)
                continue;
            // The link and each of its addresses are reported one by one;
            // say so once per interface and address.
            if (state.joinedIndex != index || state.address != address) {
                state.joinedIndex = index;
                state.address = address;
                report(EventType::Listening, side, address);
            }
        } else if (event == Netlink::LINK_REMOVED && state.joinedIndex == index) {
            m_receivers[side].dropInterface(static_cast<int>(index));
            state.joinedIndex = 0;
            state.address.clear();
            report(EventType::InterfaceLost, side);
        }
    }
}

}  // namespace tsdmon

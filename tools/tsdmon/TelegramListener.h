#pragma once

#include <functional>
#include <string>
#include <vector>

#include <orv/communication/MulticastServer.h>
#include <orv/communication/NetadapterList.h>
#include <orv/communication/Netlink.h>

#include "MonitorEvent.h"

namespace orv::sys {
class EventLoop;
}

namespace tsdmon {

// Hears the telegram group on the watched sides, as a daemon would: one
// receiver per side, rear on the base port and front on base + 1, each joined
// only on its side's interface. It follows the interfaces through the link
// monitor, joining again when one returns. It has no send path at all: the
// receivers' send operations are never called, so the chain never sees it.
// Runs on the loop's thread.
class TelegramListener
{
public:
    using ObservationCallback = std::function<void(const Observation&)>;
    // Listening, Waiting and InterfaceLost events.
    using StateCallback = std::function<void(const MonitorEvent&)>;

    explicit TelegramListener(orv::sys::EventLoop& loop);
    TelegramListener(const TelegramListener&) = delete;
    TelegramListener& operator=(const TelegramListener&) = delete;

    // interfaceNames: the rear and front interface, empty for a side that is
    // not watched. Returns an error text, empty on success.
    std::string start(const std::string& group, unsigned basePort, const std::string interfaceNames[2],
                      ObservationCallback onTelegram, StateCallback onState);

    // Monotonic and wall-clock "now" in ms, as observations carry them.
    static std::int64_t monotonicMs();
    static std::int64_t wallMs();

private:
    struct Side
    {
        std::string interfaceName;  // empty: not watched
        unsigned joinedIndex = 0;   // interface the receiver joined on; 0 when none
        std::string address;        // the interface's address last reported
    };

    orv::communication::NetadapterList m_adapters;
    orv::communication::MulticastServer m_receivers[2];
    orv::communication::Netlink m_links;
    Side m_sides[2];
    std::string m_group;
    unsigned m_basePort = 0;
    std::vector<char> m_buffer;
    ObservationCallback m_onTelegram;
    StateCallback m_onState;

    int onReadable(orv::communication::MulticastServer& receiver, interface_t side);
    void onLinkEvent(orv::communication::Netlink::event_t event, unsigned index);
    void report(EventType type, interface_t side, const std::string& address = {});
};

}  // namespace tsdmon

#pragma once

#include <string>
#include <vector>

#include "config/InterfaceType.h"

namespace orv::communication {
class MulticastServer;
class Netadapter;
}  // namespace orv::communication

struct ModuleItem;

namespace orv::tsd {

class CheckResponse;
class TimeSyncManagement;

// The telegrams between modules: "<sync>:start:<sync>", "<sync>:resync:<sync>"
// and "<sync>:item:U:M:P:T:<sync>" (hex fields), with an extra "1" field before
// the closing "<sync>" when sent over the front side. It has no state: all its
// operations are static; the text itself is made and read in Telegram.h.
class CommandProcessor
{
public:
    CommandProcessor() = delete;

    static void sendInit(interface_t side, orv::communication::MulticastServer& server);
    static void sendResync(interface_t side, orv::communication::MulticastServer& server);
    static void sendItem(orv::communication::MulticastServer* server,
                         const orv::communication::Netadapter& adapter, interface_t side,
                         TimeSyncManagement& tsm);

    static void processReceived(const char* data, int length, orv::communication::MulticastServer* server,
                                const orv::communication::Netadapter& adapter, interface_t side,
                                CheckResponse& check, TimeSyncManagement& tsm);
    static bool processReceivedItem(const std::string& uuid, const std::string& module,
                                    const std::string& prio, const std::string& threshold, interface_t side,
                                    TimeSyncManagement& tsm);
};

}  // namespace orv::tsd

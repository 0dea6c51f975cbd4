#include "protocol/CommandProcessor.h"

#include <syslog.h>

#include <cstdlib>
#include <ctime>
#include <sstream>

#include <orv/communication/MulticastServer.h>
#include <orv/communication/Netadapter.h>

#include "config/Config.h"
#include "main/Debug.h"
#include "protocol/CheckResponse.h"
#include "protocol/ModuleItem.h"
#include "protocol/Telegram.h"
#include "sync/TimeSyncManagement.h"

namespace orv::tsd {
namespace {

// Multicast hop limit: telegrams concern the modules of one cable only.
constexpr unsigned kTtl = 1;
// Upper bound (exclusive) of the answer back-off in ms, so that the modules of
// a side do not all answer a start at the same instant.
constexpr int kBackoffRangeMs = 200;

void backOff()
{
    srand(static_cast<unsigned>(time(nullptr)));
    const int delayMs = rand() % kBackoffRangeMs;
    if (delayMs == 0)
        return;
    timespec delay{};
    delay.tv_sec = 0;
    delay.tv_nsec = static_cast<long>(delayMs) * 1000000L;
    nanosleep(&delay, nullptr);
}

// Sends a request to every module of the side, out of the side's own
// interface; the debug line is "<label>(<side><separator><telegram>".
void sendRequest(interface_t side, orv::communication::MulticastServer& server, const std::string& text,
                 const char* label, const char* separator)
{
    if (isDebugMode()) {
        std::ostringstream line;
        line << label << static_cast<int>(side) << separator << text;
        debugLog(line.str());
    }
    server.sendOverInterfaceByAddress(Config::instance().getInterfaceAddress(side), text, kTtl);
}

}  // namespace

void CommandProcessor::sendInit(interface_t side, orv::communication::MulticastServer& server)
{
    sendRequest(side, server, telegram::encodeStart(side), "<== send init (", ") :");
}

void CommandProcessor::sendResync(interface_t side, orv::communication::MulticastServer& server)
{
    sendRequest(side, server, telegram::encodeResync(side), "<== send resync (", "): ");
}

void CommandProcessor::sendItem(orv::communication::MulticastServer* server,
                                const orv::communication::Netadapter& adapter, interface_t side,
                                TimeSyncManagement& tsm)
{
    // The identity never changes while the process runs.
    static const unsigned ownUuid = Config::instance().getUuid();
    static const unsigned ownModulePrio = Config::instance().getModulePrio();

    unsigned prio = 0;
    unsigned threshold = 0;
    if (!tsm.getTsdParam(prio, threshold, side))
        return;

    const ModuleItem item(ownUuid, ownModulePrio, prio, threshold);
    const std::string text = telegram::encodeItem(item, side);
    if (isDebugMode()) {
        std::ostringstream line;
        line << "<== send (" << static_cast<int>(side) << "): " << std::hex << item.uuid << std::dec << " "
             << item.module << " " << item.prio << " " << item.threshold;
        debugLog(line.str());
    }

    // Blocks the only thread on purpose: the answer must wait, and nothing
    // else is due within the back-off that a start could not repeat.
    backOff();

    if (isDebugMode())
        debugLog(text);
    server->sendOverInterface(adapter, text, kTtl);
}

void CommandProcessor::processReceived(const char* data, int length,
                                       orv::communication::MulticastServer* server,
                                       const orv::communication::Netadapter& adapter, interface_t side,
                                       CheckResponse& check, TimeSyncManagement& tsm)
{
    const telegram::Decoded received =
        telegram::decode(data, length > 0 ? static_cast<std::size_t>(length) : 0);

    switch (received.kind) {
        case telegram::Kind::BadFormat:
            syslog(LOG_WARNING, "invalid command format!");
            return;
        case telegram::Kind::Unknown:
            syslog(LOG_WARNING, "received invalid message!");
            return;
        case telegram::Kind::Start:
            if (side != received.sentOver) {
                check.setError(-3, "Wrong interface during START seq");
                return;
            }
            // Restart the side before answering, so that the answers that follow
            // fill a list cleared of the previous round's values.
            check.startWaitPeriod();
            if (side == REAR_FW)
                tsm.initRearFirewire();
            else
                tsm.initFrontFirewire();
            sendItem(server, adapter, side, tsm);
            return;
        case telegram::Kind::Resync:
            if (side != received.sentOver) {
                check.setError(-3, "Wrong interface during RESYNC seq");
                return;
            }
            check.startWaitPeriod();
            sendItem(server, adapter, side, tsm);
            return;
        case telegram::Kind::Item:
            if (side != received.sentOver) {
                check.setError(-3, "Wrong interface during NEW_ITEM seq");
                return;
            }
            if (processReceivedItem(received.uuid, received.module, received.prio, received.threshold, side,
                                    tsm))
                check.notify();
            return;
    }
}

bool CommandProcessor::processReceivedItem(const std::string& uuid, const std::string& module,
                                           const std::string& prio, const std::string& threshold,
                                           interface_t side, TimeSyncManagement& tsm)
{
    const ModuleItem item(telegram::parseHex(uuid), telegram::parseHex(module), telegram::parseHex(prio),
                          telegram::parseHex(threshold));
    if (isDebugMode()) {
        std::ostringstream line;
        line << "==> received item (" << static_cast<int>(side) << "): " << std::hex << item.uuid << std::dec
             << " " << item.module << " " << item.prio << " " << item.threshold;
        debugLog(line.str());
    }
    return tsm.setEntry(item, side);
}

}  // namespace orv::tsd

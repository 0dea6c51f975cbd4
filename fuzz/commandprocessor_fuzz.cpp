// Drives the daemon's receive path with a script of events: telegrams received
// on either side go through CommandProcessor::processReceived into the sync
// manager, mixed with what else moves an election (devices appearing and
// disappearing on the bus, the end of the reachable-device delay, supervision
// time-outs, parameter changes, failing scripts). One event per line:
//
//   0TEXT / 1TEXT    TEXT received as a datagram on the rear / front side
//   +SID / -SID      device with the hex id ID appears / disappears on side S (0 or 1)
//   t                the reachable-device delay ends (the election restarts)
//   r / f            the rear / front side's answers did not arrive in time
//   pJSON            "sync/param" changes to JSON
//   x / w            scripts start failing (or succeed again) / files cannot be written (or can)
//   d                debug logging on / off
//
// After every event: the daemon published only its own, well-formed states,
// ran only its fixed script command lines, sent only telegrams that decode
// and carry its own uuid, and backed off less than 200 ms. A malformed
// telegram changes nothing and answers nothing; one that arrived on the wrong
// side only raises error -3; an accepted start or resync is answered with one
// item on the side it came from.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <orv/communication/Netadapter.h>

#include "JsonText.h"
#include "config/Config.h"
#include "main/Debug.h"
#include "protocol/CheckResponse.h"
#include "protocol/CommandProcessor.h"
#include "protocol/Telegram.h"
#include "support/Check.h"
#include "support/Record.h"
#include "support/SyncWorld.h"
#include "sync/TimeSyncManagement.h"

using namespace orv::tsd;

namespace {

constexpr std::size_t kMaxEvents = 256;
constexpr const char* kWrongSidePath = "sync/errors/-3";

void receive(fuzzsupport::SyncWorld& world, interface_t side, const std::string& text)
{
    fuzzsupport::Record& record = fuzzsupport::record();
    const bool wrongSideBefore = record.states.count(kWrongSidePath) != 0;
    CommandProcessor::processReceived(text.data(), static_cast<int>(text.size()), &world.server(side),
                                      world.adapter(side), side, world.check(side), world.tsm());

    const telegram::Decoded decoded = telegram::decode(text.data(), text.size());
    switch (decoded.kind) {
        case telegram::Kind::BadFormat:
        case telegram::Kind::Unknown:
            FUZZ_CHECK(record.sent.empty() && record.published.empty() && record.commands.empty());
            return;
        case telegram::Kind::Start:
        case telegram::Kind::Resync:
        case telegram::Kind::Item:
            break;
    }
    if (decoded.sentOver != side) {
        FUZZ_CHECK(record.sent.empty() && record.commands.empty());
        FUZZ_CHECK(record.states.count(kWrongSidePath) == 1);
        FUZZ_CHECK(record.published.size() == (wrongSideBefore ? 0u : 1u));
        return;
    }
    if (decoded.kind == telegram::Kind::Item)
        return;
    FUZZ_CHECK(record.sent.size() == 1);
    FUZZ_CHECK(!record.sent[0].byAddress);
    FUZZ_CHECK(record.sent[0].interfaceIndex == world.adapter(side).getInterfaceIndex());
    const telegram::Decoded answer = telegram::decode(record.sent[0].text.data(), record.sent[0].text.size());
    FUZZ_CHECK(answer.kind == telegram::Kind::Item && answer.sentOver == side);
    FUZZ_CHECK(record.sleepsMs.size() <= 1);
}

void reachable(const std::string& event, const std::string& line)
{
    if (line.size() < 2 || (line[1] != '0' && line[1] != '1'))
        return;
    const std::string interfaceName =
        line[1] == '0' ? Config::instance().getRearInterfaceName() : std::string("firewire1");
    Json::Value notification(Json::objectValue);
    notification["path"] = "reachableDevices/" + interfaceName + "/" + line.substr(2);
    notification["event"] = event;
    notification["value"] = true;
    FUZZ_CHECK(fuzzsupport::deliver(TimeSyncManagement::kReachablePrefix, notification) == 0);
}

void changeParam(const std::string& text)
{
    Json::Value notification(Json::objectValue);
    std::string error;
    if (!vela::parseJson(text, &notification["value"], &error))
        return;
    notification["path"] = "sync/param";
    notification["event"] = "change";
    fuzzsupport::deliver("sync/param", notification);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    setDebugModeFlag(false);
    fuzzsupport::SyncWorld world;
    fuzzsupport::Record& record = fuzzsupport::record();

    const std::string_view script(reinterpret_cast<const char*>(data), size);
    std::size_t begin = 0;
    for (std::size_t events = 0; begin < script.size() && events < kMaxEvents; ++events) {
        std::size_t end = script.find('\n', begin);
        if (end == std::string_view::npos)
            end = script.size();
        const std::string line(script.substr(begin, end - begin));
        begin = end + 1;
        if (line.empty())
            continue;

        switch (line[0]) {
            case '0':
                receive(world, REAR_FW, line.substr(1));
                break;
            case '1':
                receive(world, FRONT_FW, line.substr(1));
                break;
            case '+':
                reachable("add", line);
                break;
            case '-':
                reachable("remove", line);
                break;
            case 't':
                world.tsm().cbReachableDelayTimerCb(true);
                break;
            case 'r':
                world.check(REAR_FW).timerCb(true);
                break;
            case 'f':
                world.check(FRONT_FW).timerCb(true);
                break;
            case 'p':
                changeParam(line.substr(1));
                break;
            case 'x':
                record.commandStatus = record.commandStatus == 0 ? 1 : 0;
                break;
            case 'w':
                record.filesWritable = !record.filesWritable;
                break;
            case 'd':
                setDebugModeFlag(!isDebugMode());
                break;
            default:
                break;
        }
        fuzzsupport::checkRecordedEffects();
        record.clearEvents();
    }
    return 0;
}

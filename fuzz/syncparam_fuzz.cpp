// Feeds arbitrary JSON, as the bus would deliver it, to the daemon's follower
// of "sync/param" (the time source, threshold, PTP options and NTP server
// another participant sets for this module). Whatever arrives, the follower
// either keeps its values or takes exactly the announced ones and restarts the
// election with one "start" on the rear side; a JSON library exception is
// caught where the bus library's dispatch catches it and changes nothing that
// is announced. An accepted value then runs a one-module election, so that the
// announced values reach the time services: only the fixed script command
// lines run, and the options land verbatim in the service's file and nowhere
// else. Inputs of odd length run with debug logging on, so that the styled
// rendering of the notification is fuzzed too.

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

#include "config/Config.h"
#include "config/ConfigParams.h"
#include "protocol/ModuleItem.h"
#include "protocol/Telegram.h"
#include "support/Check.h"
#include "support/Record.h"
#include "support/SyncWorld.h"
#include "sync/NtpManage.h"
#include "sync/PTPManage.h"
#include "sync/TimeSyncManagement.h"

using namespace orv::tsd;

namespace {

struct Expected
{
    bool threw = false;
    bool accepted = false;
    // A threshold that is no number throws after the time source was stored:
    // the source is announced from then on, the old threshold stays and the
    // election is not restarted.
    bool sourceStored = false;
    unsigned prio = 0;
    unsigned tenths = 0;
    std::string ptp;
    std::string ntp;
};

unsigned tenthsOf(double threshold)
{
    const double tenths = threshold / 0.1 + 0.5;
    if (!(tenths > 0.0))
        return 0;
    if (tenths >= static_cast<double>(std::numeric_limits<unsigned>::max()))
        return std::numeric_limits<unsigned>::max();
    return static_cast<unsigned>(tenths);
}

// What the notification must do, read the way the bus documents its value:
// "add" and "change" are taken when the time source has a configured level.
Expected expect(const Json::Value& notification)
{
    Expected e;
    try {
        const std::string event = notification["event"].asString();
        if (event != "add" && event != "change")
            return e;
        const Json::Value& value = notification["value"];
        e.prio = ConfigParams::instance().getPrioLevel(value["timesource"].asString());
        if (e.prio == 0)
            return e;
        e.ptp = value["ptp4l"].asString();
        e.ntp = value["ntpserver"].asString();
        e.sourceStored = true;
        e.tenths = tenthsOf(value["threshold"].asDouble());
        e.accepted = true;
    } catch (const Json::Exception&) {
        e.threw = true;
        e.accepted = false;
    }
    return e;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Json::Value notification;
    if (!fuzzsupport::readBusValue(data, size, notification))
        return 0;

    fuzzsupport::SyncWorld world;
    fuzzsupport::Record& record = fuzzsupport::record();
    unsigned prioBefore = 0;
    unsigned tenthsBefore = 0;
    world.tsm().getTsdParam(prioBefore, tenthsBefore, REAR_FW);

    const Expected expected = expect(notification);
    const unsigned threw = fuzzsupport::deliver("sync/param", notification);
    FUZZ_CHECK(threw == (expected.threw ? 1u : 0u));

    unsigned prio = 0;
    unsigned tenths = 0;
    world.tsm().getTsdParam(prio, tenths, REAR_FW);
    if (!expected.accepted) {
        // Nothing else announced changes and the election is not restarted.
        FUZZ_CHECK(prio == (expected.sourceStored ? expected.prio : prioBefore));
        FUZZ_CHECK(tenths == tenthsBefore);
        FUZZ_CHECK(record.sent.empty());
        FUZZ_CHECK(record.published.empty() && record.commands.empty());
        fuzzsupport::checkRecordedEffects();
        return 0;
    }
    FUZZ_CHECK(prio == expected.prio && tenths == expected.tenths);
    FUZZ_CHECK(record.sent.size() == 1);
    FUZZ_CHECK(record.sent[0].text == telegram::encodeStart(REAR_FW));
    fuzzsupport::checkRecordedEffects();
    record.clearEvents();

    // This module alone on the rear side: its own answer completes the
    // election, and it serves the chain with the announced source.
    const ModuleItem own(fuzzsupport::kOwnUuid, Config::instance().getModulePrio(), prio, tenths);
    FUZZ_CHECK(world.tsm().setEntry(own, REAR_FW));
    fuzzsupport::checkRecordedEffects();
    const bool ptp = expected.prio == fuzzsupport::kPtpLevel;
    const bool ntp = expected.prio == fuzzsupport::kNtpLevel;
    FUZZ_CHECK(PTPManage::instance().isRunning() == ptp);
    for (const fuzzsupport::WrittenFile& file : record.files) {
        if (file.path == PTPManage::kConfigFile)
            FUZZ_CHECK(ptp && file.text == expected.ptp);
        else
            FUZZ_CHECK(ntp && file.text == expected.ntp);
    }
    FUZZ_CHECK(record.files.size() == ((ptp || ntp) ? 1u : 0u));
    return 0;
}

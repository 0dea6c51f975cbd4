// Feeds arbitrary JSON, as the bus would deliver it, to the daemon's follower
// of the reachable FireWire devices ("reachableDevices/firewire..."). Whatever
// arrives: the callback publishes nothing, runs nothing and sends nothing; it
// changes at most one side's list, by appending one 24-bit uuid of the maker's
// OUI or by taking out every copy of one, and arms the delayed restart exactly
// when it changed a list or was asked to remove; a JSON library exception
// (caught where the bus library's dispatch catches it) changes nothing. When
// the delay then ends, the election restarts with one "start" on the rear side
// over module lists that hold this module and exactly the reachable devices.
// Inputs of odd length run with debug logging on.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

#include "config/Config.h"
#include "protocol/Telegram.h"
#include "support/Check.h"
#include "support/ManagerAccess.h"
#include "support/Record.h"
#include "support/SyncWorld.h"
#include "sync/TimeSyncManagement.h"

using namespace orv::tsd;

namespace {

constexpr unsigned kUuidLimit = 1u << 24;

// The module list of a side holds this module first, then the reachable
// devices in their order.
void checkModules(const CurrentModules& modules, const std::list<unsigned>& reachable, interface_t side)
{
    const std::list<ModuleItem>& list = modules.list(side);
    FUZZ_CHECK(list.size() == reachable.size() + 1);
    auto entry = list.begin();
    FUZZ_CHECK(entry->uuid == fuzzsupport::kOwnUuid && entry->isEmpty());
    for (unsigned uuid : reachable) {
        ++entry;
        FUZZ_CHECK(entry->uuid == uuid && entry->isEmpty());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Json::Value notification;
    if (!fuzzsupport::readBusValue(data, size, notification))
        return 0;

    fuzzsupport::SyncWorld world;
    TimeSyncManagementTestAccess access(world.tsm());
    fuzzsupport::Record& record = fuzzsupport::record();

    // Two devices known before, one on each side, so that removals have
    // something to take.
    const std::string rearName = Config::instance().getRearInterfaceName();
    for (const std::string& path : {"reachableDevices/" + rearName + "/0A7C31000001",
                                    std::string("reachableDevices/firewire1/0A7C31000002")}) {
        Json::Value add(Json::objectValue);
        add["path"] = path;
        add["event"] = "add";
        add["value"] = true;
        FUZZ_CHECK(fuzzsupport::deliver(TimeSyncManagement::kReachablePrefix, add) == 0);
    }
    const std::list<unsigned> rearBefore = access.reachable(REAR_FW);
    const std::list<unsigned> frontBefore = access.reachable(FRONT_FW);
    // The delay those two armed has ended; a cancelled delay does nothing.
    access.cancelDelay();
    world.tsm().cbReachableDelayTimerCb(false);
    record.clearEvents();

    const unsigned threw = fuzzsupport::deliver(TimeSyncManagement::kReachablePrefix, notification);
    FUZZ_CHECK(threw <= 1);
    FUZZ_CHECK(record.published.empty() && record.commands.empty() && record.sent.empty());

    const std::list<unsigned>& rear = access.reachable(REAR_FW);
    const std::list<unsigned>& front = access.reachable(FRONT_FW);
    const bool rearChanged = rear != rearBefore;
    const bool frontChanged = front != frontBefore;
    FUZZ_CHECK(!(rearChanged && frontChanged));
    if (threw != 0)
        FUZZ_CHECK(!rearChanged && !frontChanged);
    for (const auto* pair : {&rear, &front}) {
        const std::list<unsigned>& now = *pair;
        const std::list<unsigned>& before = pair == &rear ? rearBefore : frontBefore;
        if (now.size() > before.size()) {
            // An appearance: the old list plus one uuid at its end.
            FUZZ_CHECK(now.size() == before.size() + 1);
            FUZZ_CHECK(std::equal(before.begin(), before.end(), now.begin()));
            FUZZ_CHECK(now.back() < kUuidLimit);
        } else if (now.size() < before.size()) {
            // A removal: every copy of one uuid is gone, nothing else.
            std::list<unsigned> gone = before;
            for (unsigned uuid : now) {
                const auto kept = std::find(gone.begin(), gone.end(), uuid);
                FUZZ_CHECK(kept != gone.end());
                gone.erase(kept);
            }
            FUZZ_CHECK(std::count(gone.begin(), gone.end(), gone.front()) ==
                       static_cast<std::ptrdiff_t>(gone.size()));
            FUZZ_CHECK(std::find(now.begin(), now.end(), gone.front()) == now.end());
        } else {
            FUZZ_CHECK(now == before);
        }
    }
    if (rearChanged || frontChanged)
        FUZZ_CHECK(access.delayPending());
    if (threw != 0)
        FUZZ_CHECK(!access.delayPending());
    fuzzsupport::checkRecordedEffects();

    if (access.delayPending()) {
        world.tsm().cbReachableDelayTimerCb(true);
        FUZZ_CHECK(record.sent.size() == 1 && record.sent[0].text == telegram::encodeStart(REAR_FW));
        checkModules(access.modules(), rear, REAR_FW);
        checkModules(access.modules(), front, FRONT_FW);
        fuzzsupport::checkRecordedEffects();
    }
    return 0;
}

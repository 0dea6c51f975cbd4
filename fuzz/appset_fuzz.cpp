// Feeds arbitrary JSON as another participant's set request on "sync/app",
// the state in which this module tells applications the status and master of
// each side. Applications may read it but change nothing: whatever the
// request, the answer is null, the state keeps its value and nothing is
// published, run or sent. Inputs of odd length run with debug logging on,
// which renders the request in styled form.

#include <cstddef>
#include <cstdint>
#include <string>

#include "support/Check.h"
#include "support/Record.h"
#include "support/SyncWorld.h"
#include "sync/TimeSyncManagement.h"

using namespace orv::tsd;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Json::Value request;
    if (!fuzzsupport::readBusValue(data, size, request))
        return 0;

    fuzzsupport::SyncWorld world;
    fuzzsupport::Record& record = fuzzsupport::record();
    const Json::Value before = record.states.at(TimeSyncManagement::kAppStatePath).value;

    bool threw = false;
    const Json::Value answer = fuzzsupport::requestSet(TimeSyncManagement::kAppStatePath, request, threw);
    FUZZ_CHECK(!threw);
    FUZZ_CHECK(answer.isNull());
    FUZZ_CHECK(record.states.at(TimeSyncManagement::kAppStatePath).value == before);
    FUZZ_CHECK(record.published.empty() && record.commands.empty() && record.sent.empty());
    fuzzsupport::checkRecordedEffects();
    return 0;
}

#include "SyncWorld.h"

#include <syslog.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <orv/communication/MulticastServer.h>
#include <orv/communication/Netadapter.h>
#include <orv/communication/NetadapterList.h>
#include <orv/sys/EventLoop.h>
#include <vela/PeerAsync.h>

#include "Check.h"
#include "JsonText.h"
#include "Matcher.h"
#include "Record.h"
#include "config/Config.h"
#include "config/ConfigParams.h"
#include "errors/TsdErrors.h"
#include "main/Debug.h"
#include "protocol/CheckResponse.h"
#include "protocol/Telegram.h"
#include "sync/CommandRunner.h"
#include "sync/NtpManage.h"
#include "sync/PTPManage.h"
#include "sync/TimeSyncManagement.h"

namespace fuzzsupport {

namespace {

// The loop is never run: timers are armed and cancelled, never fire. The
// adapter list is only handed to the (stand-in) multicast servers.
orv::sys::EventLoop& sharedLoop()
{
    static orv::sys::EventLoop loop;
    return loop;
}

orv::communication::NetadapterList& sharedAdapters()
{
    static orv::communication::NetadapterList adapters;
    return adapters;
}

orv::communication::Netadapter makeAdapter(const char* name, unsigned index)
{
    orv::communication::Netadapter adapter;
    adapter.setName(name);
    adapter.setInterfaceIndex(index);
    return adapter;
}

bool isUpperHex(const std::string& text)
{
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F')))
            return false;
    }
    return true;
}

bool isCount(const Json::Value& value)
{
    return value.isIntegral() && value.isUInt();
}

void checkAppValue(const Json::Value& app)
{
    static const char* const kMembers[] = {"mode_back",         "mode_front",          "master_uuid_back",
                                           "master_uuid_front", "master_threshold_back", "master_threshold_front"};
    FUZZ_CHECK(app.isObject());
    FUZZ_CHECK(app.size() == 6);
    for (const char* member : kMembers)
        FUZZ_CHECK(app.isMember(member));
    for (const char* mode : {"mode_back", "mode_front"}) {
        FUZZ_CHECK(app[mode].isInt());
        FUZZ_CHECK(app[mode].asInt() >= 0 && app[mode].asInt() <= 3);
    }
    FUZZ_CHECK(isCount(app["master_uuid_back"]));
    FUZZ_CHECK(isCount(app["master_uuid_front"]));
    for (const char* threshold : {"master_threshold_back", "master_threshold_front"}) {
        FUZZ_CHECK(app[threshold].isDouble());
        const double value = app[threshold].asDouble();
        FUZZ_CHECK(std::isfinite(value) && value >= 0.0);
    }
}

void checkMasterValue(const Json::Value& master)
{
    FUZZ_CHECK(master.isString());
    const std::string text = master.asString();
    FUZZ_CHECK(text.size() >= 12 && text.compare(0, 6, "0A7C31") == 0);
    FUZZ_CHECK(isUpperHex(text.substr(6)));
}

void checkErrorState(const std::string& path, const Json::Value& value)
{
    static const int kKnownCodes[] = {-1, -2, -3, -4, 5, -6, -7};
    const std::string number = path.substr(std::strlen("sync/errors/"));
    char* end = nullptr;
    const long code = std::strtol(number.c_str(), &end, 10);
    FUZZ_CHECK(!number.empty() && *end == '\0');
    bool known = false;
    for (int c : kKnownCodes)
        known = known || c == code;
    FUZZ_CHECK(known);
    FUZZ_CHECK(value.isObject() && value.size() == 3);
    FUZZ_CHECK(value["error"].isInt() && value["error"].asInt() == code);
    FUZZ_CHECK(value["txt"].isString() && !value["txt"].asString().empty());
    FUZZ_CHECK(value["info"].isString());
}

void checkPublished(const Published& p)
{
    if (p.path == orv::tsd::TimeSyncManagement::kAppStatePath) {
        checkAppValue(p.value);
    } else if (p.path == orv::tsd::TimeSyncManagement::kMasterStatePath) {
        checkMasterValue(p.value);
    } else {
        FUZZ_CHECK(p.path.compare(0, std::strlen("sync/errors/"), "sync/errors/") == 0);
        checkErrorState(p.path, p.value);
    }
}

void checkCommand(const std::string& command)
{
    // Fixed command lines only: nothing the bus or a telegram says may ever
    // reach the shell.
    static const char* const kCommands[] = {
        orv::tsd::PTPManage::kStartCommand, orv::tsd::PTPManage::kRestartCommand,
        orv::tsd::PTPManage::kStopCommand,  orv::tsd::NtpManage::kStartCommand,
        orv::tsd::NtpManage::kStopCommand,  "mkdir -p /var/run",
        "mkdir -p /var/run/timesync",
    };
    bool known = false;
    for (const char* c : kCommands)
        known = known || command == c;
    FUZZ_CHECK(known);
}

void checkSent(const SentTelegram& sent)
{
    FUZZ_CHECK(sent.ttl == 1);
    const orv::tsd::telegram::Decoded decoded = orv::tsd::telegram::decode(sent.text.data(), sent.text.size());
    FUZZ_CHECK(decoded.kind == orv::tsd::telegram::Kind::Start ||
               decoded.kind == orv::tsd::telegram::Kind::Resync || decoded.kind == orv::tsd::telegram::Kind::Item);
    // A request goes to the whole side, an answer out of the adapter the
    // request came in on, and every answer carries this module's uuid.
    FUZZ_CHECK(sent.byAddress == (decoded.kind != orv::tsd::telegram::Kind::Item));
    if (decoded.kind == orv::tsd::telegram::Kind::Item)
        FUZZ_CHECK(orv::tsd::telegram::parseHex(decoded.uuid) == kOwnUuid);
}

}  // namespace

void setUpModule()
{
    // The daemon never opens its log and logs at LOG_WARNING and below; a
    // mask that lets only LOG_EMERG through keeps every line off the host
    // while the code that composes the lines still runs.
    setlogmask(LOG_MASK(LOG_EMERG));
    ::setenv("UUID", "10a0b0", 1);
    ConfigParams& params = ConfigParams::instance();
    params.addPrioLevel("Ptp", std::to_string(kPtpLevel));
    params.addPrioLevel("Ntp", std::to_string(kNtpLevel));
    params.addPrioLevel("KP", std::to_string(kModuleLevel));
    params.addPrioLevel("RZ", std::to_string(kModuleLevel));
    const orv::tsd::Config& config = orv::tsd::Config::instance();
    FUZZ_CHECK(config.getUuid() == kOwnUuid);
    FUZZ_CHECK(config.getModulePrio() == kModuleLevel);
}

struct SyncWorld::Parts
{
    Parts()
        : rear(sharedAdapters(), sharedLoop()),
          front(sharedAdapters(), sharedLoop()),
          peer(sharedLoop(), "127.0.0.1", 11122, "tsd"),
          errors(peer),
          checkRear(orv::tsd::REAR_FW, sharedLoop(), rear, errors),
          checkFront(orv::tsd::FRONT_FW, sharedLoop(), front, errors),
          tsm(rear, front, sharedLoop(), peer),
          rearAdapter(makeAdapter("firewire0", 2)),
          frontAdapter(makeAdapter("firewire1", 3))
    {
    }

    // Declared in the order main() builds them.
    orv::communication::MulticastServer rear;
    orv::communication::MulticastServer front;
    vela::PeerAsync peer;
    orv::tsd::TsdErrors errors;
    orv::tsd::CheckResponse checkRear;
    orv::tsd::CheckResponse checkFront;
    orv::tsd::TimeSyncManagement tsm;
    orv::communication::Netadapter rearAdapter;
    orv::communication::Netadapter frontAdapter;
};

SyncWorld::SyncWorld()
{
    Record& r = record();
    r.clearAll();
    // The time services are process-wide; every input starts with both
    // stopped, as after the daemon's start.
    orv::tsd::NtpManage::instance().stop(orv::tsd::systemRunner());
    orv::tsd::PTPManage::instance().stop(orv::tsd::systemRunner());
    m_parts = std::make_unique<Parts>();
    m_errors = &m_parts->errors;
    m_tsm = &m_parts->tsm;
    FUZZ_CHECK(r.states.count(orv::tsd::TimeSyncManagement::kAppStatePath) == 1);
    FUZZ_CHECK(r.states.count(orv::tsd::TimeSyncManagement::kMasterStatePath) == 1);
    r.clearEvents();
}

SyncWorld::~SyncWorld()
{
    m_parts.reset();
    // Everything the sync manager and its error state registered went with them.
    Record& r = record();
    FUZZ_CHECK(r.fetches.empty());
    FUZZ_CHECK(r.states.empty());
}

orv::tsd::CheckResponse& SyncWorld::check(orv::tsd::interface_t side)
{
    return side == orv::tsd::FRONT_FW ? m_parts->checkFront : m_parts->checkRear;
}

orv::communication::MulticastServer& SyncWorld::server(orv::tsd::interface_t side)
{
    return side == orv::tsd::FRONT_FW ? m_parts->front : m_parts->rear;
}

const orv::communication::Netadapter& SyncWorld::adapter(orv::tsd::interface_t side) const
{
    return side == orv::tsd::FRONT_FW ? m_parts->frontAdapter : m_parts->rearAdapter;
}

bool readBusValue(const std::uint8_t* data, std::size_t size, Json::Value& value)
{
    std::string error;
    if (!vela::parseJson(std::string_view(reinterpret_cast<const char*>(data), size), &value, &error))
        return false;
    orv::tsd::setDebugModeFlag(size % 2 == 1);
    return true;
}

unsigned deliver(const std::string& path, const Json::Value& notification)
{
    // Callbacks may remove fetches: walk over a copy of the ids.
    std::vector<int> ids;
    for (const auto& fetch : record().fetches) {
        if (vela::matches(fetch.second.matcher, path))
            ids.push_back(fetch.first);
    }
    unsigned threw = 0;
    for (int id : ids) {
        auto fetch = record().fetches.find(id);
        if (fetch == record().fetches.end())
            continue;
        const vela::FetchCallback callback = fetch->second.onNotify;
        try {
            callback(notification, id);
        } catch (const Json::Exception&) {
            ++threw;
        }
    }
    return threw;
}

Json::Value requestSet(const std::string& path, const Json::Value& value, bool& threw)
{
    threw = false;
    auto state = record().states.find(path);
    FUZZ_CHECK(state != record().states.end() && state->second.onSet);
    const vela::SetCallback callback = state->second.onSet;
    try {
        return callback(value, path);
    } catch (const Json::Exception&) {
        threw = true;
        return Json::Value();
    }
}

void checkRecordedEffects()
{
    const Record& r = record();
    FUZZ_CHECK(r.duplicateAdds == 0);
    FUZZ_CHECK(r.callbacksPassed == 0);
    for (const Published& p : r.published)
        checkPublished(p);
    for (const std::string& command : r.commands)
        checkCommand(command);
    for (const WrittenFile& file : r.files) {
        FUZZ_CHECK(file.path == orv::tsd::PTPManage::kConfigFile || file.path == orv::tsd::NtpManage::kServerFile);
    }
    for (const SentTelegram& sent : r.sent)
        checkSent(sent);
    for (long ms : r.sleepsMs)
        FUZZ_CHECK(ms > 0 && ms < 200);
}

}  // namespace fuzzsupport

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzzsupport::setUpModule();
    return 0;
}

#pragma once

// The daemon's sync manager as main() builds it (its bus peer, the multicast
// server and the response supervisor of each side, its error state) on the
// stand-ins of this folder, for the fuzz targets that drive it through its
// bus callbacks and through received telegrams. Each input gets a fresh world,
// so that no input depends on the ones before it.

#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "config/InterfaceType.h"

namespace orv::tsd {
class CheckResponse;
class TimeSyncManagement;
class TsdErrors;
}  // namespace orv::tsd
namespace orv::communication {
class MulticastServer;
class Netadapter;
}  // namespace orv::communication

namespace fuzzsupport {

// This module's identity while fuzzing (the "UUID" the daemon reads).
constexpr unsigned kOwnUuid = 0x10a0b0;
// The configured levels of the two time sources and of this module's type.
constexpr unsigned kPtpLevel = 20;
constexpr unsigned kNtpLevel = 10;
constexpr unsigned kModuleLevel = 5;

// Once per process, before anything asks the identity or the configuration:
// sets the module's UUID and priority levels and silences syslog (the daemon
// logs every rejected input, and millions of inputs would flood the host's
// log). Every target that links this world has it done by libFuzzer's
// LLVMFuzzerInitialize, defined beside it.
void setUpModule();

class SyncWorld
{
public:
    SyncWorld();
    ~SyncWorld();
    SyncWorld(const SyncWorld&) = delete;
    SyncWorld& operator=(const SyncWorld&) = delete;

    orv::tsd::TimeSyncManagement& tsm() { return *m_tsm; }
    orv::tsd::CheckResponse& check(orv::tsd::interface_t side);
    orv::communication::MulticastServer& server(orv::tsd::interface_t side);
    orv::tsd::TsdErrors& errors() { return *m_errors; }
    // The adapter a datagram of the side arrives on.
    const orv::communication::Netadapter& adapter(orv::tsd::interface_t side) const;

private:
    struct Parts;
    std::unique_ptr<Parts> m_parts;
    orv::tsd::TsdErrors* m_errors = nullptr;
    orv::tsd::TimeSyncManagement* m_tsm = nullptr;
};

// Reads a fuzz input as the JSON value of one bus message, the way the bus
// library reads a frame; false when it cannot (such a frame never reaches the
// daemon). Inputs of odd length switch debug logging on, so that the daemon's
// renderings of what it received are fuzzed too.
bool readBusValue(const std::uint8_t* data, std::size_t size, Json::Value& value);

// Hands a notification to every fetch whose matcher takes path, as the bus
// does. A JSON library exception from a callback is caught the way the peer
// library's dispatch catches it; the result is the number of callbacks that
// threw one. Any other exception is a finding and ends the run.
unsigned deliver(const std::string& path, const Json::Value& notification);

// Another participant's set request on one of the peer's own states; threw
// tells whether the set callback raised a JSON library exception.
Json::Value requestSet(const std::string& path, const Json::Value& value, bool& threw);

// What the daemon may do to the world, whatever it was fed: only its own
// states with well-formed values, only its fixed script command lines and
// service files, only telegrams that decode, back-offs below 200 ms, no
// response callbacks (its bus calls are fire-and-forget). Aborts otherwise.
void checkRecordedEffects();

}  // namespace fuzzsupport

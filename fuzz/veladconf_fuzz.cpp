// Feeds arbitrary bytes as the broker's quota file (velad.conf). A file
// either parses or is refused with a reason free of control bytes (it ends up
// in the log). What parses keeps the quotas within the ranges that keep the
// broker working: at least one connection, a backlog that holds a largest
// frame, a total backlog no smaller than one connection's, and no more
// connections per user than in total.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "BrokerConfig.h"
#include "Frame.h"
#include "support/Check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    vela::Limits limits;
    std::string error;
    if (!vela::parseBrokerConfig(text, limits, error)) {
        FUZZ_CHECK(!error.empty());
        for (char ch : error)
            FUZZ_CHECK(static_cast<unsigned char>(ch) >= 0x20 || ch == '\t');
        return 0;
    }
    FUZZ_CHECK(limits.maxConnections >= 1 && limits.maxConnections <= 65536);
    FUZZ_CHECK(limits.maxConnectionsPerUser >= 1 && limits.maxConnectionsPerUser <= limits.maxConnections);
    FUZZ_CHECK(limits.helloTimeout.count() >= 100);
    FUZZ_CHECK(limits.setTimeout.count() >= 1);
    FUZZ_CHECK(limits.maxStatesPerConnection >= 1);
    FUZZ_CHECK(limits.maxFetchesPerConnection >= 1);
    FUZZ_CHECK(limits.maxPendingSetsPerConnection >= 1);
    FUZZ_CHECK(limits.maxPathLength >= 16 && limits.maxPathLength <= 65536);
    FUZZ_CHECK(limits.maxBacklogBytes > vela::kMaxFrameSize);
    FUZZ_CHECK(limits.maxTotalBacklogBytes >= limits.maxBacklogBytes);
    FUZZ_CHECK(limits.logRate >= 0 && limits.logRate <= 1e6);
    FUZZ_CHECK(limits.peerLogRate >= 0 && limits.peerLogRate <= 1e6);
    FUZZ_CHECK(limits.logBurst >= 1 && limits.peerLogBurst >= 1);
    FUZZ_CHECK(limits.logLineMax >= 128);
    return 0;
}

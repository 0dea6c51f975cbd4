#pragma once

// Shared by tsdmon's suites: a datagram as the listener would hand it over,
// and a JSON event read back.

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>

#include <cstdint>
#include <memory>
#include <string>

#include "MonitorEvent.h"

namespace tsdmontest {

// Wall-clock times are this base plus the monotonic ms: 2027-01-15 08:00:00 UTC.
constexpr std::int64_t kWallBase = 1'800'000'000'000;

inline tsdmon::Observation heard(std::int64_t ms, orv::tsd::interface_t side, const std::string& sender,
                                 const std::string& bytes, std::int64_t wallBase = kWallBase)
{
    tsdmon::Observation observation;
    observation.monotonicMs = ms;
    observation.wallMs = wallBase + ms;
    observation.side = side;
    observation.interfaceName = side == orv::tsd::FRONT_FW ? "firewire1" : "firewire0";
    observation.sender = sender;
    observation.bytes = bytes;
    return observation;
}

inline Json::Value parseJson(const std::string& text)
{
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << errors << text;
    return value;
}

}  // namespace tsdmontest

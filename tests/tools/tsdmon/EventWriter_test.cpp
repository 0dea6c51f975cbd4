// The written forms of every event: one line each, JSON that reads back with
// the documented fields, and nothing from the network that reaches a terminal
// or a JSON reader unescaped.
#include "EventWriter.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>

#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>

#include "ElectionTracker.h"
#include "MonitorTestUtil.h"
#include "protocol/Telegram.h"

using namespace tsdmon;
using orv::tsd::FRONT_FW;
using orv::tsd::REAR_FW;
namespace telegram = orv::tsd::telegram;

namespace {

constexpr std::int64_t kWall = 1'800'000'000'123;  // 2027-01-15 08:00:00.123 UTC

Json::Value parse(const std::string& text)
{
    return tsdmontest::parseJson(text);
}

bool printableOneLine(const std::string& text)
{
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte >= 0x7f)
            return false;
    }
    return true;
}

Observation heard(std::int64_t ms, orv::tsd::interface_t side, const std::string& sender, const std::string& bytes)
{
    return tsdmontest::heard(ms, side, sender, bytes, kWall);
}

class EventWriter : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }
};

}  // namespace

TEST_F(EventWriter, EscapeKeepsPrintableAsciiAndWritesEverythingElseAsHex)
{
    EXPECT_EQ(escapeBytes("<sync>:start:<sync>"), "<sync>:start:<sync>");
    EXPECT_EQ(escapeBytes(std::string("\x00\x1b[2J\\\"\x7f\xff\r\n", 11)), "\\x00\\x1b[2J\\\\\"\\x7f\\xff\\x0d\\x0a");
    EXPECT_EQ(escapeBytes(""), "");
}

TEST_F(EventWriter, TimesAndTenths)
{
    EXPECT_EQ(utcTime(0), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(utcTime(kWall), "2027-01-15T08:00:00.123Z");
    EXPECT_EQ(localTime(kWall), "2027-01-15 08:00:00.123");
    EXPECT_EQ(tenths(0), "0.0");
    EXPECT_EQ(tenths(5), "0.5");
    EXPECT_EQ(tenths(125), "12.5");
}

TEST_F(EventWriter, RequestAndItemCarryTheirFields)
{
    ElectionTracker tracker;
    const MonitorEvent item =
        tracker.observe(heard(0, FRONT_FW, "169.254.2.4", telegram::encodeItem(ModuleItem(0x104, 10, 2, 15), FRONT_FW)))
            .at(0);
    const MonitorEvent start =
        tracker.observe(heard(5, FRONT_FW, "169.254.2.4", telegram::encodeStart(FRONT_FW))).at(0);

    const Json::Value itemJson = parse(toJson(item));
    EXPECT_EQ(itemJson["time"], "2027-01-15T08:00:00.123Z");
    EXPECT_EQ(itemJson["event"], "item");
    EXPECT_EQ(itemJson["side"], "front");
    EXPECT_EQ(itemJson["sender"], "169.254.2.4");
    EXPECT_EQ(itemJson["interface"], "firewire1");
    EXPECT_EQ(itemJson["uuid"], "0A7C31000104");
    EXPECT_EQ(itemJson["module"], 10);
    EXPECT_EQ(itemJson["prio"], 2);
    EXPECT_EQ(itemJson["threshold"], 15);
    EXPECT_EQ(itemJson["empty"], false);
    EXPECT_EQ(itemJson["round"], 1);
    EXPECT_TRUE(itemJson["notes"].isArray());
    EXPECT_EQ(itemJson["notes"].size(), 0u);

    const Json::Value startJson = parse(toJson(start));
    EXPECT_EQ(startJson["event"], "request");
    EXPECT_EQ(startJson["command"], "start");
    EXPECT_EQ(startJson["uuid"], "0A7C31000104");  // named by the earlier item
    EXPECT_EQ(startJson["opensRound"], false);
    EXPECT_EQ(startJson["round"], 1);

    EXPECT_EQ(toText(item), "2027-01-15 08:00:00.123 front item 0A7C31000104 module 10 time-source 2 threshold 1.5 "
                            "from 169.254.2.4 on firewire1 (round 1)");
    EXPECT_EQ(toText(start), "2027-01-15 08:00:00.128 front start from 169.254.2.4 (0A7C31000104) on firewire1: "
                             "round 1 extended");
}

TEST_F(EventWriter, MalformedBytesReachNoTerminalAndNoJsonReaderRaw)
{
    const std::string hostile("<sync>:\x1b]0;owned\x07:\"},\n{\"event\":\"item\"\\\x00\xff", 39);
    ElectionTracker tracker;
    const MonitorEvent event = tracker.observe(heard(0, REAR_FW, "169.254.1.9", hostile)).at(0);
    ASSERT_EQ(event.type, EventType::Malformed);

    const std::string json = toJson(event);
    EXPECT_TRUE(printableOneLine(json)) << json;
    const Json::Value value = parse(json);
    EXPECT_EQ(value["event"], "malformed");
    EXPECT_EQ(value["reason"], "bad-frame");
    EXPECT_EQ(value["length"], 39);
    EXPECT_EQ(value["bytes"].asString(), escapeBytes(hostile));
    EXPECT_TRUE(printableOneLine(value["bytes"].asString()));
    EXPECT_FALSE(value["explanation"].asString().empty());

    const std::string text = toText(event);
    EXPECT_TRUE(printableOneLine(text)) << text;
    EXPECT_NE(text.find("MALFORMED bad-frame from 169.254.1.9 on firewire0, 39 bytes"), std::string::npos) << text;
    EXPECT_NE(text.find("\\x1b]0;owned\\x07"), std::string::npos) << text;
}

TEST_F(EventWriter, ElectionListsAnswersWinnerAndChanges)
{
    ElectionTracker tracker;
    auto round = [&](std::int64_t at, bool third) {
        tracker.observe(heard(at, REAR_FW, "169.254.1.1", telegram::encodeStart(REAR_FW)));
        tracker.observe(heard(at + 10, REAR_FW, "169.254.1.1", telegram::encodeItem(ModuleItem(0x101, 10, 1, 5), REAR_FW)));
        if (third)
            tracker.observe(heard(at + 20, REAR_FW, "169.254.1.3", telegram::encodeItem(ModuleItem(0x103, 10, 2, 5), REAR_FW)));
        return tracker.expire(at + 3000).at(0);
    };
    round(0, true);
    const MonitorEvent event = round(5000, false);

    const Json::Value value = parse(toJson(event));
    EXPECT_EQ(value["event"], "election");
    EXPECT_EQ(value["side"], "rear");
    EXPECT_EQ(value["round"], 2);
    EXPECT_EQ(value["trigger"], "start");
    EXPECT_EQ(value["opened"], "2027-01-15T08:00:05.123Z");
    EXPECT_EQ(value["closed"], "2027-01-15T08:00:08.123Z");
    EXPECT_EQ(value["time"], value["closed"]);
    EXPECT_EQ(value["interrupted"], false);
    ASSERT_EQ(value["requests"].size(), 1u);
    EXPECT_EQ(value["requests"][0]["command"], "start");
    EXPECT_EQ(value["requests"][0]["uuid"], "0A7C31000101");
    ASSERT_EQ(value["answered"].size(), 1u);
    EXPECT_EQ(value["winner"]["uuid"], "0A7C31000101");
    EXPECT_EQ(value["winner"]["sender"], "169.254.1.1");
    EXPECT_EQ(value["stopped"][0], "0A7C31000103");
    EXPECT_EQ(value["joined"].size(), 0u);
    EXPECT_EQ(value["empty"].size(), 0u);

    EXPECT_EQ(toText(event), "2027-01-15 08:00:08.123 rear  election round 2 (start, 1 request): master 0A7C31000101 "
                             "module 10 time-source 1 threshold 0.5; 1 answered: 0A7C31000101; stopped answering: "
                             "0A7C31000103");

    tracker.observe(heard(10000, REAR_FW, "169.254.1.1", telegram::encodeResync(REAR_FW)));
    const MonitorEvent nobody = tracker.finish(kWall + 11000).at(0);
    EXPECT_TRUE(parse(toJson(nobody))["winner"].isNull());
    EXPECT_EQ(parse(toJson(nobody))["interrupted"], true);
    EXPECT_NE(toText(nobody).find("no master: nobody answered; 0 answered (cut short"), std::string::npos);
}

TEST_F(EventWriter, InterfaceEvents)
{
    MonitorEvent event;
    event.type = EventType::Listening;
    event.wallMs = kWall;
    event.side = FRONT_FW;
    event.interfaceName = "firewire1";
    event.sender = "169.254.2.1";
    event.group = "239.255.77.1";
    event.port = 14001;
    Json::Value value = parse(toJson(event));
    EXPECT_EQ(value["event"], "listening");
    EXPECT_EQ(value["interface"], "firewire1");
    EXPECT_EQ(value["address"], "169.254.2.1");
    EXPECT_EQ(value["group"], "239.255.77.1");
    EXPECT_EQ(value["port"], 14001);
    EXPECT_EQ(toText(event), "2027-01-15 08:00:00.123 front listening on firewire1 (169.254.2.1), group 239.255.77.1 "
                             "port 14001");
    event.type = EventType::Waiting;
    EXPECT_EQ(parse(toJson(event))["event"], "waiting");
    event.type = EventType::InterfaceLost;
    EXPECT_EQ(parse(toJson(event))["event"], "interface-lost");
}

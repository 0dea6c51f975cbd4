// The checks of a whole "sync/param" value: every refused key named, the
// time sources taken from the configuration file with tsd's own reader.
#include <gtest/gtest.h>

#include <pugixml.hpp>

#include <algorithm>
#include <limits>

#include "JsonText.h"
#include "ParamFile.h"
#include "ParamRules.h"
#include "Ptp4lAllowList.h"
#include "config/ConfigDocument.h"

using orv::services::ParamRules;
using orv::services::Ptp4lAllowList;

namespace {

std::vector<std::string> timeSourcesOf(const char* xml)
{
    pugi::xml_document document;
    EXPECT_TRUE(document.load_string(xml));
    return ParamRules::timeSourcesOf(orv::tsd::ConfigDocument::read(document));
}

const char kConfig[] = R"(<?xml version="1.0"?>
<TimeSyncDaemon>
  <MultiCastParam><Address>239.255.0.1</Address><Port>4000</Port></MultiCastParam>
  <PrioLevel>
    <ModuleType><KP>20</KP><RZ>10</RZ><Ptp>99</Ptp></ModuleType>
    <TimeSource><Ntp>1</Ntp><Ptp>2</Ptp><Off>0</Off><Gps>7abc</Gps><Bad>x</Bad></TimeSource>
  </PrioLevel>
</TimeSyncDaemon>)";

Json::Value parsed(const std::string& text)
{
    Json::Value value;
    std::string error;
    EXPECT_TRUE(vela::parseJson(text, &value, &error)) << text << ": " << error;
    return value;
}

class Rules : public ::testing::Test
{
protected:
    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(m_list.load(std::string(TSD_SOURCE_DIR) + "/packaging/config/ptp4l-options", error))
            << error;
    }

    std::string check(const std::string& json) const
    {
        return ParamRules({"Ntp", "Ptp"}, m_list).check(parsed(json));
    }

    Ptp4lAllowList m_list;
};

}  // namespace

TEST(ParamRulesTimeSources, OnlyTimeSourcesWithALevelCount)
{
    // Module types are not time sources; a level of 0 (or text without
    // digits) is what tsd treats as unknown; "7abc" reads as 7.
    const std::vector<std::string> expected = {"Gps", "Ntp", "Ptp"};
    EXPECT_EQ(timeSourcesOf(kConfig), expected);
}

TEST(ParamRulesTimeSources, LaterEntryOfANameWinsAsInTsd)
{
    EXPECT_EQ(timeSourcesOf("<TimeSyncDaemon><PrioLevel><TimeSource><Ptp>2</Ptp><Ptp>0</Ptp></TimeSource>"
                            "</PrioLevel></TimeSyncDaemon>"),
              std::vector<std::string>{});
    EXPECT_EQ(timeSourcesOf("<TimeSyncDaemon><PrioLevel><ModuleType><Ntp>0</Ntp></ModuleType>"
                            "<TimeSource><Ntp>3</Ntp></TimeSource></PrioLevel></TimeSyncDaemon>"),
              std::vector<std::string>{"Ntp"});
    EXPECT_EQ(timeSourcesOf("<TimeSyncDaemon/>"), std::vector<std::string>{});
}

TEST_F(Rules, BuiltinDefaultsPass)
{
    EXPECT_EQ(ParamRules({"Ntp", "Ptp"}, m_list).check(orv::services::builtinParams()), "");
}

TEST_F(Rules, TableOfValues)
{
    struct Case
    {
        const char* json;
        std::vector<std::string> fragments;  // empty: accepted
    };
    const std::vector<Case> cases = {
        {R"({"timesource":"Ntp","threshold":1.5,"ntpserver":"ntp.example","ptp4l":""})", {}},
        {R"({"timesource":"Ptp","threshold":0,"ntpserver":"::1","ptp4l":"-4 -S -i firewire0"})", {}},
        {R"({"timesource":"Ptp","threshold":429496729.5,"ntpserver":"10.0.0.1","ptp4l":""})", {}},
        {R"({"timesource":"Ptp","threshold":4,"ntpserver":"10.0.0.1","ptp4l":""})", {}},
        {R"({"timesource":"Gps","threshold":0,"ntpserver":"10.0.0.1","ptp4l":""})",
         {R"("timesource": "Gps" is not a time source of the configuration file (known: Ntp, Ptp))"}},
        {R"({"timesource":"ptp","threshold":0,"ntpserver":"10.0.0.1","ptp4l":""})",
         {R"("timesource": "ptp")"}},
        {R"({"timesource":"","threshold":0,"ntpserver":"10.0.0.1","ptp4l":""})", {R"("timesource": "")"}},
        {R"({"timesource":7,"threshold":0,"ntpserver":"10.0.0.1","ptp4l":""})",
         {R"("timesource": must be a string)"}},
        {R"({"timesource":"Ptp","threshold":-0.1,"ntpserver":"10.0.0.1","ptp4l":""})",
         {R"("threshold": must be a finite number from 0 to 429496729.5)"}},
        {R"({"timesource":"Ptp","threshold":429496729.50001,"ntpserver":"10.0.0.1","ptp4l":""})",
         {R"("threshold": must be a finite number from 0 to 429496729.5)"}},
        {R"({"timesource":"Ptp","threshold":"1","ntpserver":"10.0.0.1","ptp4l":""})",
         {R"("threshold": must be a number)"}},
        {R"({"timesource":"Ptp","threshold":true,"ntpserver":"10.0.0.1","ptp4l":""})",
         {R"("threshold": must be a number)"}},
        {R"({"timesource":"Ptp","threshold":null,"ntpserver":"10.0.0.1","ptp4l":""})",
         {R"("threshold": missing)"}},
        {R"({"timesource":"Ptp","threshold":0,"ntpserver":"10.0.0.1 iburst","ptp4l":""})",
         {R"("ntpserver": "10.0.0.1 iburst" is neither an IPv4 or IPv6 address nor a host name)"}},
        {R"({"timesource":"Ptp","threshold":0,"ntpserver":"a\nserver evil","ptp4l":""})",
         {R"("ntpserver": "a\nserver evil")"}},
        {R"({"timesource":"Ptp","threshold":0,"ntpserver":["a"],"ptp4l":""})",
         {R"("ntpserver": must be a string)"}},
        {R"({"timesource":"Ptp","threshold":0,"ntpserver":"10.0.0.1","ptp4l":"-4 -f /etc/passwd"})",
         {R"("ptp4l": "-f" is not an allowed ptp4l option)"}},
        {R"({"timesource":"Ptp","threshold":0,"ntpserver":"10.0.0.1","ptp4l":{"a":1}})",
         {R"("ptp4l": must be a string)"}},
        {R"({"timesource":"Ptp","threshold":0,"ntpserver":"10.0.0.1"})", {R"("ptp4l": missing)"}},
        {R"({"timesource":"Ptp","threshold":0,"ntpserver":"10.0.0.1","ptp4l":"","ptp":"-4"})",
         {R"("ptp": not a key of sync/param (timesource, threshold, ntpserver, ptp4l))"}},
        {R"({"timesource":"Ptp","threshold":0,"ntpserver":"10.0.0.1","ptp4l":"","\u001b[2J":1})",
         {R"("\x1b[2J": not a key)"}},
        {R"({"timesource":"Gps","threshold":-1,"ntpserver":"-v","ptp4l":"-x","extra":0})",
         {R"("extra": not a key)", R"("timesource": "Gps")", R"("threshold": must)", R"("ntpserver": "-v")",
          R"("ptp4l": "-x")"}},
        {R"([])", {"the value must be an object"}},
        {R"("Ntp")", {"the value must be an object"}},
        {R"(null)", {"the value must be an object"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.json);
        const std::string refusal = check(c.json);
        if (c.fragments.empty()) {
            EXPECT_EQ(refusal, "");
        }
        for (const std::string& fragment : c.fragments) {
            EXPECT_NE(refusal.find(fragment), std::string::npos) << refusal;
        }
        EXPECT_TRUE(std::none_of(refusal.begin(), refusal.end(), [](char ch) {
            return static_cast<unsigned char>(ch) < 0x20;
        })) << refusal;
    }
}

TEST_F(Rules, ThresholdMustBeFinite)
{
    // Not expressible in JSON text, but a value built in the program could
    // carry them.
    for (const double bad :
         {std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN()}) {
        Json::Value value = orv::services::builtinParams();
        value["threshold"] = bad;
        EXPECT_EQ(ParamRules({"Ntp", "Ptp"}, m_list).check(value),
                  R"("threshold": must be a finite number from 0 to 429496729.5)");
    }
}

TEST_F(Rules, ManyFaultsAreCountedNotListed)
{
    std::string json = R"({"timesource":"Ptp","threshold":0,"ntpserver":"10.0.0.1","ptp4l":"")";
    for (int i = 0; i < 20; ++i) {
        json += ",\"k" + std::to_string(100 + i) + "\":0";
    }
    json += "}";
    const std::string refusal = check(json);
    EXPECT_NE(refusal.find("\"k107\": not a key"), std::string::npos) << refusal;
    EXPECT_EQ(refusal.find("\"k108\""), std::string::npos) << refusal;
    EXPECT_NE(refusal.find("; and 12 more"), std::string::npos) << refusal;
}

TEST_F(Rules, WithoutTimeSourcesEveryTimeSourceIsRefused)
{
    const std::string refusal = ParamRules({}, m_list).check(orv::services::builtinParams());
    EXPECT_NE(refusal.find(
                  R"("timesource": "Ptp" is not a time source of the configuration file (it offers none))"),
              std::string::npos)
        << refusal;
}

TEST_F(Rules, ShippedParametersPassWithTheShippedConfiguration)
{
    pugi::xml_document document;
    ASSERT_TRUE(document.load_file(
        (std::string(TSD_SOURCE_DIR) + "/packaging/config/TimeSourceDaemonConfig.xml").c_str()));
    const ParamRules rules(ParamRules::timeSourcesOf(orv::tsd::ConfigDocument::read(document)), m_list);
    EXPECT_EQ(rules.timeSources(), (std::vector<std::string>{"Ntp", "Ptp"}));
    Json::Value shipped;
    std::string why;
    ASSERT_EQ(orv::services::readParamFile(std::string(TSD_SOURCE_DIR) + "/packaging/config/param.json",
                                           shipped, why),
              orv::services::ParamFileStatus::Read)
        << why;
    EXPECT_EQ(rules.check(shipped), "");
    EXPECT_EQ(rules.check(orv::services::builtinParams()), "");
}

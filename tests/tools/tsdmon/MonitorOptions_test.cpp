// The command line and where the group and port come from, limits included.
#include "MonitorOptions.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testsupport/PrivateMounts.h"

using namespace tsdmon;
using testsupport::PrivateMounts;

TEST(MonitorOptions, DefaultsWatchBothSidesFromTheDaemonsFile)
{
    const ParsedOptions parsed = parseOptions({});
    ASSERT_EQ(parsed.error, "");
    EXPECT_EQ(parsed.options.configFile, "/etc/TimeSourceDaemonConfig.xml");
    EXPECT_EQ(parsed.options.rearInterface, "firewire0");
    EXPECT_EQ(parsed.options.frontInterface, "firewire1");
    EXPECT_TRUE(parsed.options.watchRear);
    EXPECT_TRUE(parsed.options.watchFront);
    EXPECT_EQ(parsed.options.output, MonitorOptions::Output::Auto);
    EXPECT_FALSE(parsed.options.seconds);
    EXPECT_FALSE(parsed.options.port);
}

TEST(MonitorOptions, EveryOptionInBothSpellings)
{
    const ParsedOptions parsed = parseOptions({"--config", "/tmp/c.xml", "--group=239.1.2.3", "--port", "15000",
                                               "--rear=eth0", "--front", "eth1", "--side", "front", "--json",
                                               "--for=2.5"});
    ASSERT_EQ(parsed.error, "");
    EXPECT_EQ(parsed.options.configFile, "/tmp/c.xml");
    EXPECT_EQ(parsed.options.group, "239.1.2.3");
    EXPECT_EQ(parsed.options.port, 15000u);
    EXPECT_EQ(parsed.options.rearInterface, "eth0");
    EXPECT_EQ(parsed.options.frontInterface, "eth1");
    EXPECT_FALSE(parsed.options.watchRear);
    EXPECT_TRUE(parsed.options.watchFront);
    EXPECT_EQ(parsed.options.output, MonitorOptions::Output::Json);
    EXPECT_DOUBLE_EQ(*parsed.options.seconds, 2.5);
    EXPECT_TRUE(parseOptions({"--help"}).options.help);
    EXPECT_TRUE(parseOptions({"--version"}).options.version);
    EXPECT_EQ(parseOptions({"--lines"}).options.output, MonitorOptions::Output::Lines);
    EXPECT_EQ(parseOptions({"--live"}).options.output, MonitorOptions::Output::Live);
    EXPECT_FALSE(parseOptions({"--side", "rear"}).options.watchFront);
}

TEST(MonitorOptions, WrongValuesAreRefusedWithTheReason)
{
    const std::vector<std::vector<std::string>> wrong = {
        {"--port", "0"},           {"--port", "65535"},       {"--port", "14000x"},     {"--port", "-1"},
        {"--port", ""},            {"--port"},                {"--for", "0"},           {"--for", "-3"},
        {"--for", "nan"},          {"--for", "1e300"},        {"--for", "5s"},          {"--side", "left"},
        {"--rear", ""},            {"--rear", "a/b"},         {"--rear", "has space"},  {"--rear", "sixteen-chars-xx"},
        {"--front", ".."},         {"--front", "eth\x1b"},    {"--group", ""},          {"--group", "239.255.255.255.1"},
        {"--json", "--lines"},     {"--json=yes"},            {"--config", ""},         {"--bogus"},
        {"-d"},                    {"stray"},
    };
    for (const auto& args : wrong) {
        std::string shown;
        for (const std::string& arg : args)
            shown += arg + " ";
        EXPECT_NE(parseOptions(args).error, "") << shown;
    }
    EXPECT_EQ(parseOptions({"--port", "65534"}).error, "");
    EXPECT_EQ(parseOptions({"--port", "1"}).error, "");
    EXPECT_EQ(parseOptions({"--rear", "fifteen-chars-x"}).error, "");
}

TEST(MonitorOptions, GroupAndPortFromTheFileUnlessBothAreGiven)
{
    ASSERT_TRUE(PrivateMounts::active());
    const std::string dir = PrivateMounts::scratchDir("options");
    const std::string file = dir + "/config.xml";
    ASSERT_TRUE(PrivateMounts::writeFile(
        file, "<?xml version=\"1.0\"?><TimeSyncDaemon><MultiCastParam><Address>239.255.77.1</Address>"
              "<Port>14000abc</Port></MultiCastParam></TimeSyncDaemon>"));
    MonitorOptions options;
    options.configFile = file;
    std::string group;
    unsigned port = 0;
    ASSERT_EQ(resolveGroup(options, group, port), "");
    EXPECT_EQ(group, "239.255.77.1");
    EXPECT_EQ(port, 14000u);  // read as the daemon reads it: leading digits

    options.port = 15000;
    ASSERT_EQ(resolveGroup(options, group, port), "");
    EXPECT_EQ(group, "239.255.77.1");
    EXPECT_EQ(port, 15000u);

    // Both given: the file is not needed at all.
    options.configFile = dir + "/missing.xml";
    options.group = "239.1.1.1";
    ASSERT_EQ(resolveGroup(options, group, port), "");
    EXPECT_EQ(group, "239.1.1.1");

    options.group.clear();
    EXPECT_NE(resolveGroup(options, group, port).find("missing.xml"), std::string::npos);

    ASSERT_TRUE(PrivateMounts::writeFile(file, "<TimeSyncDaemon><MultiCastParam><Address>"));
    options.configFile = file;
    EXPECT_NE(resolveGroup(options, group, port), "");

    ASSERT_TRUE(PrivateMounts::writeFile(file, "<TimeSyncDaemon><MultiCastParam><Port>14000</Port>"
                                               "</MultiCastParam></TimeSyncDaemon>"));
    options.port.reset();
    EXPECT_NE(resolveGroup(options, group, port).find("no multicast group"), std::string::npos);

    ASSERT_TRUE(PrivateMounts::writeFile(file, "<TimeSyncDaemon><MultiCastParam><Address>239.1.1.1</Address>"
                                               "<Port>65535</Port></MultiCastParam></TimeSyncDaemon>"));
    EXPECT_NE(resolveGroup(options, group, port).find("no usable port"), std::string::npos);
}

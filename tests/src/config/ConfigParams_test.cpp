#include "config/ConfigParams.h"

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include "../../platform/Sandbox.h"
#include "testsupport/PrivateMounts.h"
#include "testsupport/SyslogCapture.h"

// Every test runs in a forked child (orvtest::runIsolated), so that each one
// meets a ConfigParams that has not been built yet.

using orv::tsd::FRONT_FW;
using orv::tsd::REAR_FW;
using orvtest::runIsolated;
using testsupport::PrivateMounts;
using testsupport::SyslogCapture;

namespace {

const char kEtcFile[] = "/etc/TimeSourceDaemonConfig.xml";

std::string configXml(const std::string& port, const std::string& levels = "")
{
    return "<?xml version=\"1.0\"?>\n<TimeSyncDaemon>\n"
           "  <MultiCastParam><Address>239.1.2.3</Address><Port>" +
           port + "</Port></MultiCastParam>\n  <PrioLevel>\n" + levels +
           "  </PrioLevel>\n</TimeSyncDaemon>\n";
}

// A working directory of the child's own, holding the fallback file if any.
void enterWorkingDirectory(const std::string& fallback)
{
    const std::string dir = PrivateMounts::scratchDir("cwd");
    ASSERT_EQ(::chdir(dir.c_str()), 0);
    if (!fallback.empty()) {
        ASSERT_TRUE(PrivateMounts::writeFile(dir + "/TimeSourceDaemonConfig.xml", fallback));
    }
}

void prepareEtc(const std::string* content)
{
    ASSERT_TRUE(PrivateMounts::shadow("/etc"));
    if (content != nullptr) {
        ASSERT_TRUE(PrivateMounts::writeFile(kEtcFile, *content));
    } else {
        ASSERT_TRUE(PrivateMounts::removeEntry(kEtcFile));
    }
}

}  // namespace

TEST(ConfigParams, EtcFileWinsOverWorkingDirectory)
{
    runIsolated([] {
        const std::string etc = configXml("4000",
                                          "<ModuleType><KP>20</KP><RZ>10</RZ></ModuleType>"
                                          "<TimeSource><Ptp>2</Ptp><Ntp>1</Ntp></TimeSource>\n");
        prepareEtc(&etc);
        enterWorkingDirectory(configXml("5000"));
        SyslogCapture capture;
        const ConfigParams& params = ConfigParams::instance();
        EXPECT_EQ(params.getMulticastAddress(), "239.1.2.3");
        EXPECT_EQ(params.getMulticastPort(REAR_FW), 4000u);
        EXPECT_EQ(params.getMulticastPort(FRONT_FW), 4001u);
        EXPECT_EQ(params.getMulticastPort(static_cast<orv::tsd::interface_t>(7)), 4001u);
        EXPECT_EQ(params.getPrioLevel("KP"), 20u);
        EXPECT_EQ(params.getPrioLevel("RZ"), 10u);
        EXPECT_EQ(params.getPrioLevel("Ptp"), 2u);
        EXPECT_EQ(params.getPrioLevel("Ntp"), 1u);
        EXPECT_EQ(params.getPrioLevel("ptp"), 0u) << "names are case-sensitive";

        std::vector<std::string> expected = {
            "APPLICATION NAME : TimeSyncDaemon", " MULTICAST ADDRESS : 239.1.2.3",
            " MULTICAST PORT    : 4000 ",        "PRIO TYPE [NAME/LEVEL] : KP / 20 ",
            "PRIO TYPE [NAME/LEVEL] : RZ / 10 ", "PRIO TYPE [NAME/LEVEL] : Ptp / 2 ",
            "PRIO TYPE [NAME/LEVEL] : Ntp / 1 "};
        const auto& lines = capture.lines();
        ASSERT_EQ(lines.size(), expected.size()) << capture.dump();
        for (std::size_t i = 0; i < expected.size(); ++i) {
            EXPECT_EQ(lines[i].text, expected[i]);
            EXPECT_EQ(lines[i].priority, LOG_DEBUG) << expected[i];
        }
    });
}

TEST(ConfigParams, MalformedEtcFileMakesWorkingDirectoryFileBeUsed)
{
    runIsolated([] {
        const std::string broken = "<TimeSyncDaemon><MultiCastParam><Port>4000</Port>";
        prepareEtc(&broken);
        enterWorkingDirectory(configXml("5000"));
        SyslogCapture capture;
        EXPECT_EQ(ConfigParams::instance().getMulticastPort(REAR_FW), 5000u);
        EXPECT_EQ(capture.countText("Missing configuration file TimeSourceDaemonConfig.xml"), 0u);
    });
}

TEST(ConfigParams, MissingEtcFileMakesWorkingDirectoryFileBeUsed)
{
    runIsolated([] {
        prepareEtc(nullptr);
        enterWorkingDirectory(configXml("5000"));
        EXPECT_EQ(ConfigParams::instance().getMulticastPort(FRONT_FW), 5001u);
    });
}

TEST(ConfigParams, WithoutAnyFileEveryGetterGivesDefaultAndOneErrorIsLogged)
{
    runIsolated([] {
        prepareEtc(nullptr);
        enterWorkingDirectory("");
        SyslogCapture capture;
        const ConfigParams& params = ConfigParams::instance();
        EXPECT_EQ(params.getMulticastAddress(), "");
        EXPECT_EQ(params.getMulticastPort(REAR_FW), 0u);
        EXPECT_EQ(params.getMulticastPort(FRONT_FW), 1u);
        EXPECT_EQ(params.getPrioLevel("KP"), 0u);
        ASSERT_EQ(capture.lines().size(), 1u) << capture.dump();
        EXPECT_EQ(capture.lines()[0].priority, LOG_ERR);
        EXPECT_EQ(capture.lines()[0].text, "Missing configuration file TimeSourceDaemonConfig.xml");
    });
}

TEST(ConfigParams, MalformedFilesEverywhereGiveDefaults)
{
    runIsolated([] {
        const std::string noise = std::string("\xff\xfe<<>>\0garbage", 14);
        prepareEtc(&noise);
        enterWorkingDirectory("<TimeSyncDaemon>");
        SyslogCapture capture;
        EXPECT_EQ(ConfigParams::instance().getMulticastAddress(), "");
        EXPECT_EQ(capture.count(LOG_ERR, "Missing configuration file TimeSourceDaemonConfig.xml"), 1u);
    });
}

TEST(ConfigParams, LevelTextsConvertLikeStrtoul)
{
    runIsolated([] {
        const std::string etc = configXml("4000",
                                          "<ModuleType><KP>7abc</KP><RZ></RZ><XX>0</XX><YY>abc</YY>"
                                          "<ZZ> 12</ZZ></ModuleType>\n");
        prepareEtc(&etc);
        SyslogCapture capture;
        const ConfigParams& params = ConfigParams::instance();
        EXPECT_EQ(params.getPrioLevel("KP"), 7u);
        EXPECT_EQ(params.getPrioLevel("RZ"), 0u);
        EXPECT_EQ(params.getPrioLevel("XX"), 0u);
        EXPECT_EQ(params.getPrioLevel("never"), params.getPrioLevel("XX"));
        EXPECT_EQ(params.getPrioLevel("YY"), 0u);
        EXPECT_EQ(params.getPrioLevel("ZZ"), 12u) << "strtoul skips leading blanks";
        // The level is logged as it stands, not as converted.
        EXPECT_EQ(capture.count(LOG_DEBUG, "PRIO TYPE [NAME/LEVEL] : KP / 7abc "), 1u) << capture.dump();
        EXPECT_EQ(capture.count(LOG_DEBUG, "PRIO TYPE [NAME/LEVEL] : RZ /  "), 1u);
    });
}

TEST(ConfigParams, NameGivenTwiceKeepsItsLastLevel)
{
    runIsolated([] {
        const std::string etc = configXml("4000",
                                          "<ModuleType><Ptp>9</Ptp><RZ>3</RZ><RZ>4</RZ></ModuleType>"
                                          "<TimeSource><Ptp>2</Ptp></TimeSource>\n");
        prepareEtc(&etc);
        const ConfigParams& params = ConfigParams::instance();
        EXPECT_EQ(params.getPrioLevel("RZ"), 4u);
        EXPECT_EQ(params.getPrioLevel("Ptp"), 2u);
    });
}

TEST(ConfigParams, WrongAndMissingValuesGiveEmptyAndZeroSilently)
{
    runIsolated([] {
        const std::string etc = "<Other><TimeSyncDaemon/></Other>";
        prepareEtc(&etc);
        SyslogCapture capture;
        const ConfigParams& params = ConfigParams::instance();
        EXPECT_EQ(params.getMulticastAddress(), "");
        EXPECT_EQ(params.getMulticastPort(REAR_FW), 0u);
        EXPECT_EQ(params.getPrioLevel("KP"), 0u);
        // The root element need not be the expected one for its name to be logged.
        EXPECT_EQ(capture.count(LOG_DEBUG, "APPLICATION NAME : Other"), 1u) << capture.dump();
        EXPECT_EQ(capture.count(LOG_DEBUG, " MULTICAST ADDRESS : "), 1u);
        EXPECT_EQ(capture.count(LOG_DEBUG, " MULTICAST PORT    : 0 "), 1u);
        EXPECT_EQ(capture.lines().size(), 3u);
    });
}

TEST(ConfigParams, NonNumericPortGivesZero)
{
    runIsolated([] {
        const std::string etc = configXml("port");
        prepareEtc(&etc);
        EXPECT_EQ(ConfigParams::instance().getMulticastPort(REAR_FW), 0u);
        EXPECT_EQ(ConfigParams::instance().getMulticastPort(FRONT_FW), 1u);
    });
}

TEST(ConfigParams, AddPrioLevelLogsStoresAndReturnsTheNumber)
{
    runIsolated([] {
        prepareEtc(nullptr);
        enterWorkingDirectory("");
        ConfigParams& params = ConfigParams::instance();
        SyslogCapture capture;
        EXPECT_EQ(params.addPrioLevel("Gps", "42x"), 42u);
        EXPECT_EQ(params.getPrioLevel("Gps"), 42u);
        EXPECT_EQ(params.addPrioLevel("Gps", "3"), 3u);
        EXPECT_EQ(params.getPrioLevel("Gps"), 3u);
        EXPECT_EQ(capture.count(LOG_DEBUG, "PRIO TYPE [NAME/LEVEL] : Gps / 42x "), 1u) << capture.dump();
    });
}

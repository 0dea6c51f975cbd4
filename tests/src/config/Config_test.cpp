#include "config/Config.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if_arp.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>

#include <orv/communication/Netadapter.h>

#include "../../platform/Sandbox.h"
#include "testsupport/PrivateMounts.h"
#include "testsupport/StreamCapture.h"
#include "testsupport/SyslogCapture.h"

// Every test runs in a forked child with its own network and mount
// namespaces (orvtest::runIsolated): its own interfaces, sysfs, device tree,
// configuration and environment, and a Config that has not been built yet.

namespace orv::tsd {
class ConfigTestAccess
{
public:
    static void setGateway(Config& config, bool on) { config.m_isKPModule = on; }
    static const std::string& frontName(const Config& config) { return config.m_frontInterfaceName; }
};
}  // namespace orv::tsd

using orv::tsd::Config;
using orv::tsd::ConfigTestAccess;
using orv::tsd::FRONT_FW;
using orv::tsd::REAR_FW;
using orvtest::runIsolated;
using testsupport::PrivateMounts;
using testsupport::StreamCapture;
using testsupport::SyslogCapture;

namespace {

const char kLevels[] =
    "<?xml version=\"1.0\"?><TimeSyncDaemon><MultiCastParam><Address>239.1.2.3</Address>"
    "<Port>4000</Port></MultiCastParam><PrioLevel><ModuleType><KP>20</KP><RZ>10</RZ></ModuleType>"
    "<TimeSource><Ptp>2</Ptp></TimeSource></PrioLevel></TimeSyncDaemon>";

// Files the identity is read from, in the child's own mount namespace.
void prepare(const std::string& moduleType, const char* uuid, const std::string& config = kLevels)
{
    ASSERT_TRUE(PrivateMounts::shadow("/etc"));
    ASSERT_TRUE(PrivateMounts::writeFile("/etc/TimeSourceDaemonConfig.xml", config));
    if (moduleType.empty()) {
        ASSERT_TRUE(PrivateMounts::shadow("/proc"));
        ASSERT_TRUE(PrivateMounts::removeModuleType());
    } else {
        ASSERT_TRUE(PrivateMounts::setModuleType(moduleType));
    }
    if (uuid != nullptr)
        ::setenv("UUID", uuid, 1);
    else
        ::unsetenv("UUID");
}

std::string nodeAddress(unsigned low24)
{
    char text[32];
    std::snprintf(text, sizeof text, "00:0a:7c:31:00:%02x:%02x:%02x", (low24 >> 16) & 0xFF,
                  (low24 >> 8) & 0xFF, low24 & 0xFF);
    return text;
}

// A FireWire-typed interface with the given low node-id bits and, unless
// empty, an IPv4 address.
std::unique_ptr<orvtest::Tap> firewire(const std::string& name, unsigned low24, const std::string& address)
{
    auto tap = std::make_unique<orvtest::Tap>(name, ARPHRD_IEEE1394);
    EXPECT_TRUE(orvtest::overlayFile("/sys/class/net/" + name + "/address", nodeAddress(low24) + "\n"));
    if (!address.empty()) {
        EXPECT_TRUE(orvtest::run("ip addr add " + address + "/24 dev " + name));
    }
    return tap;
}

}  // namespace

TEST(Config, WithoutUuidTheUuidIsZeroAndZeroNodeBitsClassifyRear)
{
    runIsolated([] {
        prepare("RZ", nullptr);
        auto rear = firewire("firewire0", 0x000000, "169.254.1.1");
        auto other = firewire("firewire1", 0x000001, "169.254.2.1");
        SyslogCapture capture;
        const Config& config = Config::instance();
        EXPECT_EQ(config.getUuid(), 0u);
        EXPECT_EQ(config.getUuidAsOnLabel(), "");
        EXPECT_EQ(capture.count(LOG_INFO, "uuid: "), 1u) << capture.dump();
        EXPECT_EQ(config.getRearInterfaceName(), "firewire0");
        EXPECT_EQ(config.getInterfaceAddress(REAR_FW), "169.254.1.1");
        EXPECT_EQ(config.getInterfaceAddress(FRONT_FW), "169.254.2.1");
    });
}

TEST(Config, UuidTextAbGivesValue171AndUpperCaseLabel)
{
    runIsolated([] {
        prepare("RZ", "ab");
        SyslogCapture capture;
        const Config& config = Config::instance();
        EXPECT_EQ(config.getUuid(), 171u);
        EXPECT_EQ(config.getUuidAsOnLabel(), "0A7C31AB");
        EXPECT_EQ(capture.count(LOG_INFO, "uuid: 0A7C31AB"), 1u) << capture.dump();
    });
}

TEST(Config, UuidParsingIgnoresTrailingNonHex)
{
    runIsolated([] {
        prepare("RZ", "12cdEFxyz");
        const Config& config = Config::instance();
        EXPECT_EQ(config.getUuid(), 0x12CDEFu);
        EXPECT_EQ(config.getUuidAsOnLabel(), "0A7C3112CDEFXYZ");
    });
}

TEST(Config, GatewayTypeGetsKpLevelAndStillReportsNoGateway)
{
    runIsolated([] {
        prepare("KP40", "123456");
        SyslogCapture capture;
        const Config& config = Config::instance();
        EXPECT_EQ(config.getModulePrio(), 20u);
        EXPECT_FALSE(config.IsKPModule());
        EXPECT_EQ(capture.count(LOG_INFO, "MOD_PRIO : 20"), 1u) << capture.dump();
        // No front interface, yet no front error: the gateway flag is off.
        EXPECT_EQ(capture.countText("error detecting front side firewire interface"), 0u);
    });
}

TEST(Config, OtherTypeGetsRzLevel)
{
    runIsolated([] {
        prepare("KP4", "123456");
        SyslogCapture capture;
        EXPECT_EQ(Config::instance().getModulePrio(), 10u);
        EXPECT_EQ(capture.count(LOG_INFO, "MOD_PRIO : 10"), 1u) << capture.dump();
    });
}

TEST(Config, TypeAbsentFromConfigurationGivesPriorityZero)
{
    runIsolated([] {
        prepare(
            "RZ", "1",
            "<TimeSyncDaemon><PrioLevel><ModuleType><KP>20</KP></ModuleType></PrioLevel></TimeSyncDaemon>");
        SyslogCapture capture;
        EXPECT_EQ(Config::instance().getModulePrio(), 0u);
        EXPECT_EQ(capture.count(LOG_INFO, "MOD_PRIO : 0"), 1u) << capture.dump();
    });
}

TEST(Config, MissingModuleTypeIsLoggedAndTreatedAsOtherType)
{
    runIsolated([] {
        prepare("", "1");
        SyslogCapture capture;
        EXPECT_EQ(Config::instance().getModulePrio(), 10u);
        EXPECT_EQ(capture.count(LOG_ERR, "/proc/device-tree/stratova/moduletype does not exist"), 1u)
            << capture.dump();
    });
}

TEST(Config, EmptyModuleTypeIsLogged)
{
    runIsolated([] {
        prepare("RZ", "1");
        ASSERT_TRUE(PrivateMounts::writeFile("/proc/device-tree/stratova/moduletype", std::string(1, '\0')));
        SyslogCapture capture;
        EXPECT_EQ(Config::instance().getModulePrio(), 10u);
        EXPECT_EQ(capture.count(LOG_ERR, "/proc/device-tree/stratova/moduletype is empty"), 1u)
            << capture.dump();
    });
}

TEST(Config, GatewayTypeNeedsExactText)
{
    runIsolated([] {
        prepare("RZ", "1");
        // A newline ends the line read; what follows the type does not count.
        ASSERT_TRUE(PrivateMounts::writeFile("/proc/device-tree/stratova/moduletype", "KP40\nxx"));
        EXPECT_EQ(Config::instance().getModulePrio(), 20u);
    });
}

TEST(Config, WithoutAdaptersBothAddressesAreEmptyAndRearErrorIsLogged)
{
    runIsolated([] {
        prepare("RZ", "123456");
        SyslogCapture capture;
        StreamCapture err(STDERR_FILENO);
        const Config& config = Config::instance();
        const std::string errors = err.text();
        EXPECT_EQ(config.getInterfaceAddress(REAR_FW), "");
        EXPECT_EQ(config.getInterfaceAddress(FRONT_FW), "");
        EXPECT_EQ(config.getRearInterfaceName(), "");
        EXPECT_EQ(capture.count(LOG_ERR, "error detecting back side firewire interface"), 1u)
            << capture.dump();
        EXPECT_EQ(errors,
                  " TSD Config this adapter does not exist: firewire0\n"
                  " TSD Config this adapter does not exist: firewire1\n");
    });
}

TEST(Config, RearAndFrontFollowTheNodeIdAndRearIsEchoedOnStderr)
{
    runIsolated([] {
        prepare("RZ", "123456");
        auto rear = firewire("firewire0", 0x123456, "169.254.1.5");
        auto front = firewire("firewire1", 0x923456, "169.254.2.5");
        SyslogCapture capture;
        StreamCapture err(STDERR_FILENO);
        const Config& config = Config::instance();
        const std::string errors = err.text();
        EXPECT_EQ(config.getRearInterfaceName(), "firewire0");
        EXPECT_EQ(config.getInterfaceAddress(REAR_FW), "169.254.1.5");
        EXPECT_EQ(config.getInterfaceAddress(FRONT_FW), "169.254.2.5");
        EXPECT_EQ(ConfigTestAccess::frontName(config), "firewire1");
        EXPECT_EQ(errors, " TSD m_rearInterfaceAddress 169.254.1.5\n TSD m_rearInterfaceName firewire0\n");
        EXPECT_EQ(capture.countText("error detecting back side firewire interface"), 0u);
    });
}

TEST(Config, NamesDoNotDecideTheSide)
{
    runIsolated([] {
        prepare("RZ", "123456");
        auto first = firewire("firewire0", 0x000001, "169.254.1.5");
        auto second = firewire("firewire1", 0x123456, "169.254.2.5");
        StreamCapture err(STDERR_FILENO);
        const Config& config = Config::instance();
        EXPECT_EQ(err.text(), "") << "only a rear firewire0 is echoed";
        EXPECT_EQ(config.getRearInterfaceName(), "firewire1");
        EXPECT_EQ(config.getInterfaceAddress(REAR_FW), "169.254.2.5");
        EXPECT_EQ(config.getInterfaceAddress(FRONT_FW), "169.254.1.5");
    });
}

TEST(Config, WhenBothClassifyAlikeTheLaterOverwrites)
{
    runIsolated([] {
        prepare("RZ", "123456");
        auto first = firewire("firewire0", 0x000001, "169.254.1.5");
        auto second = firewire("firewire1", 0x000002, "169.254.2.5");
        SyslogCapture capture;
        const Config& config = Config::instance();
        EXPECT_EQ(config.getInterfaceAddress(FRONT_FW), "169.254.2.5");
        EXPECT_EQ(ConfigTestAccess::frontName(config), "firewire1");
        EXPECT_EQ(config.getInterfaceAddress(REAR_FW), "");
        EXPECT_EQ(capture.count(LOG_ERR, "error detecting back side firewire interface"), 1u);
    });
}

TEST(Config, AdapterWithoutIpv4AddressLeavesAddressEmpty)
{
    runIsolated([] {
        prepare("RZ", "123456");
        auto rear = firewire("firewire0", 0x123456, "");
        SyslogCapture capture;
        const Config& config = Config::instance();
        EXPECT_EQ(config.getRearInterfaceName(), "firewire0");
        EXPECT_EQ(config.getInterfaceAddress(REAR_FW), "");
        EXPECT_EQ(capture.count(LOG_ERR, "error detecting back side firewire interface"), 1u);
    });
}

TEST(Config, SideTwoGivesTheRearAddress)
{
    runIsolated([] {
        prepare("RZ", "123456");
        auto rear = firewire("firewire0", 0x123456, "169.254.1.5");
        auto front = firewire("firewire1", 0x000001, "169.254.2.5");
        EXPECT_EQ(Config::instance().getInterfaceAddress(static_cast<orv::tsd::interface_t>(2)),
                  "169.254.1.5");
    });
}

TEST(Config, NonFirewireAdapterIsFrontUnlessNamedEth0)
{
    runIsolated([] {
        prepare("RZ", "123456");
        const Config& config = Config::instance();
        orv::communication::Netadapter eth;
        eth.setName("eth0");
        EXPECT_FALSE(config.isFront(eth));
        eth.setName("eth1");
        EXPECT_TRUE(config.isFront(eth));
        orv::communication::Netadapter fw;
        fw.setName("eth0");
        fw.setLinkType(ARPHRD_IEEE1394);
        fw.setFirewireNodeId(0x000A7C3100123456ULL);
        EXPECT_FALSE(config.isFront(fw));
        fw.setFirewireNodeId(0x000A7C3100123457ULL);
        EXPECT_TRUE(config.isFront(fw));
        // Only the low 24 bits count.
        fw.setFirewireNodeId(0xFFFFFFFFFF123456ULL);
        EXPECT_FALSE(config.isFront(fw));
    });
}

TEST(Config, TestAccessCanForceGatewayFlag)
{
    runIsolated([] {
        prepare("RZ", "1");
        Config& config = Config::instance();
        ConfigTestAccess::setGateway(config, true);
        EXPECT_TRUE(config.IsKPModule());
        ConfigTestAccess::setGateway(config, false);
    });
}

#include <gtest/gtest.h>
#include <syslog.h>

#include <fstream>
#include <sstream>

#include "testsupport/PrivateMounts.h"
#include "testsupport/SyslogCapture.h"

using testsupport::PrivateMounts;
using testsupport::SyslogCapture;

namespace {
std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}
}  // namespace

TEST(PrivateMounts, ShadowedEtcKeepsOtherFilesAndTakesNewOnes)
{
    ASSERT_TRUE(PrivateMounts::shadow("/etc"));
    ASSERT_TRUE(PrivateMounts::writeFile("/etc/TimeSourceDaemonConfig.xml", "<x/>"));
    EXPECT_EQ(readFile("/etc/TimeSourceDaemonConfig.xml"), "<x/>");
    EXPECT_NE(readFile("/etc/passwd").find("root:"), std::string::npos);
    ASSERT_TRUE(PrivateMounts::removeEntry("/etc/TimeSourceDaemonConfig.xml"));
    EXPECT_FALSE(std::ifstream("/etc/TimeSourceDaemonConfig.xml").good());
}

TEST(PrivateMounts, ModuleTypeAppearsInProcWithItsNul)
{
    ASSERT_TRUE(PrivateMounts::setModuleType("KP40"));
    EXPECT_EQ(readFile("/proc/device-tree/stratova/moduletype"), std::string("KP40\0", 5));
    // The rest of /proc still works, per process.
    EXPECT_NE(readFile("/proc/self/status").find("Name:"), std::string::npos);
    ASSERT_TRUE(PrivateMounts::removeModuleType());
    EXPECT_FALSE(std::ifstream("/proc/device-tree/stratova/moduletype").good());
}

TEST(SyslogCapture, SeesTextAndPriorityOfManyLines)
{
    SyslogCapture capture;
    for (int i = 0; i < 100; ++i)
        syslog(LOG_DEBUG, "line %d ", i);
    syslog(LOG_ERR, "%s does not exist", "/x");
    EXPECT_EQ(capture.count(LOG_DEBUG, "line 99 "), 1u);
    EXPECT_EQ(capture.count(LOG_ERR, "/x does not exist"), 1u);
    EXPECT_EQ(capture.count(LOG_INFO, "/x does not exist"), 0u);
    EXPECT_EQ(capture.lines().size(), 101u);
    EXPECT_EQ(capture.lines().front().facility, LOG_USER);
}

// The NTP server rule: the shared table that the NTP start script is checked
// against too, and the edges of the rule.
#include <gtest/gtest.h>

#include "CaseTable.h"
#include "NtpServer.h"

using orv::services::isNtpServer;

TEST(NtpServer, SharedTableOfValues)
{
    const auto cases =
        servicetest::readCaseTable(std::string(TSD_SOURCE_DIR) + "/tests/data/ntp-server-cases", false);
    ASSERT_GE(cases.size(), 30u);
    for (const auto& c : cases) {
        EXPECT_EQ(isNtpServer(c.value), c.accept) << "ntp-server-cases line " << c.line;
    }
}

TEST(NtpServer, EdgesOfTheRule)
{
    const std::string label63(63, 'a');
    const std::vector<std::pair<std::string, bool>> cases = {
        {"a", true},
        {"a.", true},
        {".", false},
        {"a..", false},
        {"1-2", true},
        {"a-", false},
        {label63 + ".b", true},
        {label63 + "a.b", false},
        {"::", true},
        {"0:0:0:0:0:ffff:255.255.255.255", true},
        {"0000:0000:0000:0000:0000:ffff:255.255.255.255", true},
        {"0000:0000:0000:0000:0000:ffff:255.255.255.2555", false},
        {"1.2.3.4 ", false},
        {"fe80::1/64", false},
        {std::string("a\0b", 3), false},
        {"ntp.example\n", false},
    };
    for (const auto& [text, ok] : cases) {
        EXPECT_EQ(isNtpServer(text), ok) << text;
    }
}

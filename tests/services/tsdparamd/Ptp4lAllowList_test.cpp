// The ptp4l allow-list: the shipped list, the shared table of values that
// the PTP start script is checked against too, and the list's own format.
#include <gtest/gtest.h>

#include <fstream>

#include "CaseTable.h"
#include "Ptp4lAllowList.h"
#include "testsupport/PrivateMounts.h"

using orv::services::Ptp4lAllowList;
using Argument = orv::services::Ptp4lAllowList::Argument;

namespace {

const std::string kShippedList = std::string(TSD_SOURCE_DIR) + "/packaging/config/ptp4l-options";
const std::string kCases = std::string(TSD_SOURCE_DIR) + "/tests/data/ptp4l-option-cases";

Ptp4lAllowList shipped()
{
    Ptp4lAllowList list;
    std::string error;
    EXPECT_TRUE(list.load(kShippedList, error)) << error;
    return list;
}

bool names(const std::string& refusal, const std::string& token)
{
    return refusal.find("\"" + token + "\"") != std::string::npos;
}

}  // namespace

TEST(Ptp4lAllowList, ShippedListLoads)
{
    const Ptp4lAllowList list = shipped();
    EXPECT_TRUE(list.usable());
    EXPECT_GE(list.size(), 40u);
}

TEST(Ptp4lAllowList, SharedTableOfValues)
{
    const Ptp4lAllowList list = shipped();
    const auto cases = servicetest::readCaseTable(kCases, true);
    ASSERT_GE(cases.size(), 50u);
    for (const auto& c : cases) {
        SCOPED_TRACE("ptp4l-option-cases line " + std::to_string(c.line));
        const std::string refusal = list.check(c.value);
        if (c.accept) {
            EXPECT_EQ(refusal, "");
        } else {
            EXPECT_TRUE(names(refusal, c.token))
                << "refusal '" << refusal << "' does not name \"" << c.token << "\"";
        }
    }
}

TEST(Ptp4lAllowList, MoreValues)
{
    const Ptp4lAllowList list = shipped();
    struct Case
    {
        std::string value;
        std::string token;  // empty: accepted
    };
    const std::vector<Case> cases = {
        {"--priority1 128 --priority2=7 -i firewire0 -i firewire1", ""},
        {"--slaveOnly=1", ""},
        {"--step_threshold=-0.000000001", ""},
        {"--logSyncInterval=-123456789", ""},
        {"--logSyncInterval=-1234567890", "--logSyncInterval=-1234567890"},
        {"--delay_filter_length 999999999", ""},
        {"--clock_servo " + std::string(32, 'w'), ""},
        {"--clock_servo " + std::string(33, 'w'), std::string(33, 'w')},
        {"--clock_servo _pi", "_pi"},
        {"   ", ""},
        {"\t", ""},
        {"foo", "foo"},
        {"-4 /etc/passwd", "/etc/passwd"},
        {"-4 -- -f", "--"},
        {"-i firewire0 -f", "-f"},
        {"-m=1", "-m=1"},
        {"-4 -l 7 7", "7"},
        {"--priority1 -1", "-1"},
        {"--priority1=128=1", "--priority1=128=1"},
        {"--free_running", "--free_running"},
        {"-i eth0 \x7f", "\\x7f"},
        {"-i eth0\x1b[2J", "\\x1b"},
        {"-4 \\", "\\\\"},
        {"-i " + std::string(100, 'x'), std::string(64, 'x') + "..."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.value);
        const std::string refusal = list.check(c.value);
        if (c.token.empty()) {
            EXPECT_EQ(refusal, "");
        } else {
            EXPECT_TRUE(names(refusal, c.token)) << refusal;
        }
    }
}

TEST(Ptp4lAllowList, ValueLengthIsBounded)
{
    const Ptp4lAllowList list = shipped();
    std::string value;
    while (value.size() + 3 <= Ptp4lAllowList::kMaxValueBytes) {
        value += "-4 ";
    }
    EXPECT_EQ(list.check(value), "");
    value.append(Ptp4lAllowList::kMaxValueBytes + 1 - value.size(), ' ');
    value += "-4";
    EXPECT_NE(list.check(value).find("longer than 1024 bytes"), std::string::npos);
}

TEST(Ptp4lAllowList, ArgumentKinds)
{
    struct Case
    {
        Argument kind;
        const char* text;
        bool ok;
    };
    const std::vector<Case> cases = {
        {Argument::Interface, "firewire0", true},
        {Argument::Interface, "eth0.100", true},
        {Argument::Interface, "a_b-c", true},
        {Argument::Interface, "", false},
        {Argument::Interface, "-eth0", false},
        {Argument::Interface, "eth/0", false},
        {Argument::Interface, "eth,0", false},
        {Argument::Interface, "abcdefghijklmno", true},
        {Argument::Interface, "abcdefghijklmnop", false},
        {Argument::Unsigned, "0", true},
        {Argument::Unsigned, "123456789", true},
        {Argument::Unsigned, "1234567890", false},
        {Argument::Unsigned, "-1", false},
        {Argument::Unsigned, "", false},
        {Argument::Unsigned, "1a", false},
        {Argument::Integer, "-5", true},
        {Argument::Integer, "-", false},
        {Argument::Integer, "--5", false},
        {Argument::Integer, "+5", false},
        {Argument::Number, "0.5", true},
        {Argument::Number, "-12.000000001", true},
        {Argument::Number, "12.", false},
        {Argument::Number, ".5", false},
        {Argument::Number, "1.2.3", false},
        {Argument::Number, "1e3", false},
        {Argument::Number, "1.1234567890", false},
        {Argument::Word, "E2E", true},
        {Argument::Word, "linreg", true},
        {Argument::Word, "9x", false},
        {Argument::Word, "soft-ware", false},
        {Argument::None, "x", false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Ptp4lAllowList::matches(c.kind, c.text), c.ok) << static_cast<int>(c.kind) << " " << c.text;
    }
}

TEST(Ptp4lAllowList, ListFormatErrorsNameTheLine)
{
    struct Case
    {
        std::string text;
        std::string error;
    };
    const std::vector<Case> cases = {
        {"-4\n-i interface\n-x colour\n", "line 3: unknown argument kind \"colour\""},
        {"-4 unsigned extra\n", "line 1: not an option and an argument kind"},
        {"# fine\n\ni interface\n", "line 3: not an option"},
        {"-44\n", "line 1: not an option"},
        {"--1x unsigned\n", "line 1: not an option"},
        {"--a/b\n", "line 1: not an option"},
        {"-4\n-4\n", "line 2: option \"-4\" listed twice"},
        {"-4\x01\n", "line 1: bytes outside printable ASCII"},
        {"# nothing but comments\n\n", "no options listed"},
        {"", "no options listed"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        Ptp4lAllowList list;
        std::string error;
        EXPECT_FALSE(list.parse(c.text, error));
        EXPECT_FALSE(list.usable());
        EXPECT_NE(error.find(c.error), std::string::npos) << error;
    }
    Ptp4lAllowList list;
    std::string error;
    EXPECT_TRUE(list.parse("  # indented comment\n\t-4\n--priority1\tunsigned\n", error)) << error;
    EXPECT_EQ(list.check("-4 --priority1=3"), "");
}

TEST(Ptp4lAllowList, UnusableListRefusesEveryNonEmptyValue)
{
    Ptp4lAllowList list;
    std::string error;
    EXPECT_FALSE(list.load("/nonexistent/ptp4l-options", error));
    EXPECT_NE(error.find("No such file or directory"), std::string::npos) << error;
    EXPECT_EQ(list.check(""), "");
    EXPECT_EQ(list.check("  "), "");
    EXPECT_NE(list.check("-4").find("allow-list could not be loaded"), std::string::npos);
    // Control bytes are still named as such.
    EXPECT_TRUE(names(list.check("-4\n-f"), "\\n"));

    const std::string big = testsupport::PrivateMounts::scratchDir("allow-list") + "/big";
    std::ofstream(big) << std::string(Ptp4lAllowList::kMaxFileBytes + 1, '#');
    EXPECT_FALSE(list.load(big, error));
    EXPECT_NE(error.find("larger than 65536 bytes"), std::string::npos) << error;
    EXPECT_FALSE(list.usable());
}

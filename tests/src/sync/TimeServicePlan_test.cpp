// The decisions behind applying an election result, from tables of cases.
#include "sync/TimeServicePlan.h"

#include <gtest/gtest.h>

using namespace orv::tsd;

namespace {

constexpr unsigned kNtp = 1;
constexpr unsigned kPtp = 2;
constexpr unsigned kOther = 3;

TimeServiceInput input(bool server, unsigned level, bool ntpRunning, bool ptpRunning, bool rearChanged)
{
    TimeServiceInput in;
    in.isServer = server;
    in.ownLevel = level;
    in.ntpLevel = kNtp;
    in.ptpLevel = kPtp;
    in.ntpRunning = ntpRunning;
    in.ptpRunning = ptpRunning;
    in.rearChanged = rearChanged;
    return in;
}

}  // namespace

TEST(TimeServicePlan, SideWithOnlyThisModuleIsAloneEvenWhenItIsTheHighest)
{
    EXPECT_EQ(sideStatus(1, 0x10, 0x10), SYNC_ALONE);
    EXPECT_EQ(sideStatus(0, 0x10, 0x10), SYNC_ALONE);
    EXPECT_EQ(sideStatus(1, 0x10, 0x20), SYNC_ALONE);
}

TEST(TimeServicePlan, OwnHighestIsMasterForeignHighestIsSlave)
{
    EXPECT_EQ(sideStatus(2, 0x10, 0x10), SYNC_MASTER);
    EXPECT_EQ(sideStatus(3, 0x10, 0x20), SYNC_SLAVE);
}

TEST(TimeServicePlan, NonGatewayServesWhenRearMasterWhateverTheFront)
{
    EXPECT_TRUE(isTimeServer(false, 0x10, 0x10, 0x99));
    EXPECT_TRUE(isTimeServer(false, 0x10, 0x10, 0));
    // Master on its front side only: not a time server.
    EXPECT_FALSE(isTimeServer(false, 0x10, 0x99, 0x10));
}

TEST(TimeServicePlan, GatewayServesOnlyWhenMasterOnBothSides)
{
    EXPECT_TRUE(isTimeServer(true, 0x10, 0x10, 0x10));
    EXPECT_FALSE(isTimeServer(true, 0x10, 0x10, 0x99));
    EXPECT_FALSE(isTimeServer(true, 0x10, 0x99, 0x10));
    EXPECT_FALSE(isTimeServer(true, 0x10, 0, 0));
}

TEST(TimeServicePlan, DecisionTable)
{
    struct Case
    {
        bool server;
        unsigned level;
        bool ntp;
        bool ptp;
        bool rearChanged;
        TimeServiceAction expected;
    };
    const Case cases[] = {
        // Not a server: NTP is stopped first, PTP left alone this time.
        {false, kNtp, true, true, true, TimeServiceAction::StopNtp},
        {false, kPtp, true, false, false, TimeServiceAction::StopNtp},
        {false, kPtp, false, true, false, TimeServiceAction::StopPtp},
        {false, kNtp, false, false, true, TimeServiceAction::None},
        // A server whose source is neither NTP nor PTP behaves like a non-server.
        {true, kOther, true, true, true, TimeServiceAction::StopNtp},
        {true, kOther, false, true, true, TimeServiceAction::StopPtp},
        {true, kOther, false, false, true, TimeServiceAction::None},
        {true, 0, false, true, false, TimeServiceAction::StopPtp},
        // NTP server.
        {true, kNtp, false, false, false, TimeServiceAction::StartNtp},
        {true, kNtp, false, true, false, TimeServiceAction::StartNtp},
        {true, kNtp, true, false, true, TimeServiceAction::RestartNtp},
        {true, kNtp, true, true, true, TimeServiceAction::RestartNtp},
        {true, kNtp, true, false, false, TimeServiceAction::None},
        // PTP server.
        {true, kPtp, false, false, false, TimeServiceAction::StartPtp},
        {true, kPtp, true, false, true, TimeServiceAction::StartPtp},
        {true, kPtp, false, true, true, TimeServiceAction::RestartPtp},
        {true, kPtp, true, true, true, TimeServiceAction::RestartPtp},
        {true, kPtp, false, true, false, TimeServiceAction::None},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(planTimeService(input(c.server, c.level, c.ntp, c.ptp, c.rearChanged)), c.expected)
            << "server " << c.server << " level " << c.level << " ntp " << c.ntp << " ptp " << c.ptp
            << " rearChanged " << c.rearChanged << ": got "
            << toString(planTimeService(input(c.server, c.level, c.ntp, c.ptp, c.rearChanged)));
    }
}

TEST(TimeServicePlan, EqualNtpAndPtpLevelsChooseNtp)
{
    TimeServiceInput in = input(true, 5, false, false, false);
    in.ntpLevel = 5;
    in.ptpLevel = 5;
    EXPECT_EQ(planTimeService(in), TimeServiceAction::StartNtp);
    in.ntpRunning = true;
    in.ptpRunning = true;
    in.rearChanged = true;
    EXPECT_EQ(planTimeService(in), TimeServiceAction::RestartNtp);
}

TEST(TimeServicePlan, UnconfiguredLevelsMatchAnUnknownSourceOfLevelZero)
{
    // Without "Ntp" in the configuration its level is 0, the same as the
    // level of an unknown source: such a server starts NTP.
    TimeServiceInput in = input(true, 0, false, false, false);
    in.ntpLevel = 0;
    in.ptpLevel = 0;
    EXPECT_EQ(planTimeService(in), TimeServiceAction::StartNtp);
}

TEST(TimeServicePlan, ChainMasterIsRearMasterUnlessGatewayIsRearMasterItself)
{
    EXPECT_EQ(chainMasterUuid(false, 0x10, 0x20, 0x30), 0x20u);
    EXPECT_EQ(chainMasterUuid(false, 0x10, 0x10, 0x30), 0x10u);
    EXPECT_EQ(chainMasterUuid(true, 0x10, 0x20, 0x30), 0x20u);
    EXPECT_EQ(chainMasterUuid(true, 0x10, 0x10, 0x30), 0x30u);
    EXPECT_EQ(chainMasterUuid(true, 0x10, 0x10, 0x10), 0x10u);
}

TEST(TimeServicePlan, LabelFormIsOuiAndAtLeastSixUpperCaseHexDigits)
{
    EXPECT_EQ(labelUuid(0), "0A7C31000000");
    EXPECT_EQ(labelUuid(0x1234), "0A7C31001234");
    EXPECT_EQ(labelUuid(0xabcdef), "0A7C31ABCDEF");
    EXPECT_EQ(labelUuid(0x1abcdef), "0A7C311ABCDEF");
}

// The sync manager of a gateway module, which joins its two sides into one
// chain. The gateway family is switched on through the test-only accessor of
// the identity, exactly as a gateway would run were the family enabled.
#include "sync/TimeSyncManagement.h"

#include <orv/communication/Netadapter.h>

#include "protocol/CommandProcessor.h"
#include "sync/SyncManagerFixture.h"

using namespace orv::tsd;
using namespace synctest;
using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

namespace {

const auto* const g_environment = ::testing::AddGlobalTestEnvironment(new ModuleEnvironment("KP40", true));

const char* const kStartRear = "<sync>:start:<sync>";
const char* const kStartFront = "<sync>:start:1:<sync>";
const char* const kResyncRear = "<sync>:resync:<sync>";
const char* const kResyncFront = "<sync>:resync:1:<sync>";

class TimeSyncManagementGatewayTest : public SyncManagerTest
{
protected:
    void SetUp() override
    {
        SyncManagerTest::SetUp();
        ASSERT_TRUE(Config::instance().IsKPModule());
        ASSERT_EQ(Config::instance().getModulePrio(), 20u);
    }

    // Rear: this module and 0x1; front: this module and 0x3. The rear result
    // is a foreign master 0x1 (prio 5, threshold 100), which takes the
    // gateway into the propagation phase with a front start.
    void electForeignRearMaster()
    {
        publishParam("Ptp", 1.0);
        // The accepted parameter restarted the election once already.
        ASSERT_EQ(settle(rearListener, 1), Lines{kStartRear});
        rearListener.clear();
        access->reachable(REAR_FW) = {0x1};
        access->reachable(FRONT_FW) = {0x3};
        tsm->initState();
        ASSERT_EQ(settle(rearListener, 1), Lines{kStartRear});
        rearListener.clear();
        ASSERT_TRUE(answerAll(REAR_FW, {ModuleItem(0x1, 30, 5, 100)}));
        ASSERT_EQ(settle(frontListener, 1), Lines{kStartFront});
        frontListener.clear();
        // The gateway hears its own front start, as every module on the side.
        tsm->initFrontFirewire();
    }
};

}  // namespace

TEST_F(TimeSyncManagementGatewayTest, ForeignRearMasterIsPropagatedAndFrontElectionStarted)
{
    setDebugModeFlag(true);
    electForeignRearMaster();

    EXPECT_EQ(access->state(), PROPAGATION_PHASE);
    EXPECT_EQ(access->expected(), FRONT_FW);
    EXPECT_EQ(access->status(REAR_FW), SYNC_SLAVE);
    EXPECT_EQ(access->prioToFront(), 5u);
    EXPECT_EQ(access->thresholdToFront(), 100u);
    EXPECT_FALSE(access->rearIndependent());
    EXPECT_FALSE(access->useOwnParams());
    EXPECT_EQ(log.count(LOG_DEBUG, "m_PropagationThresholdToFront : 100 m_PropagationThresholdToFront : 100"),
              1u)
        << log.dump();
    EXPECT_EQ(log.count(LOG_DEBUG, "new state : 1"), 1u) << log.dump();

    EXPECT_EQ(announced(FRONT_FW), Announced(5u, 100u));
    // Towards the rear the front master's values, none yet.
    EXPECT_EQ(announced(REAR_FW), Announced(0u, 0u));
}

TEST_F(TimeSyncManagementGatewayTest, NextFrontItemAnnouncesTheRearMastersValues)
{
    electForeignRearMaster();
    const orv::communication::Netadapter front = adapters.getAdapterByName("firewire1");
    CommandProcessor::sendItem(&frontServer, front, FRONT_FW, *tsm);
    // uuid 10a0b0, module priority 20, then the rear master's 5 and 100.
    EXPECT_EQ(settle(frontListener, 1), Lines{"<sync>:item:10a0b0:14:5:64:1:<sync>"});
}

TEST_F(TimeSyncManagementGatewayTest, HalfKnownChainIsStoredButNotPublished)
{
    const int before = observer.notifications("sync/app");
    electForeignRearMaster();
    runFor(loop, 200ms);
    EXPECT_EQ(observer.notifications("sync/app"), before);
    EXPECT_EQ(app()["mode_back"].asInt(), 0);
    EXPECT_EQ(access->master(REAR_FW).uuid, 0x1u);

    ASSERT_TRUE(answerAll(FRONT_FW, {ModuleItem(0x3, 40, 7, 50)}));
    ASSERT_TRUE(runUntil(loop, [&] { return observer.notifications("sync/app") == before + 1; }));
    const Json::Value value = app();
    EXPECT_EQ(value["mode_back"].asInt(), 2);
    EXPECT_EQ(value["mode_front"].asInt(), 2);
    EXPECT_EQ(value["master_uuid_back"].asUInt(), 0x1u);
    EXPECT_EQ(value["master_uuid_front"].asUInt(), 0x3u);
    EXPECT_DOUBLE_EQ(value["master_threshold_back"].asDouble(), 10.0);
    EXPECT_DOUBLE_EQ(value["master_threshold_front"].asDouble(), 5.0);
}

TEST_F(TimeSyncManagementGatewayTest, AloneOnItsFrontItPublishesTheRearResultAtOnce)
{
    publishParam("Ptp", 1.0);
    access->reachable(REAR_FW) = {0x1};
    tsm->initState();
    const int before = observer.notifications("sync/app");

    ASSERT_TRUE(answerAll(REAR_FW, {ModuleItem(0x1, 30, 5, 100)}));

    // Nothing more to learn from the front: the half-known chain is all there is.
    ASSERT_TRUE(runUntil(loop, [&] { return observer.notifications("sync/app") == before + 1; }));
    const Json::Value value = app();
    EXPECT_EQ(value["mode_back"].asInt(), 2);
    EXPECT_EQ(value["mode_front"].asInt(), 1);
    EXPECT_EQ(value["master_uuid_back"].asUInt(), 0x1u);
    EXPECT_EQ(value["master_uuid_front"].asUInt(), 0u);
}

TEST_F(TimeSyncManagementGatewayTest, ForeignFrontMasterIsPropagatedBackWithRearResync)
{
    electForeignRearMaster();
    setDebugModeFlag(true);
    ASSERT_TRUE(answerAll(FRONT_FW, {ModuleItem(0x3, 40, 7, 50)}));

    EXPECT_EQ(access->state(), PROPAGATION_PHASE);
    EXPECT_EQ(access->expected(), REAR_FW);
    EXPECT_EQ(access->prioToRear(), 7u);
    EXPECT_EQ(access->thresholdToRear(), 50u);
    EXPECT_FALSE(access->frontIndependent());
    EXPECT_EQ(settle(rearListener, 1), Lines{kResyncRear});
    EXPECT_TRUE(frontListener.got().empty());
    EXPECT_EQ(log.count(LOG_DEBUG, "m_PropagationThresholdToRear : 50 m_PropagationPrioToRear : 7"), 1u)
        << log.dump();

    unsigned prio = 0;
    unsigned threshold = 0;
    tsm->getTsdParam(prio, threshold, REAR_FW);
    EXPECT_EQ(prio, 7u);
    EXPECT_EQ(threshold, 50u);

    // The resync brings the same rear result: the exchange ends.
    rearListener.clear();
    EXPECT_TRUE(tsm->setEntry(ModuleItem(0x1, 30, 5, 100), REAR_FW));
    EXPECT_EQ(access->state(), SYNCHRONIZED_PHASE);
    EXPECT_TRUE(settle(rearListener, 0).empty());
    EXPECT_TRUE(frontListener.got().empty());
}

TEST_F(TimeSyncManagementGatewayTest, ResultForTheOtherSideDuringPropagationIsDropped)
{
    electForeignRearMaster();
    // Waiting for the front: a rear result changes nothing but its flag.
    tsm->initRearFirewire();
    access->state() = PROPAGATION_PHASE;
    access->expected() = FRONT_FW;
    // (Announced with the propagated values it would be empty: prio 0.)
    EXPECT_FALSE(tsm->setEntry(ModuleItem(kOwnUuid, 20, 2, 10), REAR_FW));
    ASSERT_TRUE(tsm->setEntry(ModuleItem(0x1, 30, 6, 100), REAR_FW));
    EXPECT_EQ(access->status(REAR_FW), SYNC_SLAVE);
    EXPECT_EQ(access->master(REAR_FW).prio, 6u);
    EXPECT_EQ(access->state(), PROPAGATION_PHASE);
    EXPECT_FALSE(access->changeFlag(REAR_FW));
    EXPECT_TRUE(settle(rearListener, 0).empty());
    EXPECT_TRUE(frontListener.got().empty());
}

TEST_F(TimeSyncManagementGatewayTest, SynchronizedGatewayCarriesChangesToTheOtherSide)
{
    electForeignRearMaster();
    ASSERT_TRUE(answerAll(FRONT_FW, {ModuleItem(0x3, 40, 7, 50)}));
    ASSERT_TRUE(tsm->setEntry(ModuleItem(0x1, 30, 5, 100), REAR_FW));
    ASSERT_EQ(access->state(), SYNCHRONIZED_PHASE);
    settle(rearListener, 1);
    rearListener.clear();
    setDebugModeFlag(true);

    // A new rear threshold travels to the front.
    ASSERT_TRUE(tsm->setEntry(ModuleItem(0x1, 30, 5, 120), REAR_FW));
    EXPECT_EQ(settle(frontListener, 1), Lines{kResyncFront});
    EXPECT_TRUE(rearListener.got().empty());
    EXPECT_EQ(access->thresholdToFront(), 120u);
    EXPECT_EQ(log.count(LOG_DEBUG, "m_PropagationThresholdToFront : 120 m_PropagationPrioToFront : 5"), 1u)
        << log.dump();

    // A new front master travels to the rear.
    frontListener.clear();
    ASSERT_TRUE(tsm->setEntry(ModuleItem(0x3, 40, 8, 50), FRONT_FW));
    EXPECT_EQ(settle(rearListener, 1), Lines{kResyncRear});
    EXPECT_TRUE(frontListener.got().empty());
    EXPECT_EQ(access->state(), SYNCHRONIZED_PHASE);

    // An unchanged result sends nothing.
    rearListener.clear();
    ASSERT_TRUE(tsm->setEntry(ModuleItem(0x3, 40, 8, 50), FRONT_FW));
    EXPECT_TRUE(settle(rearListener, 0).empty());
    EXPECT_TRUE(frontListener.got().empty());
}

TEST_F(TimeSyncManagementGatewayTest, ServesTimeOnlyAsMasterOnBothSidesAndShowsFrontMasterAsChainMaster)
{
    publishParam("Ptp", 1.0);
    ASSERT_EQ(synctest::sh("mkdir -p /run/timesync"), 0);
    access->reachable(REAR_FW) = {0x1};
    access->reachable(FRONT_FW) = {0x3};
    tsm->initState();
    const int masterBefore = observer.notifications("sync/master");

    ASSERT_TRUE(answerAll(REAR_FW, {ModuleItem(0x1, 1, 1, 1)}));
    EXPECT_EQ(access->status(REAR_FW), SYNC_MASTER);
    EXPECT_TRUE(scripts.calls().empty());
    EXPECT_EQ(access->state(), PROPAGATION_PHASE);
    // Own values towards the front: the rear side follows no foreign master.
    EXPECT_TRUE(access->useOwnParams());
    tsm->initFrontFirewire();

    ASSERT_TRUE(answerAll(FRONT_FW, {ModuleItem(0x3, 1, 1, 1)}));
    EXPECT_EQ(access->status(FRONT_FW), SYNC_MASTER);
    EXPECT_EQ(scripts.calls(), Lines{"ptp4ladm.sh start"});
    EXPECT_EQ(readFile("/run/timesync/ptp4l.cfg"), "-4 -i firewire0\n");
    ASSERT_TRUE(runUntil(loop, [&] { return observer.notifications("sync/master") == masterBefore + 1; }));
    EXPECT_EQ(observer.state("sync/master"), Json::Value(kOwnLabel));
    EXPECT_EQ(access->lastMaster(), kOwnUuid);
    // Nothing changed that the rear must learn: the exchange is over.
    EXPECT_EQ(access->state(), SYNCHRONIZED_PHASE);
}

TEST_F(TimeSyncManagementGatewayTest, MasterOnRearOnlyIsNoTimeServer)
{
    publishParam("Ptp", 1.0);
    access->reachable(REAR_FW) = {0x1};
    access->reachable(FRONT_FW) = {0x3};
    tsm->initState();
    ASSERT_TRUE(answerAll(REAR_FW, {ModuleItem(0x1, 1, 1, 1)}));
    tsm->initFrontFirewire();
    ASSERT_TRUE(answerAll(FRONT_FW, {ModuleItem(0x3, 40, 7, 50)}));
    EXPECT_EQ(access->status(FRONT_FW), SYNC_SLAVE);
    EXPECT_TRUE(scripts.calls().empty());
    // This module is the rear master: the chain master is the front one.
    ASSERT_TRUE(runUntil(loop, [&] { return observer.state("sync/master") == Json::Value("0A7C31000003"); }));
    // Only the front follows a foreign master now.
    EXPECT_TRUE(access->rearIndependent());
    EXPECT_FALSE(access->frontIndependent());
    EXPECT_FALSE(access->useOwnParams());
}

TEST_F(TimeSyncManagementGatewayTest, AfterRestartRearAnnouncesOwnValuesWhileFrontKeepsPropagated)
{
    electForeignRearMaster();
    ASSERT_FALSE(access->useOwnParams());
    tsm->initState();
    access->prioToFront() = 5;  // as the next rear result would copy again
    access->thresholdToFront() = 100;
    EXPECT_EQ(announced(REAR_FW), Announced(2u, 10u));
    EXPECT_EQ(announced(FRONT_FW), Announced(5u, 100u));
}

TEST_F(TimeSyncManagementGatewayTest, RearIndependentAgainWhenTheRearResultIsNoLongerSlave)
{
    electForeignRearMaster();
    ASSERT_FALSE(access->rearIndependent());
    tsm->initState();
    ASSERT_TRUE(answerAll(REAR_FW, {ModuleItem(0x1, 1, 1, 1)}));
    EXPECT_EQ(access->status(REAR_FW), SYNC_MASTER);
    EXPECT_TRUE(access->rearIndependent());
    EXPECT_TRUE(access->useOwnParams());  // the front has been independent all along
}

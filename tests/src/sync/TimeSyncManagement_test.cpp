// The sync manager of a plain (non-gateway) module, against a real broker,
// real multicast servers in a private network namespace and recording
// stand-ins of the time-service scripts.
#include "sync/TimeSyncManagement.h"

#include <json/writer.h>

#include "sync/SyncManagerFixture.h"

using namespace orv::tsd;
using namespace synctest;
using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

namespace {

const auto* const g_environment = ::testing::AddGlobalTestEnvironment(new ModuleEnvironment("RZ", false));

constexpr unsigned kModulePrio = 10;  // "RZ" in the configuration file
const char* const kStartRear = "<sync>:start:<sync>";

Json::Value reachable(const std::string& path, const std::string& event)
{
    Json::Value n(Json::objectValue);
    n["path"] = path;
    n["event"] = event;
    n["value"] = true;
    return n;
}

using TimeSyncManagementTest = SyncManagerTest;

}  // namespace

// ---- construction and published states ----

TEST_F(TimeSyncManagementTest, StartsWithUnknownAppStateOwnLabelAsMasterAndSendsNothing)
{
    const Json::Value value = app();
    ASSERT_TRUE(value.isObject());
    EXPECT_EQ(value.getMemberNames(),
              (std::vector<std::string>{"master_threshold_back", "master_threshold_front", "master_uuid_back",
                                        "master_uuid_front", "mode_back", "mode_front"}));
    EXPECT_TRUE(value["mode_back"].isInt());
    EXPECT_EQ(value["mode_back"].asInt(), 0);
    EXPECT_EQ(value["mode_front"].asInt(), 0);
    EXPECT_TRUE(value["master_uuid_back"].isIntegral());
    EXPECT_EQ(value["master_uuid_back"].asInt(), 0);
    EXPECT_EQ(value["master_uuid_front"].asInt(), 0);
    EXPECT_TRUE(value["master_threshold_back"].isDouble());
    EXPECT_EQ(value["master_threshold_back"].asDouble(), 0.0);
    EXPECT_EQ(value["master_threshold_front"].asDouble(), 0.0);
    EXPECT_EQ(observer.state("sync/master"), Json::Value(kOwnLabel));

    EXPECT_EQ(access->state(), INITIALIZED_PHASE);
    EXPECT_EQ(access->expected(), REAR_FW);
    EXPECT_EQ(access->status(REAR_FW), SYNC_ALONE);
    EXPECT_EQ(access->status(FRONT_FW), SYNC_ALONE);
    EXPECT_FALSE(access->changeFlag(REAR_FW));
    EXPECT_FALSE(access->changeFlag(FRONT_FW));
    EXPECT_TRUE(access->useOwnParams());
    EXPECT_TRUE(access->rearIndependent());
    EXPECT_TRUE(access->frontIndependent());
    EXPECT_EQ(access->lastMaster(), 0u);
    EXPECT_EQ(access->master(REAR_FW).uuid, 0u);

    EXPECT_TRUE(settle(rearListener, 0).empty());
    EXPECT_TRUE(frontListener.got().empty());
}

TEST_F(TimeSyncManagementTest, DestructionRemovesItsStates)
{
    tsm.reset();
    ASSERT_TRUE(runUntil(loop, [&] { return !observer.has("sync/app") && !observer.has("sync/master"); }));
}

TEST_F(TimeSyncManagementTest, SetRequestOnAppStateAnswersNullAndChangesNothing)
{
    Json::Value request(Json::objectValue);
    request["mode_back"] = 3;
    Json::Value answer;
    bool answered = false;
    const int before = observer.notifications("sync/app");
    observer.peer().setAsync("sync/app", request, [&](const Json::Value& response) {
        answer = response;
        answered = true;
    });
    ASSERT_TRUE(runUntil(loop, [&] { return answered; }));
    EXPECT_TRUE(answer.isMember("result")) << answer.toStyledString();
    EXPECT_TRUE(answer["result"].isNull()) << answer.toStyledString();
    runFor(loop, 100ms);
    EXPECT_EQ(observer.notifications("sync/app"), before);
    EXPECT_EQ(app()["mode_back"].asInt(), 0);
    EXPECT_EQ(access->status(REAR_FW), SYNC_ALONE);
    EXPECT_EQ(log.countText("TsdVelaCom::cbAppParams: " + Json::StyledWriter().write(request)), 0u);
}

TEST_F(TimeSyncManagementTest, SetRequestOnAppStateIsLoggedStyledInDebugMode)
{
    setDebugModeFlag(true);
    const Json::Value request("anything");
    EXPECT_TRUE(tsm->cbAppParams(request).isNull());
    Json::Value object(Json::objectValue);
    object["a"] = 1;
    bool answered = false;
    observer.peer().setAsync("sync/app", object, [&](const Json::Value&) { answered = true; });
    ASSERT_TRUE(runUntil(loop, [&] { return answered; }));
    EXPECT_EQ(log.count(LOG_DEBUG, "TsdVelaCom::cbAppParams: " + Json::StyledWriter().write(request)), 1u)
        << log.dump();
    EXPECT_EQ(log.count(LOG_DEBUG, "TsdVelaCom::cbAppParams: " + Json::StyledWriter().write(object)), 1u)
        << log.dump();
}

TEST_F(TimeSyncManagementTest, MasterStateAcceptsNoSetRequest)
{
    Json::Value response;
    bool answered = false;
    observer.peer().setAsync("sync/master", Json::Value("0A7C31FFFFFF"), [&](const Json::Value& r) {
        response = r;
        answered = true;
    });
    ASSERT_TRUE(runUntil(loop, [&] { return answered; }));
    EXPECT_TRUE(response.isMember("error")) << response.toStyledString();
    runFor(loop, 100ms);
    EXPECT_EQ(observer.state("sync/master"), Json::Value(kOwnLabel));
}

TEST_F(TimeSyncManagementTest, NotifyParamsPublishesScaledThresholdsAndAllSixKeys)
{
    tsm->notifyParams(SYNC_SLAVE, SYNC_ALONE, 0xabcdef, 0, 100 * 0.1, 0.0);
    ASSERT_TRUE(runUntil(loop, [&] { return app()["mode_back"].asInt() == 2; }));
    const Json::Value value = app();
    EXPECT_EQ(value["mode_front"].asInt(), 1);
    EXPECT_EQ(value["master_uuid_back"].asUInt(), 0xabcdefu);
    EXPECT_EQ(value["master_uuid_front"].asUInt(), 0u);
    EXPECT_DOUBLE_EQ(value["master_threshold_back"].asDouble(), 10.0);
    EXPECT_TRUE(value["master_threshold_front"].isDouble());
    EXPECT_EQ(value["master_threshold_front"].asDouble(), 0.0);
}

// ---- restarts of the election ----

TEST_F(TimeSyncManagementTest, InitStateRebuildsListsFromReachableDevicesAndSendsStartOnRear)
{
    access->reachable(REAR_FW) = {0x1, 0x2};
    access->reachable(FRONT_FW) = {0x3};
    access->changeFlag(REAR_FW) = true;
    access->changeFlag(FRONT_FW) = true;
    access->master(REAR_FW) = ModuleItem(1, 2, 3, 4);
    access->master(FRONT_FW) = ModuleItem(5, 6, 7, 8);
    access->prioToFront() = 9;
    access->thresholdToRear() = 9;
    access->state() = SYNCHRONIZED_PHASE;
    access->expected() = FRONT_FW;
    access->status(REAR_FW) = SYNC_SLAVE;
    access->useOwnParams() = false;
    access->rearIndependent() = false;
    access->lastMaster() = 0x77;
    const int appBefore = observer.notifications("sync/app");

    EXPECT_TRUE(tsm->initState());

    EXPECT_EQ(access->modules().size(REAR_FW), 3u);
    EXPECT_EQ(access->modules().size(FRONT_FW), 2u);
    EXPECT_FALSE(access->changeFlag(REAR_FW));
    EXPECT_FALSE(access->changeFlag(FRONT_FW));
    EXPECT_EQ(access->master(REAR_FW).uuid, 0u);
    EXPECT_EQ(access->master(FRONT_FW).threshold, 0u);
    EXPECT_EQ(access->prioToFront(), 0u);
    EXPECT_EQ(access->thresholdToRear(), 0u);
    EXPECT_EQ(access->state(), INITIALIZED_PHASE);
    EXPECT_EQ(access->expected(), REAR_FW);
    EXPECT_EQ(access->status(REAR_FW), SYNC_ALONE);
    // Kept across a restart.
    EXPECT_FALSE(access->useOwnParams());
    EXPECT_FALSE(access->rearIndependent());
    EXPECT_EQ(access->lastMaster(), 0x77u);
    // The reachable lists are read, never cleared.
    EXPECT_EQ(access->reachable(REAR_FW).size(), 2u);

    EXPECT_EQ(settle(rearListener, 1), Lines{kStartRear});
    EXPECT_TRUE(frontListener.got().empty());
    EXPECT_EQ(observer.notifications("sync/app"), appBefore);
    EXPECT_EQ(log.count(LOG_INFO, "firewire back uuid 0x00000A7C31000002"), 1u) << log.dump();
    EXPECT_EQ(log.count(LOG_INFO, "3 module(s) connected to firewire"), 1u) << log.dump();
}

TEST_F(TimeSyncManagementTest, AcceptedParameterChangeRestartsTheElection)
{
    publishParam("Ptp", 1.5);
    EXPECT_EQ(settle(rearListener, 1), Lines{kStartRear});
    unsigned prio = 0;
    unsigned threshold = 0;
    EXPECT_TRUE(tsm->getTsdParam(prio, threshold, REAR_FW));
    EXPECT_EQ(prio, 2u);
    EXPECT_EQ(threshold, 15u);

    // An unknown source is rejected and restarts nothing.
    rearListener.clear();
    Json::Value value(Json::objectValue);
    value["timesource"] = "Galileo";
    observer.peer().notifyState("sync/param", value);
    ASSERT_TRUE(runUntil(loop, [&] { return log.count(LOG_WARNING, " wrong timesource") == 1; }));
    EXPECT_TRUE(settle(rearListener, 0).empty());
    EXPECT_TRUE(tsm->getTsdParam(prio, threshold, REAR_FW));
    EXPECT_EQ(prio, 2u);
}

TEST_F(TimeSyncManagementTest, InitRearFirewireRestartsRearSideOnly)
{
    access->reachable(REAR_FW) = {0x1};
    access->reachable(FRONT_FW) = {0x3};
    tsm->initState();
    tsm->setEntry(ModuleItem(0x1, 5, 5, 5), REAR_FW);
    tsm->setEntry(ModuleItem(0x3, 5, 5, 5), FRONT_FW);
    access->state() = SYNCHRONIZED_PHASE;
    access->expected() = FRONT_FW;
    setDebugModeFlag(true);

    tsm->initRearFirewire();

    EXPECT_EQ(access->state(), INITIALIZED_PHASE);
    EXPECT_EQ(access->expected(), REAR_FW);
    for (const ModuleItem& item : access->modules().list(REAR_FW)) {
        EXPECT_TRUE(item.isEmpty()) << item.uuid;
    }
    EXPECT_EQ(access->modules().list(REAR_FW).size(), 2u);
    EXPECT_FALSE(access->modules().list(FRONT_FW).back().isEmpty());
    EXPECT_EQ(log.count(LOG_DEBUG, "initRearFirewire sate: 0"), 1u) << log.dump();
}

TEST_F(TimeSyncManagementTest, InitFrontFirewireInInitializedPhaseChangesNothing)
{
    access->reachable(FRONT_FW) = {0x3};
    tsm->initState();
    tsm->setEntry(ModuleItem(0x3, 5, 5, 5), FRONT_FW);
    setDebugModeFlag(true);
    log.clear();

    tsm->initFrontFirewire();

    EXPECT_EQ(access->expected(), REAR_FW);
    EXPECT_FALSE(access->modules().list(FRONT_FW).back().isEmpty());
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(TimeSyncManagementTest, InitFrontFirewireAfterRearResultExpectsFrontAndResetsFront)
{
    access->reachable(FRONT_FW) = {0x3};
    tsm->initState();
    tsm->setEntry(ModuleItem(0x3, 5, 5, 5), FRONT_FW);
    access->state() = SYNCHRONIZED_PHASE;
    setDebugModeFlag(true);

    tsm->initFrontFirewire();

    EXPECT_EQ(access->expected(), FRONT_FW);
    EXPECT_EQ(access->state(), SYNCHRONIZED_PHASE);
    EXPECT_TRUE(access->modules().list(FRONT_FW).back().isEmpty());
    EXPECT_EQ(log.count(LOG_DEBUG, " initFrontFirewire state: 2"), 1u) << log.dump();
}

// ---- announced values ----

TEST_F(TimeSyncManagementTest, FrontAnnouncementInInitializedPhaseWarnsEveryTime)
{
    publishParam("Ntp", 0.7);
    unsigned prio = 0;
    unsigned threshold = 0;
    EXPECT_TRUE(tsm->getTsdParam(prio, threshold, FRONT_FW));
    EXPECT_TRUE(tsm->getTsdParam(prio, threshold, FRONT_FW));
    EXPECT_EQ(prio, 1u);
    EXPECT_EQ(threshold, 7u);
    EXPECT_EQ(log.count(LOG_WARNING, " TimeSyncManagement::getTsdParam in INITIALIZED_PHASE (FRONT FW)"), 2u)
        << log.dump();

    access->state() = SYNCHRONIZED_PHASE;
    EXPECT_TRUE(tsm->getTsdParam(prio, threshold, FRONT_FW));
    EXPECT_EQ(log.count(LOG_WARNING, " TimeSyncManagement::getTsdParam in INITIALIZED_PHASE (FRONT FW)"), 2u);
    EXPECT_TRUE(tsm->getTsdParam(prio, threshold, REAR_FW));
    EXPECT_EQ(log.countText(" TimeSyncManagement::getTsdParam in INITIALIZED_PHASE (FRONT FW)"), 2u);
}

TEST_F(TimeSyncManagementTest, NonGatewayRearAnnouncesOwnValuesEvenWhenPropagating)
{
    publishParam("Ptp", 2.0);
    access->useOwnParams() = false;
    access->state() = SYNCHRONIZED_PHASE;
    access->prioToRear() = 77;
    access->thresholdToRear() = 88;
    access->prioToFront() = 55;
    access->thresholdToFront() = 66;
    EXPECT_EQ(announced(REAR_FW), Announced(2u, 20u));
    // The front checks neither phase nor family.
    EXPECT_EQ(announced(FRONT_FW), Announced(55u, 66u));
}

// ---- items and the state machine ----

TEST_F(TimeSyncManagementTest, ItemsCompleteTheListOnlyWhenEveryModuleAnswered)
{
    publishParam("Ptp", 1.0);
    access->reachable(REAR_FW) = {0x1, 0x2};
    tsm->initState();
    EXPECT_FALSE(tsm->setEntry(ModuleItem(0x99, 5, 5, 5), REAR_FW));  // unknown module
    EXPECT_FALSE(tsm->setEntry(ModuleItem(0x1, 5, 5, 5), REAR_FW));
    EXPECT_FALSE(tsm->setEntry(ModuleItem(0x2, 0, 5, 5), REAR_FW));  // still empty
    EXPECT_FALSE(tsm->setEntry(ModuleItem(kOwnUuid, kModulePrio, 2, 10), REAR_FW));
    EXPECT_EQ(access->master(REAR_FW).uuid, 0u);
    EXPECT_TRUE(tsm->setEntry(ModuleItem(0x2, 5, 5, 5), REAR_FW));
    EXPECT_EQ(access->master(REAR_FW).uuid, kOwnUuid);
}

TEST_F(TimeSyncManagementTest, NonGatewayGoesFromInitializedToSynchronizedWithoutFrontTelegram)
{
    publishParam("Ptp", 1.0);
    access->reachable(REAR_FW) = {0x1};
    access->reachable(FRONT_FW) = {0x3};
    tsm->initState();
    settle(rearListener, 1);
    rearListener.clear();
    setDebugModeFlag(true);

    ASSERT_TRUE(answerAll(REAR_FW, {ModuleItem(0x1, 30, 5, 100)}));

    EXPECT_EQ(access->state(), SYNCHRONIZED_PHASE);
    EXPECT_FALSE(access->changeFlag(REAR_FW));
    EXPECT_EQ(access->status(REAR_FW), SYNC_SLAVE);
    // A slave follows the foreign master: announce propagated values.
    EXPECT_FALSE(access->rearIndependent());
    EXPECT_FALSE(access->useOwnParams());
    EXPECT_EQ(access->prioToFront(), 5u);
    EXPECT_EQ(access->thresholdToFront(), 100u);
    EXPECT_TRUE(settle(frontListener, 0).empty());
    EXPECT_TRUE(rearListener.got().empty());

    EXPECT_EQ(log.count(LOG_DEBUG,
                        "interface : 0 current state : 0 ChangeFlag REAR_FW = 1 ChangeFlag[FRONT_FW] = 0 "
                        "m_ExpectedInterface 0"),
              1u)
        << log.dump();
    EXPECT_EQ(log.count(LOG_DEBUG,
                        " m_PropagationThresholdToRear : 0 m_PropagationPrioToRear : 0"
                        " m_PropagationThresholdToFront : 100 m_PropagationPrioToFront : 5"),
              1u)
        << log.dump();
    EXPECT_EQ(log.count(LOG_DEBUG, "new state : 2"), 1u) << log.dump();
    EXPECT_EQ(
        log.count(LOG_DEBUG, "SYNCMASTER(0) UUID : 1 MODULE PRIO : 30 TS-PRIO : 5 TS-THRESHOLD : 100\n"), 1u)
        << log.dump();

    // Once a later rear result is not a slave result, the own values return.
    tsm->initState();
    ASSERT_TRUE(answerAll(REAR_FW, {ModuleItem(0x1, 1, 1, 1)}));
    EXPECT_EQ(access->status(REAR_FW), SYNC_MASTER);
    EXPECT_TRUE(access->rearIndependent());
    EXPECT_TRUE(access->useOwnParams());
}

TEST_F(TimeSyncManagementTest, FrontResultWhileWaitingForRearOnlyClearsTheFrontFlag)
{
    publishParam("Ptp", 1.0);
    access->reachable(FRONT_FW) = {0x3};
    tsm->initState();
    settle(rearListener, 1);
    rearListener.clear();

    ASSERT_TRUE(answerAll(FRONT_FW, {ModuleItem(0x3, 30, 5, 100)}));

    EXPECT_EQ(access->status(FRONT_FW), SYNC_SLAVE);
    EXPECT_EQ(access->master(FRONT_FW).uuid, 0x3u);
    EXPECT_FALSE(access->changeFlag(FRONT_FW));
    EXPECT_EQ(access->state(), INITIALIZED_PHASE);
    EXPECT_EQ(access->expected(), REAR_FW);
    EXPECT_TRUE(settle(rearListener, 0).empty());
    EXPECT_TRUE(frontListener.got().empty());
}

TEST_F(TimeSyncManagementTest, RestartKeepsPropagatedFrontAnnouncementWhileRearAnnouncesOwnValues)
{
    publishParam("Ptp", 1.0);
    access->reachable(REAR_FW) = {0x1};
    tsm->initState();
    ASSERT_TRUE(answerAll(REAR_FW, {ModuleItem(0x1, 30, 5, 100)}));
    ASSERT_FALSE(access->useOwnParams());

    tsm->initState();
    EXPECT_EQ(announced(REAR_FW), Announced(2u, 10u));
    // initState zeroed the propagated values but kept the flag.
    EXPECT_EQ(announced(FRONT_FW), Announced(0u, 0u));
}

TEST_F(TimeSyncManagementTest, UnknownPhaseDoesNothingButClearsTheFlag)
{
    access->state() = static_cast<enTsdPhase>(7);
    access->changeFlag(REAR_FW) = true;
    tsm->checkState(REAR_FW);
    EXPECT_EQ(static_cast<int>(access->state()), 7);
    EXPECT_FALSE(access->changeFlag(REAR_FW));
    EXPECT_TRUE(settle(rearListener, 0).empty());
    EXPECT_TRUE(frontListener.got().empty());
}

// ---- applying a result ----

TEST_F(TimeSyncManagementTest, SideWithOnlyThisModuleIsAloneAndServesTime)
{
    publishParam("Ptp", 1.5);
    ASSERT_EQ(synctest::sh("mkdir -p /run/timesync"), 0);
    tsm->initState();
    ASSERT_TRUE(answerAll(REAR_FW, {}));

    EXPECT_EQ(access->status(REAR_FW), SYNC_ALONE);
    EXPECT_EQ(access->master(REAR_FW).uuid, kOwnUuid);
    ASSERT_TRUE(runUntil(loop, [&] { return app()["mode_back"].asInt() == 1; }));
    EXPECT_EQ(app()["master_uuid_back"].asUInt(), kOwnUuid);
    EXPECT_DOUBLE_EQ(app()["master_threshold_back"].asDouble(), 1.5);
    EXPECT_EQ(app()["mode_front"].asInt(), 1);
    // The rear master is this module: it serves time to the chain.
    EXPECT_EQ(scripts.calls(), Lines{"ptp4ladm.sh start"});
    EXPECT_EQ(readFile("/run/timesync/ptp4l.cfg"), "-4 -i firewire0\n");
    EXPECT_TRUE(PTPManage::instance().isRunning());
    EXPECT_EQ(access->lastMaster(), kOwnUuid);
}

TEST_F(TimeSyncManagementTest, ChainMasterIsPublishedInLabelFormWhenItChanges)
{
    publishParam("Ptp", 1.0);
    access->reachable(REAR_FW) = {0x1234};
    tsm->initState();
    const int before = observer.notifications("sync/master");
    ASSERT_TRUE(answerAll(REAR_FW, {ModuleItem(0x1234, 30, 5, 100)}));
    ASSERT_TRUE(runUntil(loop, [&] { return observer.state("sync/master") == Json::Value("0A7C31001234"); }));
    EXPECT_EQ(access->lastMaster(), 0x1234u);
    EXPECT_EQ(observer.notifications("sync/master"), before + 1);

    // The same master again: nothing is sent.
    tsm->initState();
    ASSERT_TRUE(answerAll(REAR_FW, {ModuleItem(0x1234, 30, 5, 100)}));
    runFor(loop, 200ms);
    EXPECT_EQ(observer.notifications("sync/master"), before + 1);
}

TEST_F(TimeSyncManagementTest, MasterUuidZeroIsPublishedAsZeroLabel)
{
    publishParam("Ptp", 1.0);
    access->reachable(REAR_FW) = {0x0};
    tsm->initState();
    access->lastMaster() = kOwnUuid;
    ASSERT_TRUE(answerAll(REAR_FW, {ModuleItem(0x0, 30, 5, 100)}));
    ASSERT_TRUE(runUntil(loop, [&] { return observer.state("sync/master") == Json::Value("0A7C31000000"); }));
    EXPECT_EQ(access->lastMaster(), 0u);
}

TEST_F(TimeSyncManagementTest, UnchangedResultPublishesNothingAndRunsNoScript)
{
    publishParam("Ntp", 1.0);
    tsm->initState();
    ASSERT_TRUE(answerAll(REAR_FW, {}));
    ASSERT_TRUE(scripts.waitCalls(1));
    EXPECT_EQ(scripts.calls(), Lines{"start_ntpd.sh "});
    EXPECT_EQ(readFile("/run/timesync/ntpserver.ip"), "127.0.0.2\n");
    ASSERT_TRUE(runUntil(loop, [&] { return app()["mode_back"].asInt() == 1; }));
    const int appBefore = observer.notifications("sync/app");
    const int masterBefore = observer.notifications("sync/master");

    // The same outcome again, with the rear change flag clear: no script.
    tsm->initRearFirewire();
    ASSERT_TRUE(answerAll(REAR_FW, {}));
    runFor(loop, 300ms);
    EXPECT_EQ(scripts.calls(), Lines{"start_ntpd.sh "});
    EXPECT_EQ(observer.notifications("sync/app"), appBefore);
    EXPECT_EQ(observer.notifications("sync/master"), masterBefore);
}

TEST_F(TimeSyncManagementTest, ChangedResultRestartsRunningNtp)
{
    publishParam("Ntp", 1.0);
    tsm->initState();
    ASSERT_TRUE(answerAll(REAR_FW, {}));
    ASSERT_TRUE(scripts.waitCalls(1));

    publishParam("Ntp", 2.0, "-4", "10.9.9.9");  // restarts the election
    ASSERT_TRUE(answerAll(REAR_FW, {}));
    ASSERT_TRUE(scripts.waitCalls(3));
    EXPECT_EQ(scripts.calls(), (Lines{"start_ntpd.sh ", "stop_ntpd.sh ", "start_ntpd.sh "}));
    EXPECT_EQ(readFile("/run/timesync/ntpserver.ip"), "10.9.9.9\n");
    EXPECT_TRUE(NtpManage::instance().isRunning());
}

TEST_F(TimeSyncManagementTest, ChangeOfModulePriorityAloneDoesNotCount)
{
    publishParam("Ptp", 1.0);
    access->reachable(REAR_FW) = {0x1};
    tsm->initState();
    ASSERT_TRUE(answerAll(REAR_FW, {ModuleItem(0x1, 30, 5, 100)}));
    ASSERT_TRUE(runUntil(loop, [&] { return app()["mode_back"].asInt() == 2; }));
    const int before = observer.notifications("sync/app");

    tsm->initRearFirewire();
    ASSERT_TRUE(answerAll(REAR_FW, {ModuleItem(0x1, 31, 5, 100)}));
    EXPECT_FALSE(access->changeFlag(REAR_FW));
    EXPECT_EQ(access->master(REAR_FW).module, 30u);
    runFor(loop, 200ms);
    EXPECT_EQ(observer.notifications("sync/app"), before);

    // A threshold change does count.
    tsm->initRearFirewire();
    ASSERT_TRUE(answerAll(REAR_FW, {ModuleItem(0x1, 30, 5, 0)}));
    ASSERT_TRUE(runUntil(loop, [&] { return observer.notifications("sync/app") == before + 1; }));
    EXPECT_EQ(app()["master_threshold_back"].asDouble(), 0.0);
}

TEST_F(TimeSyncManagementTest, RearResultIsPublishedAtOnceWhileTheFrontIsStillUnknown)
{
    publishParam("Ptp", 1.0);
    access->reachable(REAR_FW) = {0x1};
    access->reachable(FRONT_FW) = {0x3};
    tsm->initState();
    const int before = observer.notifications("sync/app");

    ASSERT_TRUE(answerAll(REAR_FW, {ModuleItem(0x1, 30, 5, 100)}));

    // Only a gateway waits for both sides; this module publishes every change.
    ASSERT_TRUE(runUntil(loop, [&] { return observer.notifications("sync/app") == before + 1; }));
    const Json::Value value = app();
    EXPECT_EQ(value["mode_back"].asInt(), 2);
    EXPECT_EQ(value["mode_front"].asInt(), 1);
    EXPECT_EQ(value["master_uuid_back"].asUInt(), 0x1u);
    EXPECT_EQ(value["master_uuid_front"].asUInt(), 0u);
    EXPECT_DOUBLE_EQ(value["master_threshold_back"].asDouble(), 10.0);
}

TEST_F(TimeSyncManagementTest, RunningServiceRestartsOnTheRearChangeFlagWhicheverSideIsApplied)
{
    publishParam("Ntp", 1.0);
    access->reachable(REAR_FW) = {0x1};
    access->reachable(FRONT_FW) = {0x3};
    tsm->initState();
    ASSERT_TRUE(answerAll(REAR_FW, {ModuleItem(0x1, 1, 1, 1)}));
    ASSERT_EQ(access->status(REAR_FW), SYNC_MASTER);
    ASSERT_TRUE(scripts.waitCalls(1));
    ASSERT_EQ(scripts.calls(), Lines{"start_ntpd.sh "});

    // A changed front result with the rear flag clear leaves NTP alone.
    ASSERT_TRUE(answerAll(FRONT_FW, {ModuleItem(0x3, 30, 5, 100)}));
    ASSERT_EQ(access->status(FRONT_FW), SYNC_SLAVE);
    runFor(loop, 200ms);
    EXPECT_EQ(scripts.calls(), Lines{"start_ntpd.sh "});

    // An unchanged front result while the rear flag is set restarts it.
    access->changeFlag(REAR_FW) = true;
    tsm->initFrontFirewire();
    ASSERT_TRUE(answerAll(FRONT_FW, {ModuleItem(0x3, 30, 5, 100)}));
    EXPECT_FALSE(access->changeFlag(FRONT_FW));
    ASSERT_TRUE(scripts.waitCalls(3));
    EXPECT_EQ(scripts.calls(), (Lines{"start_ntpd.sh ", "stop_ntpd.sh ", "start_ntpd.sh "}));
    EXPECT_TRUE(NtpManage::instance().isRunning());
}

TEST_F(TimeSyncManagementTest, MasterOnFrontOnlyIsNoTimeServerAndStopsItsService)
{
    publishParam("Ptp", 1.0);
    ASSERT_EQ(synctest::sh("mkdir -p /run/timesync"), 0);
    access->reachable(REAR_FW) = {0x1};
    access->reachable(FRONT_FW) = {0x3};
    tsm->initState();
    ASSERT_TRUE(answerAll(REAR_FW, {ModuleItem(0x1, 30, 5, 100)}));
    ASSERT_TRUE(scripts.calls().empty());
    // A service left running from before, as after a change of cabling.
    PTPManage::instance().start(systemRunner(), "-4", NtpManage::instance());
    ASSERT_EQ(scripts.calls(), Lines{"ptp4ladm.sh start"});

    ASSERT_TRUE(answerAll(FRONT_FW, {ModuleItem(0x3, 1, 1, 1)}));
    EXPECT_EQ(access->status(FRONT_FW), SYNC_MASTER);
    EXPECT_EQ(access->master(FRONT_FW).uuid, kOwnUuid);
    EXPECT_EQ(scripts.calls(), (Lines{"ptp4ladm.sh start", "ptp4ladm.sh stop"}));
    EXPECT_FALSE(PTPManage::instance().isRunning());
    ASSERT_TRUE(runUntil(loop, [&] { return observer.state("sync/master") == Json::Value("0A7C31000001"); }));
    ASSERT_TRUE(runUntil(loop, [&] { return app()["mode_front"].asInt() == 3; }));
    EXPECT_EQ(app()["mode_back"].asInt(), 2);
    EXPECT_EQ(app()["master_uuid_front"].asUInt(), kOwnUuid);
}

TEST_F(TimeSyncManagementTest, SourceThatIsNeitherNtpNorPtpStopsServices)
{
    publishParam("Ntp", 1.0);
    tsm->initState();
    ASSERT_TRUE(answerAll(REAR_FW, {}));
    ASSERT_TRUE(scripts.waitCalls(1));

    publishParam("Gps", 1.0);
    ASSERT_TRUE(answerAll(REAR_FW, {}));
    EXPECT_EQ(access->status(REAR_FW), SYNC_ALONE);
    ASSERT_TRUE(scripts.waitCalls(2));
    EXPECT_EQ(scripts.calls(), (Lines{"start_ntpd.sh ", "stop_ntpd.sh "}));
    EXPECT_FALSE(NtpManage::instance().isRunning());
}

TEST_F(TimeSyncManagementTest, NotServingWithBothFlagsSetStopsOnlyNtp)
{
    publishParam("Ntp", 1.0);
    tsm->initState();
    ASSERT_TRUE(answerAll(REAR_FW, {}));
    ASSERT_TRUE(scripts.waitCalls(1));

    // A failing NTP stop leaves its flag set while PTP starts.
    scripts.setStatus("stop_ntpd.sh", 1);
    publishParam("Ptp", 1.0);
    ASSERT_TRUE(answerAll(REAR_FW, {}));
    ASSERT_TRUE(NtpManage::instance().isRunning());
    ASSERT_TRUE(PTPManage::instance().isRunning());
    EXPECT_EQ(log.count(LOG_ERR, "error stoping ntpd"), 1u) << log.dump();

    scripts.setStatus("stop_ntpd.sh", 0);
    access->reachable(REAR_FW) = {0x1};
    tsm->initState();
    const std::size_t before = scripts.calls().size();
    ASSERT_TRUE(answerAll(REAR_FW, {ModuleItem(0x1, 30, 5, 100)}));
    ASSERT_TRUE(scripts.waitCalls(before + 1));
    runFor(loop, 100ms);
    const Lines calls = scripts.calls();
    EXPECT_EQ(Lines(calls.begin() + static_cast<long>(before), calls.end()), Lines{"stop_ntpd.sh "});
    EXPECT_FALSE(NtpManage::instance().isRunning());
    EXPECT_TRUE(PTPManage::instance().isRunning());
}

TEST_F(TimeSyncManagementTest, FailingScriptsAndUnwritableTimesyncAreLoggedAndTheElectionGoesOn)
{
    ASSERT_TRUE(testsupport::PrivateMounts::writeFile("/run/timesync", "in the way"));
    scripts.setStatus("ptp4ladm.sh", 4);
    publishParam("Ptp", 1.0);
    tsm->initState();
    ASSERT_TRUE(answerAll(REAR_FW, {}));
    EXPECT_EQ(log.count(LOG_ERR, "(PTP) error creating PTP4L_CFG"), 1u) << log.dump();
    EXPECT_EQ(log.count(LOG_ERR, "error starting ptpd"), 1u) << log.dump();
    EXPECT_EQ(scripts.calls(), Lines{"ptp4ladm.sh start"});
    EXPECT_TRUE(PTPManage::instance().isRunning());
    EXPECT_EQ(access->state(), SYNCHRONIZED_PHASE);
    ASSERT_TRUE(runUntil(loop, [&] { return app()["mode_back"].asInt() == 1; }));

    // NTP: the mkdir fails as well, the start runs anyway.
    publishParam("Ntp", 1.0);
    ASSERT_TRUE(answerAll(REAR_FW, {}));
    EXPECT_EQ(log.count(LOG_ERR, " (NTP) error creating NTPSERVER_IP file"), 1u) << log.dump();
    EXPECT_EQ(log.count(LOG_ERR, "error stoping ptpd"), 1u) << log.dump();
    ASSERT_TRUE(scripts.waitCalls(3));
    EXPECT_EQ(scripts.calls(), (Lines{"ptp4ladm.sh start", "ptp4ladm.sh stop", "start_ntpd.sh "}));
    EXPECT_FALSE(PTPManage::instance().isRunning());
    EXPECT_TRUE(NtpManage::instance().isRunning());
    EXPECT_EQ(readFile("/run/timesync"), "in the way");
}

// ---- reachable devices ----

TEST_F(TimeSyncManagementTest, PathWithTwoPartsIsIgnoredWithoutTimer)
{
    setDebugModeFlag(true);
    tsm->cbReachableFirewire(reachable("reachableDevices/firewire0", "add"));
    EXPECT_TRUE(access->reachable(REAR_FW).empty());
    EXPECT_TRUE(access->reachable(FRONT_FW).empty());
    EXPECT_FALSE(access->delayPending());
    EXPECT_EQ(log.count(LOG_DEBUG,
                        "TimeSyncManagement::cbReachableFirewire notified with unexpected path "
                        "'reachableDevices/firewire0'\n"),
              1u)
        << log.dump();
}

TEST_F(TimeSyncManagementTest, OwnMakersDeviceOnRearNameGoesToRearListAndArmsTimer)
{
    setDebugModeFlag(true);
    tsm->cbReachableFirewire(reachable("reachableDevices/firewire0/0A7C31ABCDEF", "add"));
    EXPECT_EQ(access->reachable(REAR_FW), (std::list<unsigned>{0xABCDEF}));
    EXPECT_TRUE(access->reachable(FRONT_FW).empty());
    EXPECT_TRUE(access->delayPending());
    EXPECT_EQ(log.count(LOG_DEBUG,
                        "TimeSyncManagement::cbReachableFirewire recognized appearance of device abcdef on "),
              1u)
        << log.dump();
    EXPECT_EQ(log.count(LOG_DEBUG, "back side"), 1u) << log.dump();
    EXPECT_EQ(log.count(LOG_DEBUG, "TimeSyncManagement::cbReachableFirewire triggered delayed action"), 1u);

    tsm->cbReachableFirewire(reachable("reachableDevices/firewire1/0A7C31ABCDEF", "add"));
    tsm->cbReachableFirewire(reachable("x/eth5/0a7c31000001", "add"));
    EXPECT_EQ(access->reachable(FRONT_FW), (std::list<unsigned>{0xABCDEF, 0x1}));
    EXPECT_EQ(log.count(LOG_DEBUG, "front side"), 2u) << log.dump();
}

TEST_F(TimeSyncManagementTest, ForeignDeviceIsLoggedAndChangesNothing)
{
    tsm->cbReachableFirewire(reachable("reachableDevices/firewire0/1122334455", "add"));
    tsm->cbReachableFirewire(reachable("reachableDevices/firewire0/zz", "add"));
    EXPECT_TRUE(access->reachable(REAR_FW).empty());
    EXPECT_FALSE(access->delayPending());
    EXPECT_EQ(log.count(LOG_INFO, "device 1122334455 is ignored by synchronisation"), 1u) << log.dump();
    EXPECT_EQ(log.count(LOG_INFO, "device zz is ignored by synchronisation"), 1u) << log.dump();
}

TEST_F(TimeSyncManagementTest, OnlyTheOuiBitsAreCheckedAndTrailingJunkIsIgnored)
{
    tsm->cbReachableFirewire(reachable("reachableDevices/firewire0/FFFF0A7C31000005", "add"));
    tsm->cbReachableFirewire(reachable("reachableDevices/firewire0/0A7C31000006xyz", "add"));
    EXPECT_EQ(access->reachable(REAR_FW), (std::list<unsigned>{0x5, 0x6}));
}

TEST_F(TimeSyncManagementTest, DuplicateAddIsKeptAndOneRemoveTakesOutBoth)
{
    setDebugModeFlag(true);
    tsm->cbReachableFirewire(reachable("reachableDevices/firewire0/0A7C31000001", "add"));
    tsm->cbReachableFirewire(reachable("reachableDevices/firewire0/0A7C31000002", "add"));
    tsm->cbReachableFirewire(reachable("reachableDevices/firewire0/0A7C31000001", "add"));
    EXPECT_EQ(access->reachable(REAR_FW), (std::list<unsigned>{1, 2, 1}));
    tsm->cbReachableFirewire(reachable("reachableDevices/firewire0/0A7C31000001", "remove"));
    EXPECT_EQ(access->reachable(REAR_FW), (std::list<unsigned>{2}));
    EXPECT_EQ(
        log.count(LOG_DEBUG, "TimeSyncManagement::cbReachableFirewire recognized removal of device 1 from "),
        1u)
        << log.dump();
    // Removing what is not there is harmless, and still a change.
    tsm->cbReachableFirewire(reachable("reachableDevices/firewire1/0A7C31000009", "remove"));
    EXPECT_EQ(access->reachable(REAR_FW), (std::list<unsigned>{2}));
    EXPECT_TRUE(access->reachable(FRONT_FW).empty());
    EXPECT_TRUE(access->delayPending());
}

TEST_F(TimeSyncManagementTest, ChangeEventChangesNothingAndArmsNoTimer)
{
    tsm->cbReachableFirewire(reachable("reachableDevices/firewire0/0A7C31000001", "change"));
    EXPECT_TRUE(access->reachable(REAR_FW).empty());
    EXPECT_FALSE(access->delayPending());
}

TEST_F(TimeSyncManagementTest, DelayTimerCallbackRestartsOnlyWhenFired)
{
    tsm->cbReachableDelayTimerCb(false);
    EXPECT_TRUE(settle(rearListener, 0).empty());
    tsm->cbReachableDelayTimerCb(true);
    EXPECT_EQ(settle(rearListener, 1), Lines{kStartRear});
}

TEST_F(TimeSyncManagementTest, TwoDevicesOneSecondApartRestartOnce3000msAfterTheSecond)
{
    observer.peer().addStateAsync("reachableDevices/firewire0/0A7C31000001", true);
    ASSERT_TRUE(runUntil(loop, [&] { return access->reachable(REAR_FW).size() == 1; }));
    runFor(loop, 1000ms);
    EXPECT_TRUE(rearListener.got().empty());
    observer.peer().addStateAsync("reachableDevices/firewire1/0A7C31000003", true);
    ASSERT_TRUE(runUntil(loop, [&] { return access->reachable(FRONT_FW).size() == 1; }));
    const auto second = std::chrono::steady_clock::now();

    // Before 3000 ms after the second change nothing is sent.
    runFor(loop, 2500ms);
    EXPECT_TRUE(rearListener.got().empty());
    ASSERT_TRUE(runUntil(
        loop, [&] { return !rearListener.got().empty(); }, 3000ms));
    const auto elapsed = std::chrono::steady_clock::now() - second;
    EXPECT_GE(elapsed, 2900ms);
    runFor(loop, 500ms);
    EXPECT_EQ(rearListener.got(), Lines{kStartRear});
    EXPECT_EQ(access->modules().size(REAR_FW), 2u);
    EXPECT_EQ(access->modules().size(FRONT_FW), 2u);

    // A removal restarts as well.
    rearListener.clear();
    observer.peer().removeStateAsync("reachableDevices/firewire0/0A7C31000001");
    ASSERT_TRUE(runUntil(loop, [&] { return access->reachable(REAR_FW).empty(); }));
    ASSERT_TRUE(runUntil(
        loop, [&] { return !rearListener.got().empty(); }, 4000ms));
    EXPECT_EQ(access->modules().size(REAR_FW), 1u);
}

TEST_F(TimeSyncManagementTest, ForeignAndMalformedDevicesOnTheBusTriggerNothing)
{
    observer.peer().addStateAsync("reachableDevices/firewire0/1122334455", true);
    observer.peer().addStateAsync("reachableDevices/firewire0", true);
    observer.peer().addStateAsync("reachableDevices/firewire0/0A7C31000004", Json::Value());
    observer.peer().notifyState("reachableDevices/firewire0/0A7C31000004", Json::Value(1));
    ASSERT_TRUE(runUntil(loop, [&] { return access->reachable(REAR_FW).size() == 1; }));
    ASSERT_TRUE(runUntil(
        loop, [&] { return log.count(LOG_INFO, "device 1122334455 is ignored by synchronisation") == 1; }));
    runFor(loop, 200ms);
    EXPECT_EQ(access->reachable(REAR_FW), (std::list<unsigned>{4}));
}

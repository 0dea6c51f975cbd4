#pragma once

// The world of one sync manager under test: a module identity set up before
// the first use of the identity singletons (see SyncTestEnv.h for the parts),
// a real broker, the manager's two multicast servers, a bus observer and one
// multicast listener per side. Each test file picks one identity.

#include <gtest/gtest.h>
#include <syslog.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <orv/communication/MulticastServer.h>
#include <orv/communication/NetadapterList.h>
#include <orv/sys/EventLoop.h>
#include <vela/PeerAsync.h>

#include "config/Config.h"
#include "config/ConfigParams.h"
#include "main/Debug.h"
#include "protocol/CurrentModules.h"
#include "sync/CommandRunner.h"
#include "sync/NtpManage.h"
#include "sync/PTPManage.h"
#include "sync/SyncTestEnv.h"
#include "sync/TimeSyncManagement.h"
#include "testsupport/PrivateMounts.h"
#include "testsupport/SyslogCapture.h"

namespace orv::tsd {

// Reaches into the manager to preset and inspect its state.
class TimeSyncManagementTestAccess
{
public:
    explicit TimeSyncManagementTestAccess(TimeSyncManagement& tsm) : m_tsm(tsm) {}

    enTsdPhase& state() { return m_tsm.m_State; }
    interface_t& expected() { return m_tsm.m_ExpectedInterface; }
    bool& changeFlag(interface_t side) { return m_tsm.m_ChangeFlag[side]; }
    ModuleItem& master(interface_t side) { return m_tsm.m_SyncMaster[side]; }
    enSyncStatus& status(interface_t side) { return m_tsm.m_SyncStatus[side]; }
    unsigned& prioToRear() { return m_tsm.m_PropagationPrioToRear; }
    unsigned& thresholdToRear() { return m_tsm.m_PropagationThresholdToRear; }
    unsigned& prioToFront() { return m_tsm.m_PropagationPrioToFront; }
    unsigned& thresholdToFront() { return m_tsm.m_PropagationThresholdToFront; }
    bool& rearIndependent() { return m_tsm.m_rearIndependent; }
    bool& frontIndependent() { return m_tsm.m_frontIndependent; }
    bool& useOwnParams() { return m_tsm.m_useOwnParams; }
    unsigned& lastMaster() { return m_tsm.m_lastSyncMasterUuid; }
    std::list<unsigned>& reachable(interface_t side)
    {
        return side == FRONT_FW ? m_tsm.m_reachableFront : m_tsm.m_reachableRear;
    }
    CurrentModules& modules() { return m_tsm.m_currentModules; }
    bool delayPending() const { return m_tsm.m_reachableDelayTimer.isPending(); }
    TsdConfig& tsdConfig() { return m_tsm.m_tsdConfig; }

private:
    TimeSyncManagement& m_tsm;
};

// Tests switch the gateway family on here; production never does.
class ConfigTestAccess
{
public:
    static void setGateway(bool on) { Config::instance().m_isKPModule = on; }
};

}  // namespace orv::tsd

namespace synctest {

constexpr unsigned kOwnUuid = 0x10a0b0;
constexpr const char* kOwnLabel = "0A7C3110A0B0";

// Sets up the identity of the module once per test program, before anything
// asks Config or ConfigParams.
class ModuleEnvironment : public ::testing::Environment
{
public:
    ModuleEnvironment(std::string moduleType, bool forceGateway)
        : m_moduleType(std::move(moduleType)), m_forceGateway(forceGateway)
    {
    }

    void SetUp() override
    {
        ASSERT_TRUE(enterPrivateNetwork());
        m_rear = std::make_unique<FirewireTap>("firewire0", kRearAddress, rearNodeId(kOwnUuid));
        m_front = std::make_unique<FirewireTap>("firewire1", kFrontAddress, frontNodeId(kOwnUuid));
        ASSERT_TRUE(testsupport::PrivateMounts::shadow("/etc"));
        ASSERT_TRUE(testsupport::PrivateMounts::writeFile("/etc/TimeSourceDaemonConfig.xml", configXml()));
        ASSERT_TRUE(testsupport::PrivateMounts::setModuleType(m_moduleType));
        ASSERT_EQ(::setenv("UUID", "10a0b0", 1), 0);

        const orv::tsd::Config& config = orv::tsd::Config::instance();
        ASSERT_EQ(config.getUuid(), kOwnUuid);
        ASSERT_EQ(config.getRearInterfaceName(), "firewire0");
        ASSERT_EQ(config.getInterfaceAddress(orv::tsd::REAR_FW), kRearAddress);
        ASSERT_EQ(config.getInterfaceAddress(orv::tsd::FRONT_FW), kFrontAddress);
        ASSERT_FALSE(config.IsKPModule());
        if (m_forceGateway) {
            orv::tsd::ConfigTestAccess::setGateway(true);
        }
    }

    void TearDown() override
    {
        m_rear.reset();
        m_front.reset();
    }

private:
    std::string m_moduleType;
    bool m_forceGateway;
    std::unique_ptr<FirewireTap> m_rear;
    std::unique_ptr<FirewireTap> m_front;
};

class SyncManagerTest : public ::testing::Test
{
protected:
    using ModuleItem = ::ModuleItem;

    void SetUp() override
    {
        orv::tsd::setDebugModeFlag(false);
        ASSERT_NE(velad.port(), 0u);
        // The service managers live as long as the process: start every test
        // with both services stopped and no files.
        scripts.clear();
        orv::tsd::NtpManage::instance().stop(orv::tsd::systemRunner());
        orv::tsd::PTPManage::instance().stop(orv::tsd::systemRunner());
        ASSERT_FALSE(orv::tsd::NtpManage::instance().isRunning());
        ASSERT_FALSE(orv::tsd::PTPManage::instance().isRunning());
        scripts.clear();
        ASSERT_TRUE(privateRun());

        auto drain = [](orv::communication::MulticastServer& server) {
            char buffer[512];
            orv::communication::Netadapter from;
            int index = 0;
            return server.receiveTelegram(buffer, sizeof buffer, from, index);
        };
        ASSERT_EQ(rearServer.start(kGroup, kPort, drain), 0);
        ASSERT_EQ(frontServer.start(kGroup, kPort + 1, drain), 0);

        tsm = std::make_unique<orv::tsd::TimeSyncManagement>(rearServer, frontServer, loop, peer);
        access = std::make_unique<orv::tsd::TimeSyncManagementTestAccess>(*tsm);
        ASSERT_TRUE(runUntil(loop, [&] { return observer.has("sync/app") && observer.has("sync/master"); }));
        log.clear();
    }

    void TearDown() override
    {
        orv::tsd::setDebugModeFlag(false);
        access.reset();
        tsm.reset();
    }

    // Announces time source and threshold on "sync/param" as the platform
    // does, and waits for the manager to take it (which restarts the election).
    void publishParam(const std::string& source, double threshold, const std::string& ptp = "-4 -i firewire0",
                      const std::string& ntp = "127.0.0.2")
    {
        const Json::Value value = paramValue(source, threshold, ptp, ntp);
        if (m_paramPublished) {
            observer.peer().notifyState("sync/param", value);
        } else {
            observer.peer().addStateAsync("sync/param", value);
            m_paramPublished = true;
        }
        const unsigned level = ::ConfigParams::instance().getPrioLevel(source);
        const unsigned tenths = static_cast<unsigned>(threshold / 0.1 + 0.5);
        ASSERT_TRUE(runUntil(loop, [&] {
            return access->tsdConfig().getTimesourcePrio() == level &&
                   access->tsdConfig().getThreshold() == tenths && access->tsdConfig().getPtpCfg() == ptp &&
                   access->tsdConfig().getNtpCfg() == ntp;
        }));
    }

    // Runs one election round on a side: every listed module answers. The
    // own entry answers with the values the manager announces itself.
    bool answerAll(orv::tsd::interface_t side, const std::vector<ModuleItem>& others)
    {
        unsigned prio = 0;
        unsigned threshold = 0;
        tsm->getTsdParam(prio, threshold, side);
        bool complete = tsm->setEntry(
            ModuleItem(kOwnUuid, orv::tsd::Config::instance().getModulePrio(), prio, threshold), side);
        for (const ModuleItem& item : others) {
            complete = tsm->setEntry(item, side);
        }
        return complete;
    }

    // The telegrams a listener has received within a short time.
    std::vector<std::string> settle(TelegramListener& listener, std::size_t expected,
                                    std::chrono::milliseconds quiet = std::chrono::milliseconds(150))
    {
        runUntil(
            loop, [&] { return listener.got().size() >= expected; }, std::chrono::seconds(3));
        runFor(loop, quiet);
        return listener.got();
    }

    Json::Value app() const { return observer.state("sync/app"); }

    // What the manager announces towards side: priority and threshold (tenths).
    using Announced = std::pair<unsigned, unsigned>;
    Announced announced(orv::tsd::interface_t side)
    {
        unsigned prio = 0;
        unsigned threshold = 0;
        tsm->getTsdParam(prio, threshold, side);
        return {prio, threshold};
    }

    testsupport::LocalVelad velad{{"--quiet"}};
    orv::sys::EventLoop loop;
    orv::communication::NetadapterList adapters;
    orv::communication::MulticastServer rearServer{adapters, loop};
    orv::communication::MulticastServer frontServer{adapters, loop};
    vela::PeerAsync peer{loop, "127.0.0.1", velad.port(), "tsd"};
    testsupport::BusWatcher observer{loop, velad.port(), "", "observer"};
    TelegramListener rearListener{adapters, loop, kPort, kRearAddress};
    TelegramListener frontListener{adapters, loop, kPort + 1, kFrontAddress};
    ScriptStandIns scripts;
    testsupport::SyslogCapture log;
    std::unique_ptr<orv::tsd::TimeSyncManagement> tsm;
    std::unique_ptr<orv::tsd::TimeSyncManagementTestAccess> access;

private:
    bool m_paramPublished = false;
};

}  // namespace synctest

#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "ChainTestUtil.h"
#include "tsdsim/Scenario.h"

// Helpers for the fault scenarios: a chain file played by the Scenario (so
// the fault events are those of the chain-file format), then the checks each
// fault scenario makes once the fault is over: every daemon and broker
// alive, every bus still holding what was published on it, the chain agreed
// again, and how long that took.
namespace simtest {

class FaultRun
{
public:
    explicit FaultRun(const std::string& chainText) : m_scenario(tsdsim::parseChain(chainText))
    {
        m_scenario.build();
    }

    tsdsim::Scenario& scenario() { return m_scenario; }
    tsdsim::World& world() { return m_scenario.world(); }
    tsdsim::Faults& faults() { return m_scenario.faults(); }
    tsdsim::Module& operator[](const std::string& name) { return *world().findModule(name); }

    // Plays the timeline up to the chain's duration.
    bool run() { return m_scenario.run({}, std::chrono::seconds(1)); }

    // Lets the lasting faults run out (the Scenario stops ticking them at
    // the chain's end).
    void finishFaults(std::chrono::milliseconds timeout = std::chrono::seconds(60))
    {
        const auto until = std::chrono::steady_clock::now() + timeout;
        while (faults().active() && std::chrono::steady_clock::now() < until) {
            faults().tick();
            world().maintain();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_FALSE(faults().active()) << "the faults did not end in time";
    }

    // Whether every daemon and broker of the chain runs.
    bool allAlive()
    {
        for (auto& m : world().modules()) {
            if (!m->tsdRunning() || !m->veladRunning()) {
                return false;
            }
        }
        return true;
    }

    // Whether module follows masterUuid on its rear side, as master (3),
    // slave (2) or, with alone, on its own (1), and shows no error.
    static bool settled(tsdsim::Module& m, std::uint32_t masterUuid, bool alone = false)
    {
        if (!m.states("sync/errors/").empty()) {
            return false;
        }
        if (alone) {
            Json::Value app = m.state("sync/app");
            return !app.isNull() && app["mode_back"].asInt() == 1;
        }
        return Chain::follows(m, masterUuid);
    }

    // Whether module m completed an election on its rear side after world
    // time since: the daemon's debug trace (it runs with -d) has a line for
    // every election result it applies.
    static bool electedSince(tsdsim::Module& m, double since)
    {
        for (const auto& l : m.syslog()) {
            if (l.time >= since && l.ident == "tsd" && l.text.rfind("SYNCMASTER(0)", 0) == 0) {
                return true;
            }
        }
        return false;
    }

    // Waits until every module completed an election after faultEnd (world
    // time; unless elect is false: a fault after which nothing needs to
    // change), is settled on masterUuid (the names in alone on their own)
    // and everything runs; returns the seconds from faultEnd until then, or
    // -1 after timeout. Prints it.
    double recovery(const std::string& what, double faultEnd, std::uint32_t masterUuid,
                    const std::set<std::string>& alone = {}, bool elect = true,
                    std::chrono::milliseconds timeout = simtest::kSettle)
    {
        double done = -1;
        // Whatever the chain showed during the fault does not count.
        world().waitFor([&] { return world().now() >= faultEnd; }, timeout);
        bool ok = world().waitFor(
            [&] {
                for (auto& m : world().modules()) {
                    if (!settled(*m, masterUuid, alone.count(m->name()) != 0) ||
                        (elect && !electedSince(*m, faultEnd))) {
                        return false;
                    }
                }
                return allAlive();
            },
            timeout);
        if (ok) {
            done = world().now() - faultEnd;
            std::printf("RECOVERY %s: %.2f s after the fault ended\n", what.c_str(), done);
            std::fflush(stdout);
            ::testing::Test::RecordProperty("recovery_ms", static_cast<int>(done * 1000));
        }
        return done;
    }

    // Gives module name a new threshold and waits until every module shows
    // it as its rear master's threshold. Returns the world time taken before
    // the set, since the election it starts may end before the set's client
    // has exited, or -1 when the chain did not agree in time.
    double changeThreshold(const std::string& name, double threshold)
    {
        tsdsim::Module& m = (*this)[name];
        tsdsim::SyncParam p = m.param();
        p.threshold = threshold;
        const double changed = world().now();
        m.setParam(p);
        const bool agreed = world().waitFor(
            [&] {
                for (auto& other : world().modules()) {
                    if (other->state("sync/app")["master_threshold_back"].asDouble() != threshold) {
                        return false;
                    }
                }
                return true;
            },
            simtest::kSettle);
        return agreed ? changed : -1;
    }

    // World time of a scenario time (seconds after the start).
    double worldTime(double scenarioTime) { return world().now() - m_scenario.now() + scenarioTime; }

    // What the module's broker holds, asked from inside the module as any
    // client would: PATH<TAB>VALUE lines.
    std::string busList(tsdsim::Module& m)
    {
        std::string out;
        int st = m.run({world().binDir() + "/vela", "list"}, &out, std::chrono::seconds(10));
        EXPECT_EQ(st, 0) << m.name() << ": vela list failed";
        return out;
    }

    // Nothing lost: each broker holds the module's "sync/param" (when
    // published), exactly the reachable devices the cabling gives, and the
    // daemon's "sync/app" and "sync/master".
    void expectBusesHoldState()
    {
        for (auto& mp : world().modules()) {
            tsdsim::Module& m = *mp;
            const std::string list = busList(m);
            std::set<std::string> reachable;
            std::istringstream in(list);
            std::string line;
            bool param = false, app = false, master = false;
            while (std::getline(in, line)) {
                const std::string path = line.substr(0, line.find('\t'));
                if (path.rfind("reachableDevices/", 0) == 0) {
                    reachable.insert(path);
                }
                param = param || path == "sync/param";
                app = app || path == "sync/app";
                master = master || path == "sync/master";
            }
            EXPECT_TRUE(param || !m.setup().publishParam) << m.name() << ": sync/param lost\n" << list;
            EXPECT_TRUE(app) << m.name() << ": sync/app lost\n" << list;
            EXPECT_TRUE(master) << m.name() << ": sync/master lost\n" << list;
            EXPECT_EQ(reachable, world().reachableFor(m)) << m.name() << "\n" << list;
        }
    }

    std::string dump()
    {
        std::string out;
        for (auto& m : world().modules()) {
            out += m->name() + ": app=" + m->state("sync/app").toStyledString() +
                   " master=" + m->state("sync/master").toStyledString() +
                   " tsd=" + (m->tsdRunning() ? "up" : "down") + " velad=" + (m->veladRunning() ? "up" : "down");
            for (const auto& e : m->states("sync/errors/")) {
                out += " " + e.first;
            }
            out += "\n";
        }
        return out;
    }

    // SIGTERM to every daemon: each must end with status 0.
    void expectCleanExit()
    {
        for (auto& m : world().modules()) {
            int st = m->stopTsd(SIGTERM, std::chrono::seconds(10));
            EXPECT_TRUE(st >= 0 && WIFEXITED(st) && WEXITSTATUS(st) == 0) << m->name() << ": wait status " << st;
        }
    }

private:
    tsdsim::Scenario m_scenario;
};

}  // namespace simtest

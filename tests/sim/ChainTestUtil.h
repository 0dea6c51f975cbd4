#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tsdsim/World.h"

// Helpers for the numbered scenarios: build a chain of real daemons on one
// bus, compute which module must win, and check what every module publishes.
namespace simtest {

using namespace std::chrono_literals;

// Generous: the daemons wait 3 s after the last reachable-device change and
// answer with up to 199 ms back-off each; a loaded machine adds to that.
constexpr std::chrono::milliseconds kSettle = 40s;

inline tsdsim::ModuleSetup module(const std::string& name, std::uint32_t uuid, const std::string& type = "RZ",
                                  const std::string& timesource = "Ptp", double threshold = 1.0)
{
    tsdsim::ModuleSetup s;
    s.name = name;
    s.uuid = uuid;
    s.type = type;
    s.param.timesource = timesource;
    s.param.threshold = threshold;
    return s;
}

inline unsigned level(const std::vector<std::pair<std::string, unsigned>>& levels, const std::string& name)
{
    for (const auto& l : levels) {
        if (l.first == name) {
            return l.second;
        }
    }
    return 0;
}

// The module that must win the election among setups: the largest sum of
// module priority and time-source priority, ties to the larger UUID.
inline const tsdsim::ModuleSetup& expectedMaster(const std::vector<tsdsim::ModuleSetup>& setups)
{
    auto key = [](const tsdsim::ModuleSetup& s) {
        unsigned mod = level(s.moduleLevels, s.type == "KP40" ? "KP" : "RZ");
        unsigned src = level(s.sourceLevels, s.param.timesource);
        return std::make_pair(mod + src, s.uuid & 0xFFFFFFu);
    };
    const tsdsim::ModuleSetup* best = &setups.front();
    for (const auto& s : setups) {
        if (key(s) > key(*best)) {
            best = &s;
        }
    }
    return *best;
}

// A world with one bus "chain" and the given modules on it, all started.
class Chain
{
public:
    explicit Chain(const std::vector<tsdsim::ModuleSetup>& setups) : m_setups(setups)
    {
        m_bus = &m_world.addBus("chain");
        for (const auto& s : setups) {
            tsdsim::Module& m = m_world.addModule(s);
            m.addInterface(tsdsim::Side::Rear, *m_bus);
        }
        m_world.updateReachable();
        m_started = m_world.startAll({"-d"});
    }

    bool started() const { return m_started; }
    tsdsim::World& world() { return m_world; }
    tsdsim::Bus& bus() { return *m_bus; }
    tsdsim::Module& operator[](std::size_t i) { return *m_world.modules().at(i); }
    std::size_t size() const { return m_world.modules().size(); }
    const std::vector<tsdsim::ModuleSetup>& setups() const { return m_setups; }

    // Whether module m shows masterUuid as its rear master, in sync/app and
    // sync/master, with mode master (3) when it is that module and slave (2)
    // otherwise.
    static bool follows(tsdsim::Module& m, std::uint32_t masterUuid)
    {
        Json::Value app = m.state("sync/app");
        Json::Value master = m.state("sync/master");
        if (app.isNull() || !master.isString()) {
            return false;
        }
        tsdsim::ModuleSetup ref;
        ref.uuid = masterUuid;
        int mode = (m.setup().uuid & 0xFFFFFFu) == masterUuid ? 3 : 2;
        return app["mode_back"].asInt() == mode && app["master_uuid_back"].asUInt() == masterUuid &&
               master.asString() == ref.label();
    }

    // Waits until every module in names (all when empty) follows masterUuid.
    bool waitAgree(std::uint32_t masterUuid, const std::vector<std::string>& names = {},
                   std::chrono::milliseconds timeout = kSettle)
    {
        return m_world.waitFor(
            [&] {
                for (auto& m : m_world.modules()) {
                    if (!names.empty() && std::find(names.begin(), names.end(), m->name()) == names.end()) {
                        continue;
                    }
                    if (!follows(*m, masterUuid)) {
                        return false;
                    }
                }
                return true;
            },
            timeout);
    }

    // A readable picture of what every module publishes, for failure messages.
    std::string dump()
    {
        std::string out;
        for (auto& m : m_world.modules()) {
            out += m->name() + ": app=" + m->state("sync/app").toStyledString() +
                   "   master=" + m->state("sync/master").toStyledString();
            for (const auto& e : m->states("sync/errors/")) {
                out += "   " + e.first;
            }
            out += "\n";
        }
        return out;
    }

    // SIGTERM to every daemon; each must exit with status 0.
    void expectCleanExit()
    {
        for (auto& m : m_world.modules()) {
            if (m->tsdRunning()) {
                ::kill(m->tsdPid(), SIGTERM);
            }
        }
        for (auto& m : m_world.modules()) {
            int st = m->stopTsd(SIGTERM, 10s);
            EXPECT_TRUE(st >= 0 && WIFEXITED(st) && WEXITSTATUS(st) == 0)
                << m->name() << ": wait status " << st;
        }
    }

private:
    std::vector<tsdsim::ModuleSetup> m_setups;
    tsdsim::World m_world;
    tsdsim::Bus* m_bus = nullptr;
    bool m_started = false;
};

}  // namespace simtest

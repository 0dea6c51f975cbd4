// tsdmon inside a simulated module, watching real daemons elect: it reads the
// module's own configuration file, and what it reports as the winner of each
// round is what the daemons then publish as their master.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "MonitorTestUtil.h"
#include "tsdsim/ChildProcess.h"
#include "tsdsim/World.h"

using namespace std::chrono_literals;

namespace {

// Generous: the daemons wait 3 s after the last device change, answer with
// up to 199 ms back-off, and tsdmon closes a round 3 s after its last request.
constexpr auto kSettle = 40s;

// tsdmon --json running in a module's namespaces, read line by line.
class Watcher
{
public:
    Watcher(const tsdsim::World& world, const tsdsim::Module& module)
    {
        tsdsim::ChildProcess::Options options;
        options.argv = {world.binDir() + "/tsdmon", "--json", "--side", "rear"};
        options.netnsFd = module.netnsFd();
        options.mntnsFd = module.mntnsFd();
        options.pipeStdout = true;
        options.outputFile = module.dir() + "/tsdmon.err";
        m_started = m_process.start(options);
        m_error = m_process.error();
    }

    bool started() const { return m_started; }
    const std::string& error() const { return m_error; }
    const std::vector<Json::Value>& seen() const { return m_seen; }

    // Reads events until one matches; false after timeout.
    bool waitFor(const std::function<bool(const Json::Value&)>& match, std::chrono::milliseconds timeout)
    {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            for (; m_checked < m_seen.size(); ++m_checked) {
                if (match(m_seen[m_checked])) {
                    ++m_checked;
                    return true;
                }
            }
            const auto left = deadline - std::chrono::steady_clock::now();
            if (left <= 0s)
                return false;
            pollfd fd{m_process.stdoutFd(), POLLIN, 0};
            const int ms = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(left).count());
            if (::poll(&fd, 1, ms) <= 0)
                continue;
            char chunk[4096];
            const ssize_t n = ::read(m_process.stdoutFd(), chunk, sizeof chunk);
            if (n <= 0)
                return false;
            m_buffer.append(chunk, static_cast<std::size_t>(n));
            for (std::string::size_type end; (end = m_buffer.find('\n')) != std::string::npos;) {
                m_seen.push_back(tsdmontest::parseJson(m_buffer.substr(0, end)));
                m_buffer.erase(0, end + 1);
            }
        }
    }

private:
    tsdsim::ChildProcess m_process;
    bool m_started = false;
    std::string m_error;
    std::string m_buffer;
    std::vector<Json::Value> m_seen;
    std::size_t m_checked = 0;
};

tsdsim::ModuleSetup setup(const std::string& name, std::uint32_t uuid, const std::string& timesource,
                          double threshold)
{
    tsdsim::ModuleSetup s;
    s.name = name;
    s.uuid = uuid;
    s.param.timesource = timesource;
    s.param.threshold = threshold;
    return s;
}

bool electionWon(const Json::Value& event, const std::string& winner, unsigned answered)
{
    return event["event"] == "election" && event["side"] == "rear" && !event["winner"].isNull() &&
           event["winner"]["uuid"] == winner && event["answered"].size() == answered;
}

const Json::Value* itemOf(const std::vector<Json::Value>& seen, const std::string& uuid)
{
    for (auto it = seen.rbegin(); it != seen.rend(); ++it) {
        if ((*it)["event"] == "item" && (*it)["uuid"] == uuid)
            return &*it;
    }
    return nullptr;
}

}  // namespace

TEST(TsdmonChain, ReportsTheElectionsOfRealDaemonsAndTheModuleThatLeft)
{
    tsdsim::World world;
    tsdsim::Bus& bus = world.addBus("chain");
    // m1 and m3 announce PTP (level 2), m2 NTP (level 1): m3 wins on its
    // uuid, and without m3 the sum makes m1 win over m2.
    tsdsim::Module& m1 = world.addModule(setup("m1", 0x00e101, "Ptp", 1.0));
    tsdsim::Module& m2 = world.addModule(setup("m2", 0x00e102, "Ntp", 0.5));
    tsdsim::Module& m3 = world.addModule(setup("m3", 0x00e103, "Ptp", 2.5));
    for (tsdsim::Module* m : {&m1, &m2, &m3})
        world.plug(*m, tsdsim::Side::Rear, bus);

    Watcher watcher(world, m2);
    ASSERT_TRUE(watcher.started()) << watcher.error();
    ASSERT_TRUE(watcher.waitFor([](const Json::Value& e) { return e["event"] == "listening"; }, 10s));
    // The module's own configuration file gave the group and port.
    EXPECT_EQ(watcher.seen().back()["group"], "239.255.77.1");
    EXPECT_EQ(watcher.seen().back()["port"], 14000);
    EXPECT_EQ(watcher.seen().back()["address"], m2.address(tsdsim::Side::Rear));

    ASSERT_TRUE(world.startAll());
    ASSERT_TRUE(watcher.waitFor([](const Json::Value& e) { return electionWon(e, "0A7C3100E103", 3); }, kSettle));
    // What tsdmon named is what the daemons elect.
    ASSERT_TRUE(world.waitFor(
        [&] {
            for (tsdsim::Module* m : {&m1, &m2, &m3}) {
                if (m->state("sync/master").asString() != "0A7C3100E103")
                    return false;
            }
            return true;
        },
        kSettle));

    const Json::Value* third = itemOf(watcher.seen(), "0A7C3100E103");
    ASSERT_NE(third, nullptr);
    EXPECT_EQ((*third)["module"], 10);
    EXPECT_EQ((*third)["prio"], 2);
    EXPECT_EQ((*third)["threshold"], 25);
    EXPECT_EQ((*third)["sender"], m3.address(tsdsim::Side::Rear));
    const Json::Value* second = itemOf(watcher.seen(), "0A7C3100E102");
    ASSERT_NE(second, nullptr);
    EXPECT_EQ((*second)["prio"], 1);
    EXPECT_EQ((*second)["threshold"], 5);

    // The master leaves the chain: the others elect again without it, and
    // tsdmon names the module that no longer answers.
    world.unplug(m3);
    ASSERT_TRUE(watcher.waitFor(
        [](const Json::Value& e) {
            return electionWon(e, "0A7C3100E101", 2) && e["stopped"].size() == 1 &&
                   e["stopped"][0] == "0A7C3100E103";
        },
        kSettle));
    ASSERT_TRUE(world.waitFor(
        [&] {
            return m1.state("sync/master").asString() == "0A7C3100E101" &&
                   m2.state("sync/master").asString() == "0A7C3100E101";
        },
        kSettle));

    // Real daemons write nothing malformed, and every request was named by
    // the items from the same address. A daemon that answers a start before
    // its parameters have come from the bus announces time-source priority 0,
    // and tsdmon rightly notes that such an item keeps the list incomplete;
    // once a module has announced its priorities it never goes back to 0, as
    // its parameters stay on the bus.
    std::set<std::string> announced;
    for (const Json::Value& event : watcher.seen()) {
        EXPECT_NE(event["event"], "malformed") << event.toStyledString();
        if (event["event"] == "election") {
            for (const Json::Value& request : event["requests"])
                EXPECT_FALSE(request["uuid"].isNull()) << event.toStyledString();
        }
        if (event["event"] == "request") {
            EXPECT_EQ(event["notes"].size(), 0u) << event.toStyledString();
        }
        if (event["event"] == "item") {
            const std::string uuid = event["uuid"].asString();
            const bool awaitingParameters = event["prio"] == 0 && event["module"] == 10 && !announced.count(uuid);
            EXPECT_EQ(event["notes"].size(), awaitingParameters ? 1u : 0u) << event.toStyledString();
            if (event["prio"] != 0)
                announced.insert(uuid);
        }
    }
}

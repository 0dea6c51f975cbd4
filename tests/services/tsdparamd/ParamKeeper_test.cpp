// The keeper of "sync/param" in the test's own process, on a real velad,
// with a file system that fails where the test says: a value reaches the
// bus only once it is stored, and a value that cannot be stored changes
// nothing.
#include <gtest/gtest.h>
#include <syslog.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <orv/sys/EventLoop.h>
#include <vela/PeerAsync.h>

#include "AtomicFile.h"
#include "JsonText.h"
#include "ParamKeeper.h"
#include "ParamRules.h"
#include "Ptp4lAllowList.h"
#include "testsupport/BusWatcher.h"
#include "testsupport/LocalVelad.h"
#include "testsupport/LoopRun.h"
#include "testsupport/PrivateMounts.h"
#include "testsupport/SyslogCapture.h"

using namespace std::chrono_literals;
using orv::services::FileSystem;
using orv::services::ParamKeeper;
using orv::services::ParamRules;
using orv::services::Ptp4lAllowList;
using testsupport::BusWatcher;
using testsupport::runFor;
using testsupport::runUntil;

namespace {

// The kernel's file system that records the steps it is asked for and fails
// the n-th call of one kind (-1, EIO).
class FailingFileSystem : public FileSystem
{
public:
    std::vector<std::string> calls;
    std::string failKind;
    int failOccurrence = 1;

    int openFile(const std::string& path, int flags, mode_t mode) override
    {
        return fails("open") ? -1 : FileSystem::openFile(path, flags, mode);
    }
    ssize_t writeSome(int fd, const char* data, std::size_t size) override
    {
        return fails("write") ? -1 : FileSystem::writeSome(fd, data, size);
    }
    int syncFile(int fd) override { return fails("fsync") ? -1 : FileSystem::syncFile(fd); }
    int renameFile(const std::string& from, const std::string& to) override
    {
        return fails("rename") ? -1 : FileSystem::renameFile(from, to);
    }

private:
    bool fails(const std::string& kind)
    {
        calls.push_back(kind);
        if (kind != failKind || std::count(calls.begin(), calls.end(), kind) != failOccurrence) {
            return false;
        }
        errno = EIO;
        return true;
    }
};

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

class Keeper : public ::testing::Test
{
protected:
    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(m_list.load(std::string(TSD_SOURCE_DIR) + "/packaging/config/ptp4l-options", error));
        m_dir = testsupport::PrivateMounts::scratchDir(
            std::string("keeper-") + ::testing::UnitTest::GetInstance()->current_test_info()->name());
        m_state = m_dir + "/param.json";
        m_keeper = std::make_unique<ParamKeeper>(m_peer, m_rules,
                                                 ParamKeeper::Files{m_state, m_dir + "/none"}, m_fs);
        bool added = false;
        m_keeper->start([&](const std::string& refused) {
            EXPECT_EQ(refused, "");
            added = true;
        });
        ASSERT_TRUE(runUntil(
            m_loop, [&] { return added && m_watcher.has("sync/param"); }, 5s));
        m_fs.calls.clear();
    }

    Json::Value set(const Json::Value& value)
    {
        Json::Value answer;
        m_watcher.peer().setAsync("sync/param", value,
                                  [&](const Json::Value& response) { answer = response; });
        EXPECT_TRUE(runUntil(
            m_loop, [&] { return !answer.isNull(); }, 5s));
        return answer;
    }

    testsupport::SyslogCapture m_capture;
    testsupport::LocalVelad m_velad{{"--quiet"}};
    orv::sys::EventLoop m_loop;
    BusWatcher m_watcher{m_loop, m_velad.port(), "sync/param"};
    vela::PeerAsync m_peer{m_loop, "127.0.0.1", m_velad.port(), "keeper"};
    Ptp4lAllowList m_list;
    ParamRules m_rules{{"Ntp", "Ptp"}, m_list};
    FailingFileSystem m_fs;
    std::string m_dir;
    std::string m_state;
    std::unique_ptr<ParamKeeper> m_keeper;
};

Json::Value timesource(const char* name)
{
    Json::Value value;
    value["timesource"] = name;
    return value;
}

}  // namespace

TEST_F(Keeper, AnAcceptedValueIsStoredThenShown)
{
    const Json::Value answer = set(timesource("Ntp"));
    ASSERT_TRUE(answer.isMember("result")) << vela::toCompact(answer);
    EXPECT_EQ(answer["result"]["timesource"].asString(), "Ntp");
    EXPECT_EQ(answer["result"]["ptp4l"].asString(), "-4 -E -H -i eth0") << "the other keys stay";
    ASSERT_TRUE(runUntil(
        m_loop, [&] { return m_watcher.state("sync/param")["timesource"] == "Ntp"; }, 5s));
    EXPECT_EQ(readFile(m_state), vela::toCompact(m_watcher.state("sync/param")) + "\n");
    const std::vector<std::string> steps = {"open", "write", "fsync", "rename", "open", "fsync"};
    EXPECT_EQ(m_fs.calls, steps);
}

TEST_F(Keeper, AValueThatCannotBeStoredChangesNothing)
{
    std::ofstream(m_state) << "old\n";
    for (const char* kind : {"open", "write", "fsync", "rename"}) {
        SCOPED_TRACE(kind);
        m_fs.failKind = kind;
        m_fs.calls.clear();
        const int before = m_watcher.notifications("sync/param");
        const Json::Value answer = set(timesource("Ntp"));
        ASSERT_TRUE(answer.isMember("error")) << vela::toCompact(answer);
        EXPECT_EQ(answer["error"]["code"].asInt(), -32011);
        EXPECT_NE(answer["error"]["message"].asString().find("cannot store the value (" + std::string(kind)),
                  std::string::npos)
            << answer["error"]["message"].asString();
        runFor(m_loop, 200ms);
        EXPECT_EQ(m_watcher.notifications("sync/param"), before);
        EXPECT_EQ(m_watcher.state("sync/param")["timesource"].asString(), "Ptp");
        EXPECT_EQ(m_keeper->value()["timesource"].asString(), "Ptp");
        EXPECT_EQ(readFile(m_state), "old\n");
        EXPECT_FALSE(std::filesystem::exists(m_state + ".tmp"));
    }
    EXPECT_GE(m_capture.countText("cannot store sync/param in " + m_state +
                                  " (rename: Input/output error); the value stays as it was"),
              1u)
        << m_capture.dump();
}

TEST_F(Keeper, AFailedSyncOfTheDirectoryStillShowsTheStoredValue)
{
    m_fs.failKind = "fsync";
    m_fs.failOccurrence = 2;
    const Json::Value answer = set(timesource("Ntp"));
    ASSERT_TRUE(answer.isMember("result")) << vela::toCompact(answer);
    ASSERT_TRUE(runUntil(
        m_loop, [&] { return m_watcher.state("sync/param")["timesource"] == "Ntp"; }, 5s));
    EXPECT_EQ(readFile(m_state), vela::toCompact(m_watcher.state("sync/param")) + "\n");
    EXPECT_TRUE(
        m_capture.contains(LOG_ERR, "sync/param stored in " + m_state +
                                        ", but the fsync of the directory failed (Input/output error); "
                                        "a power cut may bring back the old value"))
        << m_capture.dump();
}

TEST_F(Keeper, TheSameValueAgainWritesAndShowsNothing)
{
    ASSERT_TRUE(set(timesource("Ntp")).isMember("result"));
    ASSERT_TRUE(runUntil(
        m_loop, [&] { return m_watcher.state("sync/param")["timesource"] == "Ntp"; }, 5s));
    const int before = m_watcher.notifications("sync/param");
    m_fs.calls.clear();
    const Json::Value answer = set(timesource("Ntp"));
    ASSERT_TRUE(answer.isMember("result"));
    EXPECT_EQ(answer["result"]["timesource"].asString(), "Ntp");
    runFor(m_loop, 200ms);
    EXPECT_TRUE(m_fs.calls.empty());
    EXPECT_EQ(m_watcher.notifications("sync/param"), before);
}

TEST_F(Keeper, RefusalsAreAnsweredAndNothingIsWritten)
{
    const Json::Value answer = set(timesource("Gps"));
    ASSERT_TRUE(answer.isMember("error"));
    EXPECT_EQ(answer["error"]["code"].asInt(), -32012);
    EXPECT_EQ(answer["error"]["message"].asString(),
              R"("timesource": "Gps" is not a time source of the configuration file (known: Ntp, Ptp))");
    const Json::Value notObject = set(Json::Value("Ntp"));
    EXPECT_EQ(notObject["error"]["code"].asInt(), -32012);
    EXPECT_TRUE(m_fs.calls.empty());
    EXPECT_FALSE(std::filesystem::exists(m_state));
}

TEST_F(Keeper, RefusalsAreLoggedAtMostTenAMinute)
{
    for (int i = 0; i < 15; ++i) {
        ASSERT_TRUE(set(timesource("Gps")).isMember("error"));
    }
    std::size_t logged = 0;
    for (const auto& line : m_capture.lines()) {
        if (line.priority == LOG_WARNING && line.text.rfind("set request on sync/param refused: ", 0) == 0) {
            ++logged;
        }
    }
    EXPECT_EQ(logged, ParamKeeper::kMaxLoggedRefusals) << m_capture.dump();
}

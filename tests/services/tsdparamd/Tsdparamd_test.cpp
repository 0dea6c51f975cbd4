// tsdparamd as a process with a velad of the test's own: where its value
// comes from, how a set is stored and survives restarts of the keeper and of
// the broker, that a refused set changes nothing, what happens to a corrupt
// state file, and how it ends.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <orv/sys/EventLoop.h>
#include <vela/PeerAsync.h>

#include "JsonText.h"
#include "testsupport/BusWatcher.h"
#include "testsupport/ChildProcess.h"
#include "testsupport/LocalVelad.h"
#include "testsupport/LoopRun.h"
#include "testsupport/PrivateMounts.h"
#include "testsupport/SyslogCapture.h"

using namespace std::chrono_literals;
using testsupport::BusWatcher;
using testsupport::ChildProcess;
using testsupport::LocalVelad;
using testsupport::PrivateMounts;
using testsupport::runFor;
using testsupport::runUntil;
using testsupport::SyslogCapture;

namespace {

const char kConfig[] =
    "<?xml version=\"1.0\"?><TimeSyncDaemon><MultiCastParam><Address>239.255.77.1</Address><Port>14000</Port>"
    "</MultiCastParam><PrioLevel><ModuleType><KP>20</KP><RZ>10</RZ></ModuleType>"
    "<TimeSource><Ptp>2</Ptp><Ntp>1</Ntp><Gps>0</Gps></TimeSource></PrioLevel></TimeSyncDaemon>";
const char kBuiltins[] =
    R"({"ntpserver":"127.0.0.1","ptp4l":"-4 -E -H -i eth0","threshold":0.0,"timesource":"Ptp"})";

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

void writeFile(const std::string& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

bool exists(const std::string& path)
{
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

Json::Value json(const std::string& text)
{
    Json::Value value;
    std::string error;
    EXPECT_TRUE(vela::parseJson(text, &value, &error)) << text << ": " << error;
    return value;
}

std::string compact(const Json::Value& value)
{
    return vela::toCompact(value);
}

class Tsdparamd : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_NE(m_velad->port(), 0);
        m_dir = PrivateMounts::scratchDir(std::string("tsdparamd-") +
                                          ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::create_directories(m_dir + "/lib");
        m_state = m_dir + "/lib/param.json";
        m_defaults = m_dir + "/defaults.json";
        m_config = m_dir + "/config.xml";
        writeFile(m_config, kConfig);
        m_watcher = std::make_unique<BusWatcher>(m_loop, m_velad->port(), "sync/param");
        ASSERT_TRUE(runUntil(
            m_loop, [&] { return m_watcher->ready(); }, 5s));
    }

    std::vector<std::string> argv(const std::vector<std::string>& extra = {}) const
    {
        std::vector<std::string> all = {testsupport::binDir() + "/tsdparamd",
                                        "--state-file",
                                        m_state,
                                        "--defaults",
                                        m_defaults,
                                        "--config",
                                        m_config,
                                        "--ptp4l-options",
                                        std::string(TSD_SOURCE_DIR) + "/packaging/config/ptp4l-options",
                                        "--port",
                                        std::to_string(m_velad->port())};
        all.insert(all.end(), extra.begin(), extra.end());
        return all;
    }

    // Starts tsdparamd and waits for "sync/param" on the bus.
    void start(const std::vector<std::string>& extra = {})
    {
        m_daemon = std::make_unique<ChildProcess>(argv(extra));
        ASSERT_TRUE(runUntil(
            m_loop, [&] { return m_watcher->has("sync/param"); }, 5s))
            << m_daemon->readAllStderr(100ms) << m_capture.dump();
    }

    void stop()
    {
        ASSERT_EQ(m_daemon->signalAndWait(SIGTERM), 0);
        ASSERT_TRUE(runUntil(
            m_loop, [&] { return !m_watcher->has("sync/param"); }, 5s));
    }

    Json::Value value() const { return m_watcher->state("sync/param"); }

    // A set request as an operator's client sends it; the broker's answer.
    Json::Value set(const std::string& text)
    {
        Json::Value answer;
        m_watcher->peer().setAsync("sync/param", json(text),
                                   [&](const Json::Value& response) { answer = response; });
        EXPECT_TRUE(runUntil(
            m_loop, [&] { return !answer.isNull(); }, 5s));
        return answer;
    }

    SyslogCapture m_capture;
    std::unique_ptr<LocalVelad> m_velad = std::make_unique<LocalVelad>(std::vector<std::string>{"--quiet"});
    orv::sys::EventLoop m_loop;
    std::unique_ptr<BusWatcher> m_watcher;
    std::unique_ptr<ChildProcess> m_daemon;
    std::string m_dir;
    std::string m_state;
    std::string m_defaults;
    std::string m_config;
};

}  // namespace

TEST_F(Tsdparamd, WithoutFilesStartsFromTheBuiltIns)
{
    start();
    EXPECT_EQ(compact(value()), kBuiltins);
    EXPECT_FALSE(exists(m_state)) << "nothing is written before a set";
    EXPECT_TRUE(m_capture.contains(LOG_INFO, "sync/param from the built-in defaults")) << m_capture.dump();
    EXPECT_TRUE(m_capture.contains(LOG_INFO, "time sources: Ntp, Ptp")) << m_capture.dump();
}

TEST_F(Tsdparamd, StartsFromTheDefaultsFileOverTheBuiltIns)
{
    writeFile(m_defaults, "{\n  \"timesource\": \"Ntp\",\n  \"threshold\": 2.5\n}\n");
    start();
    EXPECT_EQ(compact(value()),
              R"({"ntpserver":"127.0.0.1","ptp4l":"-4 -E -H -i eth0","threshold":2.5,"timesource":"Ntp"})");
}

TEST_F(Tsdparamd, AnInvalidDefaultsFileFallsBackToTheBuiltIns)
{
    writeFile(m_defaults, R"({"timesource":"Ntp","ntpserver":"-v"})");
    start();
    EXPECT_EQ(compact(value()), kBuiltins);
    EXPECT_TRUE(m_capture.contains(
        LOG_ERR,
        "defaults file " + m_defaults +
            R"( holds no valid value ("ntpserver": "-v" is neither an IPv4 or IPv6 address nor a host )"
            "name); built-in defaults used"))
        << m_capture.dump();
    EXPECT_TRUE(exists(m_defaults)) << "a shipped file is never moved";
}

TEST_F(Tsdparamd, ASetIsStoredAndSurvivesRestartsOfTheKeeperAndOfTheBroker)
{
    start();
    const Json::Value answer = set(R"({"timesource":"Ntp","ntpserver":"ntp.example"})");
    ASSERT_TRUE(answer.isMember("result")) << compact(answer);
    const std::string expected =
        R"({"ntpserver":"ntp.example","ptp4l":"-4 -E -H -i eth0","threshold":0.0,"timesource":"Ntp"})";
    EXPECT_EQ(compact(answer["result"]), expected);
    ASSERT_TRUE(runUntil(
        m_loop, [&] { return compact(value()) == expected; }, 5s));
    EXPECT_EQ(readFile(m_state), expected + "\n");

    // The keeper restarts: the stored value, not the defaults.
    stop();
    start();
    EXPECT_EQ(compact(value()), expected);
    EXPECT_TRUE(m_capture.contains(LOG_INFO, "sync/param from " + m_state)) << m_capture.dump();

    // The broker restarts: the keeper offers its value again.
    const std::uint16_t port = m_velad->port();
    m_watcher.reset();
    m_velad.reset();
    m_velad = std::make_unique<LocalVelad>(std::vector<std::string>{"--quiet"}, port);
    ASSERT_EQ(m_velad->port(), port);
    m_watcher = std::make_unique<BusWatcher>(m_loop, port, "sync/param");
    ASSERT_TRUE(runUntil(
        m_loop, [&] { return m_watcher->has("sync/param"); }, 10s));
    EXPECT_EQ(compact(value()), expected);

    // And it still takes sets on the new broker.
    ASSERT_TRUE(set(R"({"threshold":1.5})").isMember("result"));
    ASSERT_TRUE(runUntil(
        m_loop, [&] { return value()["threshold"].asDouble() == 1.5; }, 5s));
    EXPECT_EQ(json(readFile(m_state))["threshold"].asDouble(), 1.5);
}

TEST_F(Tsdparamd, ARefusedSetChangesNothing)
{
    start();
    const int before = m_watcher->notifications("sync/param");
    const Json::Value answer = set(R"({"timesource":"Ntp","ptp4l":"-4 -f /etc/passwd"})");
    ASSERT_TRUE(answer.isMember("error")) << compact(answer);
    EXPECT_EQ(answer["error"]["code"].asInt(), -32012);
    EXPECT_EQ(answer["error"]["message"].asString(), R"("ptp4l": "-f" is not an allowed ptp4l option)");
    runFor(m_loop, 300ms);
    EXPECT_EQ(m_watcher->notifications("sync/param"), before);
    EXPECT_EQ(compact(value()), kBuiltins);
    EXPECT_TRUE(std::filesystem::is_empty(m_dir + "/lib")) << "no state file, no temporary";

    // With a state file in place: its bytes and time stay as they were.
    ASSERT_TRUE(set(R"({"timesource":"Ntp"})").isMember("result"));
    ASSERT_TRUE(runUntil(
        m_loop, [&] { return value()["timesource"] == "Ntp"; }, 5s));
    const std::string stored = readFile(m_state);
    struct stat st1;
    ASSERT_EQ(::stat(m_state.c_str(), &st1), 0);
    const int afterSet = m_watcher->notifications("sync/param");
    const Json::Value again = set(R"({"threshold":-1,"extra":true})");
    EXPECT_EQ(again["error"]["code"].asInt(), -32012);
    const std::string message = again["error"]["message"].asString();
    EXPECT_NE(message.find(R"("extra": not a key of sync/param)"), std::string::npos) << message;
    EXPECT_NE(message.find(R"("threshold": must be a finite number from 0 to 429496729.5)"),
              std::string::npos)
        << message;
    runFor(m_loop, 300ms);
    struct stat st2;
    ASSERT_EQ(::stat(m_state.c_str(), &st2), 0);
    EXPECT_EQ(readFile(m_state), stored);
    EXPECT_EQ(st1.st_ino, st2.st_ino);
    EXPECT_EQ(st1.st_mtim.tv_nsec, st2.st_mtim.tv_nsec);
    EXPECT_EQ(m_watcher->notifications("sync/param"), afterSet);
    EXPECT_TRUE(m_capture.contains(LOG_WARNING, "set request on sync/param refused: " + message))
        << m_capture.dump();
}

TEST_F(Tsdparamd, ACorruptStateFileIsKeptAsideAndTheDefaultsAreUsed)
{
    writeFile(m_defaults, R"({"timesource":"Ntp"})");
    const std::string defaults =
        R"({"ntpserver":"127.0.0.1","ptp4l":"-4 -E -H -i eth0","threshold":0.0,"timesource":"Ntp"})";
    struct Case
    {
        const char* name;
        std::string content;
        std::string why;
    };
    const std::vector<Case> cases = {
        {"truncated", R"({"timesource":"Ptp","thresh)", "not JSON"},
        {"not JSON", "timesource=Ptp\n", "not JSON"},
        {"empty", "", "(empty)"},
        {"an unknown time source", R"({"timesource":"Gps"})", R"(("timesource": "Gps" is not a time source)"},
        {"a hostile ptp4l value", R"({"ptp4l":"-i eth0\n-f /etc/shadow"})",
         R"(("ptp4l": byte "\n" is not allowed))"},
        {"not an object", R"(["Ptp"])", "(the value must be an object"},
        {"duplicate keys", R"({"timesource":"Ptp","timesource":"Ntp"})", "not JSON"},
        {"too large", std::string(70000, ' ') + "{}", "(larger than 65536 bytes)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove(m_state + ".bad");
        writeFile(m_state, c.content);
        m_capture.clear();
        start();
        EXPECT_EQ(compact(value()), defaults);
        EXPECT_FALSE(exists(m_state));
        EXPECT_EQ(readFile(m_state + ".bad"), c.content);
        bool logged = false;
        for (const auto& line : m_capture.lines()) {
            logged =
                logged || (line.priority == LOG_ERR &&
                           line.text.rfind("state file " + m_state + " holds no valid value", 0) == 0 &&
                           line.text.find(c.why) != std::string::npos &&
                           line.text.find("kept as " + m_state + ".bad, defaults used") != std::string::npos);
        }
        EXPECT_TRUE(logged) << m_capture.dump();
        stop();
    }
}

TEST_F(Tsdparamd, AStateFileThatIsAPipeDoesNotHangTheStart)
{
    ASSERT_EQ(::mkfifo(m_state.c_str(), 0600), 0);
    start();
    EXPECT_EQ(compact(value()), kBuiltins);
    struct stat st;
    ASSERT_EQ(::lstat((m_state + ".bad").c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
}

TEST_F(Tsdparamd, SigtermRemovesTheStateAndExitsZero)
{
    start();
    EXPECT_EQ(m_daemon->signalAndWait(SIGTERM), 0);
    EXPECT_TRUE(runUntil(
        m_loop, [&] { return !m_watcher->has("sync/param"); }, 5s));
    EXPECT_EQ(m_watcher->eventsFor("sync/param").back().event, "remove");
}

TEST_F(Tsdparamd, SighupIsNotAnEnd)
{
    start();
    ASSERT_EQ(::kill(m_daemon->pid(), SIGHUP), 0);
    runFor(m_loop, 300ms);
    EXPECT_TRUE(m_daemon->running());
    EXPECT_TRUE(m_watcher->has("sync/param"));
}

TEST_F(Tsdparamd, AnotherOwnerOfTheStateEndsItWithStatusOne)
{
    vela::PeerAsync other(m_loop, "127.0.0.1", m_velad->port(), "other");
    other.addStateAsync("sync/param", json(kBuiltins));
    ASSERT_TRUE(runUntil(
        m_loop, [&] { return m_watcher->has("sync/param"); }, 5s));
    ChildProcess daemon(argv());
    EXPECT_EQ(daemon.wait(), 1);
    EXPECT_EQ(compact(value()), kBuiltins) << "the other owner's value stays";
    bool logged = false;
    for (const auto& line : m_capture.lines()) {
        logged = logged || (line.priority == LOG_ERR && line.text.rfind("cannot own sync/param: ", 0) == 0);
    }
    EXPECT_TRUE(logged) << m_capture.dump();
}

TEST_F(Tsdparamd, WithoutTheAllowListEveryPtp4lOptionIsRefused)
{
    start({"--ptp4l-options", m_dir + "/missing"});
    EXPECT_TRUE(m_capture.contains(
        LOG_ERR, "ptp4l option allow-list unusable (" + m_dir +
                     "/missing: No such file or directory); every non-empty ptp4l value is refused"))
        << m_capture.dump();
    const Json::Value refused = set(R"({"ptp4l":"-4"})");
    EXPECT_EQ(refused["error"]["code"].asInt(), -32012);
    EXPECT_NE(refused["error"]["message"].asString().find("allow-list could not be loaded"),
              std::string::npos);
    EXPECT_TRUE(set(R"({"ptp4l":""})").isMember("result"));
}

TEST_F(Tsdparamd, WithoutTheConfigurationEveryTimeSourceIsRefused)
{
    start({"--config", m_dir + "/missing.xml"});
    bool logged = false;
    for (const auto& line : m_capture.lines()) {
        logged = logged || (line.priority == LOG_ERR &&
                            line.text.rfind("cannot load " + m_dir + "/missing.xml", 0) == 0 &&
                            line.text.find("every time source is refused") != std::string::npos);
    }
    EXPECT_TRUE(logged) << m_capture.dump();
    EXPECT_EQ(compact(value()), kBuiltins) << "a module always gets a value";
    EXPECT_EQ(set(R"({"timesource":"Ptp"})")["error"]["code"].asInt(), -32012);
}

TEST_F(Tsdparamd, AStateFileThatCannotBeWrittenFailsTheSet)
{
    m_state = m_dir + "/no-such-dir/param.json";
    start();
    const Json::Value answer = set(R"({"timesource":"Ntp"})");
    EXPECT_EQ(answer["error"]["code"].asInt(), -32011);
    EXPECT_NE(answer["error"]["message"].asString().find(
                  "cannot store the value (open: No such file or directory)"),
              std::string::npos)
        << compact(answer);
    runFor(m_loop, 200ms);
    EXPECT_EQ(compact(value()), kBuiltins);
}

TEST_F(Tsdparamd, ReadyOnceTheStateIsOnTheBus)
{
    const std::string socketPath = m_dir + "/notify";
    const int sock = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, socketPath.c_str(), sizeof addr.sun_path - 1);
    ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ::setenv("NOTIFY_SOCKET", socketPath.c_str(), 1);
    ChildProcess daemon(argv());
    ::unsetenv("NOTIFY_SOCKET");
    pollfd p{sock, POLLIN, 0};
    ASSERT_EQ(::poll(&p, 1, 5000), 1);
    char buffer[256] = {};
    ASSERT_GT(::recv(sock, buffer, sizeof buffer - 1, 0), 0);
    EXPECT_STREQ(buffer, "READY=1");
    BusWatcher late(m_loop, m_velad->port(), "sync/param");
    ASSERT_TRUE(runUntil(
        m_loop, [&] { return late.ready(); }, 5s));
    EXPECT_TRUE(late.has("sync/param"));

    EXPECT_EQ(daemon.signalAndWait(SIGTERM), 0);
    ASSERT_EQ(::poll(&p, 1, 5000), 1);
    std::memset(buffer, 0, sizeof buffer);
    ASSERT_GT(::recv(sock, buffer, sizeof buffer - 1, 0), 0);
    EXPECT_STREQ(buffer, "STOPPING=1");
    ::close(sock);
}

TEST(TsdparamdProgram, HelpVersionAndBadOptions)
{
    const std::string program = testsupport::binDir() + "/tsdparamd";
    ChildProcess version({program, "--version"});
    EXPECT_EQ(version.readAll(), std::string("tsdparamd ") + TSD_VERSION + "\n");
    EXPECT_EQ(version.wait(), 0);

    ChildProcess help({program, "--help"});
    const std::string text = help.readAll();
    EXPECT_EQ(help.wait(), 0);
    EXPECT_NE(text.find("usage: tsdparamd"), std::string::npos);
    EXPECT_NE(text.find("/usr/share/tsd/ptp4l-options"), std::string::npos);
    EXPECT_LE(std::count(text.begin(), text.end(), '\n'), 24) << "one screen";

    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"--port", "0"}, {"--port", "-1"}, {"--state-file"}, {"--bogus"}, {"x"}}) {
        std::vector<std::string> argv = {program};
        argv.insert(argv.end(), args.begin(), args.end());
        ChildProcess bad(argv);
        EXPECT_EQ(bad.wait(), 2) << args.front();
    }
}

// The daemon as a process: build/bin/tsd started as a child inside a forked
// test child that has its own network and mount namespaces (identity files,
// /run, /dev/log captured), with a velad on that namespace's 127.0.0.1:11122
// and the test playing the neighbouring module over veth cables.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "protocol/SideNetwork.h"
#include "testsupport/BusWatcher.h"
#include "testsupport/LocalVelad.h"
#include "testsupport/LoopRun.h"
#include "testsupport/NotifySocket.h"
#include "testsupport/PrivateMounts.h"
#include "testsupport/SyslogCapture.h"

using namespace std::chrono_literals;
using testsupport::BusWatcher;
using testsupport::LocalVelad;
using testsupport::PrivateMounts;
using testsupport::runFor;
using testsupport::runUntil;
using testsupport::SyslogCapture;

namespace {

using Clock = std::chrono::steady_clock;

const char kPidFile[] = "/run/tsd.pid";
const char kOwnRearItem[] = "<sync>:item:123456:a:0:0:<sync>";
constexpr unsigned kBusPort = 11122;

std::string readFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

bool exists(const std::string& path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

// One run of build/bin/tsd, its standard output and error kept in files.
class Tsd
{
public:
    explicit Tsd(const std::vector<std::string>& args = {})
    {
        static int serial = 0;
        const std::string dir = PrivateMounts::scratchDir("tsd" + std::to_string(++serial));
        m_out = dir + "/stdout";
        m_err = dir + "/stderr";
        const std::string program = testsupport::binDir() + "/tsd";
        std::vector<std::string> all = {program};
        all.insert(all.end(), args.begin(), args.end());
        std::fflush(nullptr);
        m_pid = ::fork();
        if (m_pid == 0) {
            const int out = ::open(m_out.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
            const int err = ::open(m_err.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
            ::dup2(out, STDOUT_FILENO);
            ::dup2(err, STDERR_FILENO);
            std::vector<char*> argv;
            for (auto& a : all)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            ::execv(program.c_str(), argv.data());
            ::_exit(127);
        }
    }
    ~Tsd()
    {
        if (m_pid > 0 && m_status < 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }
    Tsd(const Tsd&) = delete;
    Tsd& operator=(const Tsd&) = delete;

    pid_t pid() const { return m_pid; }
    bool running()
    {
        poll();
        return m_status < 0;
    }
    // The exit status, or -1 when the process did not end in time (or died of
    // a signal: then -2).
    int wait(std::chrono::milliseconds timeout)
    {
        const auto deadline = Clock::now() + timeout;
        while (running() && Clock::now() < deadline)
            ::usleep(10 * 1000);
        if (m_status < 0)
            return -1;
        return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -2;
    }
    void signal(int sig) { ::kill(m_pid, sig); }
    std::string out() const { return readFile(m_out); }
    std::string err() const { return readFile(m_err); }

private:
    void poll()
    {
        if (m_status >= 0)
            return;
        int status = 0;
        if (::waitpid(m_pid, &status, WNOHANG) == m_pid)
            m_status = status;
    }

    pid_t m_pid = -1;
    int m_status = -1;
    std::string m_out;
    std::string m_err;
};

// The module's surroundings: cables, peer, bus and a watcher of "sync/".
struct Surroundings
{
    tsdtest::SideNetwork net;
    LocalVelad broker{{"--quiet"}, kBusPort};
    BusWatcher watcher{net.loop, kBusPort, "sync/"};

    explicit Surroundings(bool withFront = true) : net(withFront)
    {
        EXPECT_TRUE(runUntil(
            net.loop, [&] { return watcher.ready(); }, 5s));
    }

    bool waitRunning(Tsd& tsd)
    {
        return runUntil(
                   net.loop, [&] { return watcher.has("sync/app") || !tsd.running(); }, 10s) &&
               tsd.running();
    }

    // Sends a rear start and waits for the rear item.
    bool answered()
    {
        const std::size_t before = net.peer->heard(0).size();
        net.peer->send(0, "<sync>:start:<sync>");
        return runUntil(
                   net.loop, [&] { return net.peer->heard(0).size() > before; }, 5s) &&
               net.peer->heard(0).back() == kOwnRearItem;
    }

    bool waitOutput(Tsd& tsd, const std::string& text)
    {
        return runUntil(
            net.loop, [&] { return tsd.out().find(text) != std::string::npos; }, 5s);
    }
};

void isolated(const std::function<void()>& body)
{
    orvtest::runIsolated(body, 90);
}

const char kUsage[] =
    "-d for enable DEBUG SYSLOG\n"
    "or use signal SIGUSR1 (-10) for enable DEBUG SYSLOG\n"
    "use signal SIGUSR2 (-12) for disable DEBUG SYSLOG\n";

}  // namespace

TEST(TsdProcess, UnknownOptionPrintsUsageAndExitsZeroWithoutPidFile)
{
    isolated([] {
        tsdtest::prepareIdentity(tsdtest::kOwnUuid);
        for (const auto& args :
             std::vector<std::vector<std::string>>{{"-x"}, {"-h"}, {"-d", "-h"}, {"-dh"}}) {
            SCOPED_TRACE(args.back());
            Tsd tsd(args);
            EXPECT_EQ(tsd.wait(5s), 0);
            EXPECT_EQ(tsd.out(), kUsage);
            EXPECT_EQ(tsd.err(), "");
            EXPECT_FALSE(exists(kPidFile));
        }
    });
}

TEST(TsdProcess, WithoutRearPortExitsWith255AfterOneSecond)
{
    isolated([] {
        tsdtest::prepareIdentity(tsdtest::kOwnUuid);
        SyslogCapture capture;
        const auto start = Clock::now();
        Tsd tsd;
        EXPECT_EQ(tsd.wait(10s), 255);
        EXPECT_GE(Clock::now() - start, 1s);
        EXPECT_EQ(capture.count(LOG_ERR, "back side firewire not available!"), 1u) << capture.dump();
        EXPECT_EQ(capture.count(LOG_ERR, "error detecting back side firewire interface"), 1u);
        EXPECT_FALSE(exists(kPidFile)) << "teardown removes the PID file on this path too";
    });
}

TEST(TsdProcess, RearReceiverThatCannotStartEndsWith255)
{
    isolated([] {
        Surroundings s;
        ASSERT_TRUE(PrivateMounts::writeFile("/etc/TimeSourceDaemonConfig.xml",
                                             tsdtest::configFile("not-a-group", tsdtest::kPort)));
        SyslogCapture capture;
        Tsd tsd;
        EXPECT_EQ(tsd.wait(10s), 255);
        EXPECT_EQ(capture.count(LOG_ERR, "could not start back side multicast receiver!"), 1u)
            << capture.dump();
        EXPECT_EQ(capture.countText("back side firewire not available!"), 0u);
    });
}

TEST(TsdProcess, AnswersAStartAndEndsWithStatusZeroOnSigterm)
{
    isolated([] {
        Surroundings s;
        Tsd tsd;
        ASSERT_TRUE(s.waitRunning(tsd)) << tsd.err();
        EXPECT_TRUE(exists(kPidFile));
        EXPECT_EQ(readFile(kPidFile).find(std::to_string(tsd.pid())), 0u);
        ASSERT_TRUE(s.answered());
        tsd.signal(SIGTERM);
        EXPECT_EQ(tsd.wait(10s), 0);
        EXPECT_EQ(tsd.out(), "SIGNAL NR. : 15\n");
        EXPECT_FALSE(exists(kPidFile));
        ASSERT_TRUE(runUntil(
            s.net.loop, [&] { return !s.watcher.has("sync/app"); }, 5s));
        EXPECT_FALSE(s.watcher.has("sync/master"));
    });
}

TEST(TsdProcess, SigintEndsWithStatusZero)
{
    isolated([] {
        Surroundings s;
        Tsd tsd;
        ASSERT_TRUE(s.waitRunning(tsd)) << tsd.err();
        tsd.signal(SIGINT);
        EXPECT_EQ(tsd.wait(10s), 0);
        EXPECT_EQ(tsd.out(), "SIGNAL NR. : 2\n");
    });
}

TEST(TsdProcess, DebugOptionStartsWithDebugLogging)
{
    isolated([] {
        Surroundings s;
        SyslogCapture capture;
        Tsd tsd({"-d"});
        ASSERT_TRUE(s.waitRunning(tsd)) << tsd.err();
        ASSERT_TRUE(s.answered());
        EXPECT_EQ(capture.count(LOG_DEBUG, "<== send (0): 123456 10 0 0"), 1u) << capture.dump();
        tsd.signal(SIGTERM);
        EXPECT_EQ(tsd.wait(10s), 0);
    });
}

TEST(TsdProcess, UserSignalsSwitchDebugWhileRunning)
{
    isolated([] {
        Surroundings s;
        SyslogCapture capture;
        Tsd tsd;
        ASSERT_TRUE(s.waitRunning(tsd)) << tsd.err();
        ASSERT_TRUE(s.answered());
        EXPECT_EQ(capture.countText("<== send (0): 123456 10 0 0"), 0u) << "debug is off at start";

        tsd.signal(SIGUSR1);
        ASSERT_TRUE(s.waitOutput(tsd, "SIGNAL NR. : 10\n"));
        ASSERT_TRUE(s.answered());
        EXPECT_EQ(capture.count(LOG_DEBUG, "<== send (0): 123456 10 0 0"), 1u) << capture.dump();

        tsd.signal(SIGUSR2);
        ASSERT_TRUE(s.waitOutput(tsd, "SIGNAL NR. : 12\n"));
        ASSERT_TRUE(s.answered());
        EXPECT_EQ(capture.count(LOG_DEBUG, "<== send (0): 123456 10 0 0"), 1u) << "debug is off again";
        EXPECT_TRUE(tsd.running());
        EXPECT_EQ(tsd.out(), "SIGNAL NR. : 10\nSIGNAL NR. : 12\n");
        tsd.signal(SIGTERM);
        EXPECT_EQ(tsd.wait(10s), 0);
    });
}

TEST(TsdProcess, SecondLiveInstanceIsRefusedWithStatusOne)
{
    isolated([] {
        Surroundings s;
        Tsd first;
        ASSERT_TRUE(s.waitRunning(first)) << first.err();
        SyslogCapture capture;
        Tsd second;
        EXPECT_EQ(second.wait(10s), 1);
        const std::string message = second.err();
        EXPECT_NE(message.find(kPidFile), std::string::npos) << message;
        EXPECT_NE(message.find(std::to_string(first.pid())), std::string::npos) << message;
        ASSERT_FALSE(message.empty());
        EXPECT_EQ(capture.count(LOG_ERR, message.substr(0, message.size() - 1)), 1u) << capture.dump();
        EXPECT_EQ(second.out(), "");
        EXPECT_TRUE(first.running());
        EXPECT_TRUE(exists(kPidFile)) << "the refused instance leaves the live one's file alone";
        ASSERT_TRUE(s.answered());
        first.signal(SIGTERM);
        EXPECT_EQ(first.wait(10s), 0);
    });
}

TEST(TsdProcess, FrontPortWithoutAddressRunsWithRearOnlyAndSaysNothing)
{
    isolated([] {
        Surroundings s(false);
        SyslogCapture capture;
        Tsd tsd;
        ASSERT_TRUE(s.waitRunning(tsd)) << tsd.err();
        ASSERT_TRUE(s.answered());
        EXPECT_EQ(capture.countText("front side interface not available!"), 0u) << capture.dump();
        EXPECT_EQ(capture.countText("could not start front side multicast receiver!"), 0u);
        EXPECT_EQ(capture.countText("error detecting front side firewire interface"), 0u);
        tsd.signal(SIGTERM);
        EXPECT_EQ(tsd.wait(10s), 0);
    });
}

TEST(TsdProcess, FrontPortWithoutAddressAtStartIsNeverServedAndSaysNothing)
{
    isolated([] {
        Surroundings s;
        // The front port is there, but has no address when the daemon starts.
        ASSERT_TRUE(orvtest::run("ip addr del 169.254.2.1/24 dev firewire1"));
        SyslogCapture capture;
        Tsd tsd;
        ASSERT_TRUE(s.waitRunning(tsd)) << tsd.err();
        ASSERT_TRUE(s.answered());
        // The front receiver joins the group only when the link monitor's
        // first report has been handled, some time after start-up; a start
        // sent before that is lost. Ask again until the answer comes.
        const auto frontAnswered = [&](std::chrono::milliseconds timeout) {
            const std::size_t before = s.net.peer->heard(1).size();
            const auto deadline = Clock::now() + timeout;
            do {
                s.net.peer->send(1, "<sync>:start:1:<sync>");
                if (runUntil(
                        s.net.loop, [&] { return s.net.peer->heard(1).size() > before; }, 300ms))
                    return true;
            } while (Clock::now() < deadline);
            return false;
        };
        EXPECT_FALSE(frontAnswered(1s)) << "no front receiver was started";

        // An address that comes later joins a receiver that never listens.
        ASSERT_TRUE(orvtest::run("ip addr add 169.254.2.1/24 dev firewire1"));
        ASSERT_TRUE(runUntil(
            s.net.loop, [&] { return capture.countText("PRONT_INTERFACE firewire1 ip: 169.254.2.1 ") > 0; },
            5s))
            << capture.dump();
        EXPECT_FALSE(frontAnswered(1s));
        ASSERT_TRUE(s.answered());

        for (const char* text :
             {"front side interface not available!", "could not start front side multicast receiver!",
              "could not add interface to front side multicast receiver!",
              "error detecting front side firewire interface"})
            EXPECT_EQ(capture.countText(text), 0u) << text << '\n' << capture.dump();
        tsd.signal(SIGTERM);
        EXPECT_EQ(tsd.wait(10s), 0);
    });
}

TEST(TsdProcess, FrontReceiverFailureIsOnlyLogged)
{
    isolated([] {
        Surroundings s;
        // The rear side gets the last valid port, the front side one beyond.
        ASSERT_TRUE(PrivateMounts::writeFile("/etc/TimeSourceDaemonConfig.xml",
                                             tsdtest::configFile(tsdtest::kGroup, 65535)));
        SyslogCapture capture;
        Tsd tsd;
        ASSERT_TRUE(s.waitRunning(tsd)) << tsd.err();
        EXPECT_EQ(capture.count(LOG_ERR, "could not start front side multicast receiver!"), 1u)
            << capture.dump();
        EXPECT_EQ(capture.countText("could not add interface to front side multicast receiver!"), 0u);
        EXPECT_TRUE(tsd.running());
        tsd.signal(SIGTERM);
        EXPECT_EQ(tsd.wait(10s), 0);
    });
}

TEST(TsdProcess, FrontAddressJoinsTheRearReceiver)
{
    isolated([] {
        Surroundings s;
        // A listener at the peer's front end on the rear port.
        const int rearPortOnFrontCable = s.net.peer->addExtra(s.net.loop, s.net.peerNs, 1, tsdtest::kPort);
        Tsd tsd;
        ASSERT_TRUE(s.waitRunning(tsd)) << tsd.err();
        // A rear start over the front cable reaches the rear receiver, which
        // answers as the rear side over the cable it came in on.
        s.net.peer->sendExtra(rearPortOnFrontCable, "<sync>:start:<sync>");
        ASSERT_TRUE(runUntil(
            s.net.loop, [&] { return !s.net.peer->heardExtra(rearPortOnFrontCable).empty(); }, 5s));
        EXPECT_EQ(s.net.peer->heardExtra(rearPortOnFrontCable).front(), kOwnRearItem);
        tsd.signal(SIGTERM);
        EXPECT_EQ(tsd.wait(10s), 0);
    });
}

TEST(TsdProcess, LinkMonitorReportsThePortsAtStart)
{
    isolated([] {
        Surroundings s;
        SyslogCapture capture;
        Tsd tsd;
        ASSERT_TRUE(s.waitRunning(tsd)) << tsd.err();
        ASSERT_TRUE(runUntil(
            s.net.loop, [&] { return capture.countText("PRONT_INTERFACE firewire1 ip: 169.254.2.1 ") > 0; },
            5s))
            << capture.dump();
        EXPECT_EQ(capture.count(LOG_DEBUG, "REAR_INTERFACE firewire0 ip: 169.254.1.1 "), 1u);
        EXPECT_GE(capture.count(LOG_DEBUG, "ADDRESS_ADDED "), 2u);
        // The front receiver got firewire1 from these events: a front start
        // is answered on the front side.
        s.net.peer->send(1, "<sync>:start:1:<sync>");
        ASSERT_TRUE(runUntil(
            s.net.loop, [&] { return !s.net.peer->heard(1).empty(); }, 5s));
        EXPECT_EQ(s.net.peer->heard(1).front(), "<sync>:item:123456:a:0:0:1:<sync>");
        tsd.signal(SIGTERM);
        EXPECT_EQ(tsd.wait(10s), 0);
    });
}

TEST(TsdProcess, ConfigurationFullOfWrongValuesLeavesTheDaemonRunning)
{
    isolated([] {
        Surroundings s;
        ASSERT_TRUE(PrivateMounts::writeFile(
            "/etc/TimeSourceDaemonConfig.xml",
            std::string("<TimeSyncDaemon><Junk/><MultiCastParam><Address>") + tsdtest::kGroup +
                "</Address><Port>14000xyz</Port></MultiCastParam><PrioLevel><ModuleType>noise<RZ>ten</RZ>"
                "<KP>-1</KP></ModuleType><TimeSource><Ptp>99999999999999999999</Ptp></TimeSource></PrioLevel>"
                "</TimeSyncDaemon>"));
        SyslogCapture capture;
        Tsd tsd;
        ASSERT_TRUE(s.waitRunning(tsd)) << tsd.err() << capture.dump();
        // RZ "ten" is level 0: the module announces module priority 0.
        s.net.peer->send(0, "<sync>:start:<sync>");
        ASSERT_TRUE(runUntil(
            s.net.loop, [&] { return !s.net.peer->heard(0).empty(); }, 5s));
        EXPECT_EQ(s.net.peer->heard(0).front(), "<sync>:item:123456:0:0:0:<sync>");
        EXPECT_EQ(capture.count(LOG_INFO, "MOD_PRIO : 0"), 1u) << capture.dump();
        tsd.signal(SIGTERM);
        EXPECT_EQ(tsd.wait(10s), 0);
    });
}

TEST(TsdProcess, WithoutConfigurationTheRearReceiverCannotStartAndEndsWith255)
{
    isolated([] {
        Surroundings s;
        ASSERT_TRUE(PrivateMounts::removeEntry("/etc/TimeSourceDaemonConfig.xml"));
        SyslogCapture capture;
        Tsd tsd;
        EXPECT_EQ(tsd.wait(10s), 255);
        EXPECT_EQ(capture.count(LOG_ERR, "Missing configuration file TimeSourceDaemonConfig.xml"), 1u)
            << capture.dump();
        EXPECT_EQ(capture.count(LOG_ERR, "could not start back side multicast receiver!"), 1u);
    });
}

TEST(TsdProcess, FrontAddressThatGoesAndComesBackDropsAndRestoresTheFrontMembership)
{
    isolated([] {
        Surroundings s;
        SyslogCapture capture;
        Tsd tsd;
        ASSERT_TRUE(s.waitRunning(tsd)) << tsd.err();
        // The front receiver joins the group only when the link monitor's
        // first report has been handled, some time after start-up; a start
        // sent before that is lost. Ask again until the answer comes.
        const auto frontAnswered = [&](std::chrono::milliseconds timeout) {
            const std::size_t before = s.net.peer->heard(1).size();
            const auto deadline = Clock::now() + timeout;
            do {
                s.net.peer->send(1, "<sync>:start:1:<sync>");
                if (runUntil(
                        s.net.loop, [&] { return s.net.peer->heard(1).size() > before; }, 300ms))
                    return true;
            } while (Clock::now() < deadline);
            return false;
        };
        // The front receiver joins the group on firewire1 only when the link
        // monitor reports the address, a moment after the daemon runs (and
        // again after the address comes back): a start sent before that is
        // not heard, so ask again until the membership is in place.
        const auto frontAnswersSoon = [&] {
            for (int i = 0; i < 10; ++i) {
                if (frontAnswered(500ms)) {
                    return true;
                }
            }
            return false;
        };
        ASSERT_TRUE(frontAnswersSoon());

        ASSERT_TRUE(orvtest::run("ip addr del 169.254.2.1/24 dev firewire1"));
        ASSERT_TRUE(runUntil(
            s.net.loop, [&] { return capture.countText("ADDRESS_REMOVED") > 0; }, 5s))
            << capture.dump();
        EXPECT_EQ(capture.count(LOG_DEBUG, "PRONT_INTERFACE firewire1 ip: 169.254.2.1 "), 2u)
            << capture.dump();
        EXPECT_FALSE(frontAnswered(1s)) << "the front receiver left the group on firewire1";

        ASSERT_TRUE(orvtest::run("ip addr add 169.254.2.1/24 dev firewire1"));
        ASSERT_TRUE(runUntil(
            s.net.loop, [&] { return capture.countText("ADDRESS_ADDED ") >= 3; }, 5s))
            << capture.dump();
        EXPECT_TRUE(frontAnswersSoon());
        tsd.signal(SIGTERM);
        EXPECT_EQ(tsd.wait(10s), 0);
    });
}

TEST(TsdProcess, TellsTheServiceManagerItIsReadyOnceItServes)
{
    isolated([] {
        Surroundings s;
        // The same run without a service manager, for comparison.
        ::unsetenv("NOTIFY_SOCKET");
        Tsd plain;
        ASSERT_TRUE(s.waitRunning(plain)) << plain.err();
        ASSERT_TRUE(s.answered());
        plain.signal(SIGTERM);
        ASSERT_EQ(plain.wait(10s), 0);
        ASSERT_TRUE(runUntil(
            s.net.loop, [&] { return !s.watcher.has("sync/app"); }, 5s));

        testsupport::NotifySocket notify;
        notify.exportPath();
        Tsd tsd;
        std::string message;
        ASSERT_TRUE(runUntil(
            s.net.loop, [&] { return !(message = notify.receive()).empty() || !tsd.running(); }, 10s));
        EXPECT_EQ(message, "READY=1");
        // Ready means serving: a start is answered at once.
        ASSERT_TRUE(s.answered());
        EXPECT_EQ(notify.receive(500ms), "") << "sent once";
        tsd.signal(SIGTERM);
        EXPECT_EQ(tsd.wait(10s), 0);
        // Nothing else about the process changes.
        EXPECT_EQ(tsd.out(), plain.out());
        EXPECT_EQ(tsd.err(), plain.err());
    });
}

TEST(TsdProcess, WithoutRearPortNeverClaimsToBeReady)
{
    isolated([] {
        tsdtest::prepareIdentity(tsdtest::kOwnUuid);
        testsupport::NotifySocket notify;
        notify.exportPath();
        Tsd tsd;
        EXPECT_EQ(tsd.wait(10s), 255);
        EXPECT_EQ(notify.receive(), "");
    });
}

// /bin/start_ntpd.sh and /bin/stop_ntpd.sh against the real NTP daemons:
// chronyd (run with -x, so it never adjusts the clock) and ntpd when chronyd
// is absent. Both come from the private copies beside the build; CAP_SYS_TIME
// is gone from the sandbox (see ModuleSandbox), and the upstream server the
// tests name is the peer's address, where nothing answers, so ntpd, which has
// no switch like -x, has nothing to follow either.
//
// tsd starts the NTP daemon detached ("/bin/start_ntpd.sh &") and may stop it
// right after; the stop must win.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <syslog.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <thread>

#include "ModuleSandbox.h"
#include "testsupport/SyslogCapture.h"

using namespace scripttest;
using namespace std::chrono_literals;
using orvtest::runIsolated;

namespace {

std::string chronydDefaults()
{
    return "UUID=000001\nCHRONYD=" + kChronyd + "\nCHRONYD_OPTIONS=\"-x -u nobody\"\n";
}

std::string ntpdDefaults()
{
    return "UUID=000001\nCHRONYD=/nonexistent/chronyd\nNTPD=" + kNtpd + "\nNTPD_OPTIONS=\n";
}

void writeServer(const std::string& server)
{
    orvtest::writeFile(kRun + "/ntpserver.ip", server + "\n");
}

// The stratum of the answer to one client request, sent from the peer's
// namespace to this module's firewire0; -1 without an answer.
int queryStratum(orvtest::Netns& peer)
{
    int fd = -1;
    {
        orvtest::Netns::Inside inside(peer);
        fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    }
    if (fd < 0) {
        return -1;
    }
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(123);
    ::inet_pton(AF_INET, "10.1.0.2", &server.sin_addr);
    std::uint8_t request[48] = {0x23};  // version 4, client
    int stratum = -1;
    for (int attempt = 0; attempt < 15 && stratum < 0; ++attempt) {
        ::sendto(fd, request, sizeof(request), 0, reinterpret_cast<sockaddr*>(&server), sizeof(server));
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 200) == 1) {
            std::uint8_t reply[128];
            if (::recv(fd, reply, sizeof(reply), 0) >= 48 && (reply[0] & 7) == 4) {
                stratum = reply[1];
            }
        }
    }
    ::close(fd);
    return stratum;
}

pid_t waitForPidFile(const std::string& name)
{
    pid_t pid = 0;
    waitFor(
        [&] {
            pid = pidFrom(kRun + "/" + name);
            return alive(pid);
        },
        5s);
    return pid;
}

// Every detached start has ended (it gave up, or started a daemon).
void waitForDetachedStarts(ModuleSandbox& module)
{
    EXPECT_TRUE(waitFor([&] { return module.processesRunning("start_ntpd.sh").empty(); }, 6s));
}

// A synchronous start; the daemon's pid from its pid file.
pid_t start(ModuleSandbox& module, const std::string& pidFile)
{
    EXPECT_EQ(module.run("start_ntpd.sh").status, 0);
    pid_t daemon = pidFrom(kRun + "/" + pidFile);
    EXPECT_TRUE(alive(daemon));
    return daemon;
}

// A start while the daemon runs replaces it and leaves nothing behind.
void expectStartWhileRunningRestarts(ModuleSandbox& module, const std::string& pidFile)
{
    pid_t first = start(module, pidFile);
    pid_t second = start(module, pidFile);
    EXPECT_NE(second, first);
    EXPECT_FALSE(alive(first));
    EXPECT_EQ(module.processes(), std::vector<pid_t>{second});
}

// tsd's detached start and a stop right after it, then nothing runs.
// Without a pause the stop mostly gets the lock first and the start gives
// up; with one, the start holds the lock while the daemon comes up and the
// stop waits for it.
void expectStopRightAfterDetachedStartWins(ModuleSandbox& module, const std::string& pidFile)
{
    for (auto pause : {0ms, 0ms, 50ms, 150ms, 300ms}) {
        SCOPED_TRACE("pause " + std::to_string(pause.count()) + " ms");
        module.runDetached("start_ntpd.sh");
        std::this_thread::sleep_for(pause);
        Outcome stop = module.run("stop_ntpd.sh");
        EXPECT_EQ(stop.status, 0);
        EXPECT_LT(stop.seconds, 5.0);
        waitForDetachedStarts(module);
        EXPECT_TRUE(module.processes().empty());
        EXPECT_NE(::access((kRun + "/" + pidFile).c_str(), F_OK), 0);
    }
}

}  // namespace

TEST(NtpScripts, ChronydServesTheChainAndStopEndsIt)
{
    runIsolated([] {
        ModuleSandbox module;
        module.setDefaults(chronydDefaults());
        writeServer("10.1.0.1");
        module.runDetached("start_ntpd.sh");
        pid_t chronyd = waitForPidFile("chronyd.pid");
        ASSERT_TRUE(alive(chronyd));
        std::vector<std::string> args = commandLine(chronyd);
        std::vector<std::string> expected{kChronyd, "-n", "-f", kRun + "/chronyd.conf", "-x", "-u", "nobody"};
        EXPECT_EQ(args, expected);

        std::string conf = readFile(kRun + "/chronyd.conf");
        EXPECT_NE(conf.find("\nserver 10.1.0.1 iburst\n"), std::string::npos) << conf;
        EXPECT_NE(conf.find("\nallow 10.1.0.2/24\n"), std::string::npos) << conf;
        EXPECT_EQ(conf.find("driftfile"), std::string::npos) << conf;
        // Upstream never answers; the chain still gets this module's time.
        EXPECT_EQ(queryStratum(module.peer()), 10);

        Outcome stop = module.run("stop_ntpd.sh");
        EXPECT_EQ(stop.status, 0);
        EXPECT_LT(stop.seconds, 5.0);
        EXPECT_FALSE(alive(chronyd));
        EXPECT_NE(::access((kRun + "/chronyd.pid").c_str(), F_OK), 0);
        EXPECT_TRUE(module.processes().empty());
        EXPECT_EQ(module.run("stop_ntpd.sh").status, 0) << "nothing runs: no failure";
    });
}

TEST(NtpScripts, AStopRightAfterTheDetachedStartWins)
{
    runIsolated([] {
        ModuleSandbox module;
        module.setDefaults(chronydDefaults());
        writeServer("10.1.0.1");
        expectStopRightAfterDetachedStartWins(module, "chronyd.pid");
    });
}

TEST(NtpScripts, RestartAsTsdDoesItServesTheNewServer)
{
    runIsolated([] {
        ModuleSandbox module;
        module.setDefaults(chronydDefaults());
        writeServer("10.1.0.1");
        pid_t first = start(module, "chronyd.pid");

        // tsd's restart: new file, synchronous stop, detached start.
        writeServer("10.1.0.3");
        ASSERT_EQ(module.run("stop_ntpd.sh").status, 0);
        module.runDetached("start_ntpd.sh");
        pid_t second = waitForPidFile("chronyd.pid");
        EXPECT_TRUE(alive(second));
        EXPECT_NE(second, first);
        EXPECT_FALSE(alive(first));
        EXPECT_NE(readFile(kRun + "/chronyd.conf").find("\nserver 10.1.0.3 iburst\n"), std::string::npos);
        waitForDetachedStarts(module);
        EXPECT_EQ(module.processes(), std::vector<pid_t>{second});
    });
}

TEST(NtpScripts, AnEmptyServerFileStartsNothingAndLeavesTheDaemonServing)
{
    runIsolated([] {
        testsupport::SyslogCapture syslog;
        ModuleSandbox module;
        module.setDefaults(chronydDefaults());
        writeServer("10.1.0.1");
        pid_t daemon = start(module, "chronyd.pid");
        // What tsd's write leaves on a full /var/run: the file, truncated.
        orvtest::writeFile(kRun + "/ntpserver.ip", "");
        EXPECT_EQ(module.run("start_ntpd.sh").status, 1);
        EXPECT_EQ(pidFrom(kRun + "/chronyd.pid"), daemon);
        EXPECT_EQ(module.processes(), std::vector<pid_t>{daemon});
        EXPECT_TRUE(syslog.contains(LOG_ERR, "/var/run/timesync/ntpserver.ip is empty (was /var/run full when tsd "
                                             "wrote it?); nothing started"))
            << syslog.dump();
    });
}

TEST(NtpScripts, AStartWhileRunningRestarts)
{
    runIsolated([] {
        ModuleSandbox module;
        module.setDefaults(chronydDefaults());
        writeServer("10.1.0.1");
        expectStartWhileRunningRestarts(module, "chronyd.pid");
    });
}

TEST(NtpScripts, ADaemonThatIgnoresSigtermIsKilledWithinTheBound)
{
    runIsolated([] {
        ModuleSandbox module;
        module.setDefaults("CHRONYD=" + module.stubborn("chronyd") + "\n");
        writeServer("10.1.0.1");
        pid_t daemon = start(module, "chronyd.pid");
        module.expectStopKillsWithinTheBound("stop_ntpd.sh", daemon);
    });
}

TEST(NtpScripts, NtpdServesWhenChronydIsAbsent)
{
    runIsolated([] {
        ModuleSandbox module;
        module.setDefaults(ntpdDefaults());
        writeServer("10.1.0.1");
        pid_t ntpd = start(module, "ntpd.pid");
        std::vector<std::string> expected{kNtpd, "-n", "-c", kRun + "/ntpd.conf"};
        EXPECT_EQ(commandLine(ntpd), expected);
        std::string conf = readFile(kRun + "/ntpd.conf");
        EXPECT_NE(conf.find("\nserver 10.1.0.1 iburst\n"), std::string::npos) << conf;
        EXPECT_NE(conf.find("\nrestrict 10.1.0.2 mask 255.255.255.0 nomodify noquery\n"), std::string::npos) << conf;
        EXPECT_EQ(module.run("stop_ntpd.sh").status, 0);
        EXPECT_FALSE(alive(ntpd));
        EXPECT_TRUE(module.processes().empty());
    });
}

// The two ways ntpd used to be left running: a second start that orphaned
// the first, and a stop right after a start that found no pid file yet.
TEST(NtpScripts, NtpdIsNeverLeftBehind)
{
    runIsolated([] {
        ModuleSandbox module;
        module.setDefaults(ntpdDefaults());
        writeServer("10.1.0.1");
        expectStartWhileRunningRestarts(module, "ntpd.pid");
        EXPECT_EQ(module.run("stop_ntpd.sh").status, 0);
        EXPECT_TRUE(module.processes().empty());
        expectStopRightAfterDetachedStartWins(module, "ntpd.pid");
    });
}

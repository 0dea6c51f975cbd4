// On a systemd host (/run/systemd/system exists) the scripts run each time
// service in a transient unit of its own, so that signalling or sandboxing
// tsd never reaches it. This machine runs no systemd: stand-ins for
// systemd-run and systemctl on PATH record every call, keep the units' state
// and report a main pid, and the tests check the exact calls.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "ModuleSandbox.h"

using namespace scripttest;
using orvtest::runIsolated;

namespace {

const char kMainPid[] = "4242";

// A bin folder with the stand-ins; every call lands in systemd.log as the
// program's name and its arguments, each in brackets.
std::string systemdStandIns(ModuleSandbox& module)
{
    const std::string bin = module.dir() + "/systemd-bin";
    const std::string log = module.dir() + "/systemd.log";
    const std::string record = "printf '%s' \"${0##*/}\" >> " + log + "\nprintf ' [%s]' \"$@\" >> " + log +
                               "\nprintf '\\n' >> " + log + "\nfor a; do last=$a; done\n";
    module.program("systemd-bin/systemd-run",
                   "#!/bin/sh\n" + record + "for a; do case $a in --unit=*) u=${a#--unit=} ;; esac; done\n" +
                       "echo active > " + module.dir() + "/$u.service.state\n");
    module.program("systemd-bin/systemctl", "#!/bin/sh\n" + record + "state=" + module.dir() +
                                                "/$last.state\ncase $1 in\n"
                                                "is-active) [ \"$(cat \"$state\" 2>/dev/null)\" = active ] ;;\n"
                                                "show) echo " +
                                                kMainPid + " ;;\nstop) rm -f \"$state\" ;;\nesac\n");
    ::mkdir("/run/systemd", 0755);
    ::mkdir("/run/systemd/system", 0755);
    return bin;
}

std::vector<std::string> takeLog(ModuleSandbox& module)
{
    std::vector<std::string> lines = readLines(module.dir() + "/systemd.log");
    ::unlink((module.dir() + "/systemd.log").c_str());
    return lines;
}

std::string run(const std::string& unit, const std::string& description, const std::string& command)
{
    std::string line = "systemd-run [--quiet] [--collect] [--unit=" + unit + "] [--description=" + description +
                       "] [--property=TimeoutStopSec=1] [--]";
    for (const std::string& arg : splitBlanks(command)) {
        line += " [" + arg + "]";
    }
    return line;
}

std::string isActive(const std::string& unit)
{
    return "systemctl [is-active] [--quiet] [" + unit + ".service]";
}

std::string mainPid(const std::string& unit)
{
    return "systemctl [show] [--property=MainPID] [--value] [" + unit + ".service]";
}

std::string stop(const std::string& unit)
{
    return "systemctl [stop] [" + unit + ".service]";
}

}  // namespace

TEST(SystemdPath, EachPtp4lRoleRunsInTheTransientUnitOfTheModulesPtp4l)
{
    runIsolated([] {
        ModuleSandbox module;
        std::string bin = systemdStandIns(module);
        module.setDefaults("PTP4L_FOLLOWER_OPTIONS=\"-4 -S -i firewire0\"\n");
        const std::string follower = "PTP follower of the module chain (started by tsd)";
        const std::string server = "PTP time server of the module chain (started by tsd)";

        ASSERT_EQ(module.run("ptp4ladm.sh stop", bin).status, 0);
        std::vector<std::string> expected{isActive("tsd-ptp4l"),
                                          run("tsd-ptp4l", follower, "/usr/sbin/ptp4l -4 -S -i firewire0 -s"),
                                          isActive("tsd-ptp4l"), mainPid("tsd-ptp4l")};
        EXPECT_EQ(takeLog(module), expected);
        EXPECT_EQ(readFile(kRun + "/ptp4l.pid"), std::string(kMainPid) + "\n");
        EXPECT_EQ(readFile(kRun + "/ptp4l.role"), "follower\n");

        orvtest::writeFile(kRun + "/ptp4l.cfg", "-4 -S -i firewire0 --priority1 100\n");
        ASSERT_EQ(module.run("ptp4ladm.sh start", bin).status, 0);
        expected = {isActive("tsd-ptp4l"), stop("tsd-ptp4l"),
                    run("tsd-ptp4l", server, "/usr/sbin/ptp4l -4 -S -i firewire0 --priority1 100"),
                    isActive("tsd-ptp4l"), mainPid("tsd-ptp4l")};
        EXPECT_EQ(takeLog(module), expected);
        EXPECT_EQ(readFile(kRun + "/ptp4l.role"), "server\n");

        ASSERT_EQ(module.run("ptp4ladm.sh stop", bin).status, 0);
        expected = {isActive("tsd-ptp4l"), stop("tsd-ptp4l"),
                    run("tsd-ptp4l", follower, "/usr/sbin/ptp4l -4 -S -i firewire0 -s"), isActive("tsd-ptp4l"),
                    mainPid("tsd-ptp4l")};
        EXPECT_EQ(takeLog(module), expected);
        EXPECT_EQ(readFile(kRun + "/ptp4l.role"), "follower\n");
        EXPECT_NE(::access((kRun + "/ptp4l.id").c_str(), F_OK), 0) << "systemd tracks the process, not the script";

        // A follower that runs already is left alone.
        ASSERT_EQ(module.run("ptp4ladm.sh stop", bin).status, 0);
        EXPECT_EQ(takeLog(module), std::vector<std::string>{isActive("tsd-ptp4l")});
        EXPECT_TRUE(module.processes().empty());
    });
}

TEST(SystemdPath, TheNtpServerRunsInATransientUnitOfItsOwn)
{
    runIsolated([] {
        ModuleSandbox module;
        std::string bin = systemdStandIns(module);
        std::string chronyd = module.recorder("chronyd");
        module.setDefaults("CHRONYD=" + chronyd + "\nCHRONYD_OPTIONS=-x\n");
        orvtest::writeFile(kRun + "/ntpserver.ip", "10.1.0.1\n");

        ASSERT_EQ(module.run("start_ntpd.sh", bin).status, 0);
        std::vector<std::string> expected{
            isActive("tsd-ntp"),
            run("tsd-ntp", "NTP server of the module chain (chronyd, started by tsd)",
                chronyd + " -n -f /var/run/timesync/chronyd.conf -x"),
            isActive("tsd-ntp"), mainPid("tsd-ntp")};
        EXPECT_EQ(takeLog(module), expected);
        EXPECT_EQ(readFile(kRun + "/chronyd.pid"), std::string(kMainPid) + "\n");

        ASSERT_EQ(module.run("stop_ntpd.sh", bin).status, 0);
        expected = {isActive("tsd-ntp"), stop("tsd-ntp")};
        EXPECT_EQ(takeLog(module), expected);
        EXPECT_NE(::access((kRun + "/chronyd.pid").c_str(), F_OK), 0);
        EXPECT_TRUE(module.processes().empty());
    });
}

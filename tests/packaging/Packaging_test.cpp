// The files a module receives besides the binaries: where the install rules
// put them, whether the daemon reads the example configuration as intended,
// and how the reference time-service scripts behave with stand-ins for ptp4l
// and the NTP daemon. Runs in the test's private mount namespace, so /run,
// /etc and the scratch folders are the test's own.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "config/ConfigParams.h"
#include "sync/NtpManage.h"
#include "sync/PTPManage.h"
#include "testsupport/PrivateMounts.h"

using testsupport::PrivateMounts;
using namespace std::chrono_literals;

namespace {

const std::string kSource = TSD_SOURCE_DIR;
const std::string kScripts = kSource + "/packaging/scripts";

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

bool isFile(const std::string& path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool isExecutableFile(const std::string& path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & S_IXUSR);
}

int run(const std::string& command)
{
    int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Running, not merely waiting to be collected: the stand-ins the scripts
// background are reparented, and whether anyone reaps them depends on the
// machine.
bool alive(pid_t pid)
{
    if (::kill(pid, 0) != 0) {
        return false;
    }
    std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    auto close = stat.rfind(')');
    return close == std::string::npos || stat.compare(close + 2, 1, "Z") != 0;
}

pid_t pidFrom(const std::string& path)
{
    std::string text = readFile(path);
    return text.empty() ? 0 : static_cast<pid_t>(std::stol(text));
}

// /var/run is /run: every test gets its own, with /var/run/timesync as the
// daemon leaves it.
class Scripts : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(PrivateMounts::shadow("/run"));
        ::mkdir("/run/timesync", 0755);
        for (const char* f : {"ptp4l.cfg", "ptp4l.pid", "ntpserver.ip", "ntpd.pid", "ntpd.conf"}) {
            PrivateMounts::removeEntry(std::string("/run/timesync/") + f);
        }
        m_dir = PrivateMounts::scratchDir(
            "scripts-" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
        // A ptp4l that records its arguments and stays up like the real one.
        ASSERT_TRUE(PrivateMounts::writeFile(
            m_dir + "/ptp4l", "#!/bin/sh\necho \"$@\" > " + m_dir + "/ptp4l.args\nexec sleep 30\n", 0755));
        // An NTP daemon that records its arguments and writes its pid file (-p).
        ASSERT_TRUE(PrivateMounts::writeFile(m_dir + "/ntpd",
                                             "#!/bin/sh\necho \"$@\" > " + m_dir +
                                                 "/ntpd.args\nwhile [ $# -gt 0 ]; do [ \"$1\" = -p ] && echo "
                                                 "$$ > \"$2\"; shift; done\nexec sleep 30\n",
                                             0755));
    }

    void TearDown() override
    {
        for (const char* f : {"/run/timesync/ptp4l.pid", "/run/timesync/ntpd.pid"}) {
            pid_t pid = pidFrom(f);
            if (pid > 0 && alive(pid)) {
                ::kill(pid, SIGKILL);
            }
        }
    }

    std::string env() const { return "PTP4L=" + m_dir + "/ptp4l NTPD=" + m_dir + "/ntpd "; }

    std::string m_dir;
};

}  // namespace

// The path a unit starts, e.g. "/usr/sbin/tsd" for "ExecStart=/usr/sbin/tsd $TSD_OPTIONS".
std::string execStartOf(const std::string& unit)
{
    auto pos = unit.find("\nExecStart=");
    if (pos == std::string::npos) {
        return {};
    }
    pos += 11;
    return unit.substr(pos, unit.find_first_of(" \n", pos) - pos);
}

TEST(Install, PutsEveryFileWhereTheModuleExpectsIt)
{
    std::string root = PrivateMounts::scratchDir("install-root");
    ASSERT_EQ(run("DESTDIR=" + root + " " + TSD_CMAKE_COMMAND + " --install " + TSD_BINARY_DIR + " > " +
                  root + ".log 2>&1"),
              0)
        << readFile(root + ".log");
    for (const char* script : {"/bin/ptp4ladm.sh", "/bin/start_ntpd.sh", "/bin/stop_ntpd.sh"}) {
        EXPECT_TRUE(isExecutableFile(root + script)) << script;
    }
    EXPECT_EQ(readFile(root + "/etc/TimeSourceDaemonConfig.xml"),
              readFile(kSource + "/packaging/config/TimeSourceDaemonConfig.xml"));
    EXPECT_NE(readFile(root + "/etc/default/tsd").find("UUID="), std::string::npos);

    // The units start the programs where the install put them.
    std::string tsdUnit = readFile(root + "/lib/systemd/system/tsd.service");
    std::string veladUnit = readFile(root + "/lib/systemd/system/velad.service");
    EXPECT_NE(tsdUnit.find("RuntimeDirectory=timesync"), std::string::npos) << tsdUnit;
    EXPECT_NE(tsdUnit.find(" $TSD_OPTIONS\n"), std::string::npos) << tsdUnit;
    std::string tsd = execStartOf(tsdUnit);
    std::string velad = execStartOf(veladUnit);
    EXPECT_EQ(tsd.substr(tsd.rfind('/')), "/tsd");
    EXPECT_EQ(velad.substr(velad.rfind('/')), "/velad");
    EXPECT_TRUE(isExecutableFile(root + tsd)) << tsd;
    EXPECT_TRUE(isExecutableFile(root + velad)) << velad;
    EXPECT_EQ(run("find " + root + " -path '*/bin/vela' -type f | grep -q ."), 0);
    for (const char* library : {"liborv.so.1", "libvelapeerasync.so.1"}) {
        EXPECT_EQ(run("find " + root + " -name " + library + " | grep -q ."), 0) << library;
    }

    // The daemon runs its scripts from where they were installed.
    EXPECT_EQ(std::string(orv::tsd::PTPManage::kStartCommand), std::string(TSD_SCRIPT_DIR) + "/ptp4ladm.sh start");
    EXPECT_EQ(std::string(orv::tsd::NtpManage::kStartCommand), std::string(TSD_SCRIPT_DIR) + "/start_ntpd.sh &");
    EXPECT_EQ(std::string(orv::tsd::NtpManage::kStopCommand), std::string(TSD_SCRIPT_DIR) + "/stop_ntpd.sh");
    EXPECT_TRUE(isExecutableFile(root + TSD_SCRIPT_DIR + "/ptp4ladm.sh"));
    if (std::string(TSD_SCRIPT_DIR) == "/bin") {
        EXPECT_STREQ(orv::tsd::PTPManage::kStopCommand, "/bin/ptp4ladm.sh stop");
        EXPECT_STREQ(orv::tsd::NtpManage::kStartCommand, "/bin/start_ntpd.sh &");
    }

    // Installed programs find their libraries in the system's directory, not
    // through a path relative to themselves.
    for (const std::string& program : {tsd, velad, std::string("/usr/bin/tsdctl"), std::string("/usr/bin/vela")}) {
        EXPECT_NE(run("readelf -d " + root + program + " | grep -q -E 'RPATH|RUNPATH'"), 0) << program;
    }

    // Everything a program built elsewhere needs: every public header, the
    // pkg-config files and the CMake packages.
    for (const char* header : {"orv/sys/EventLoop.h", "orv/sys/Timer.h", "orv/sys/PidFile.h",
                               "orv/communication/MulticastServer.h", "orv/communication/Netadapter.h",
                               "orv/communication/NetadapterList.h", "orv/communication/Netlink.h",
                               "orv/exception/exception.h", "orv/string/split.h", "vela/PeerAsync.h"}) {
        EXPECT_TRUE(isFile(root + "/usr/include/" + header)) << header;
    }
    for (const char* file : {"pkgconfig/orv.pc", "pkgconfig/velapeerasync.pc", "cmake/orv/orvConfig.cmake",
                             "cmake/orv/orvTargets.cmake", "cmake/velapeerasync/velapeerasyncConfig.cmake",
                             "cmake/velapeerasync/velapeerasyncConfigVersion.cmake"}) {
        EXPECT_EQ(run("find " + root + "/usr/lib -path '*/" + file + "' | grep -q ."), 0) << file;
    }
    EXPECT_NE(readFile(root + "/usr/lib/" + TSD_LIBRARY_ARCHITECTURE + "/pkgconfig/velapeerasync.pc")
                  .find("Requires: orv jsoncpp"),
              std::string::npos);

    // Every manual page, in the section its suffix names.
    for (const char* page : {"man8/tsd.8", "man1/tsdctl.1", "man1/tsdsim.1", "man5/TimeSourceDaemonConfig.xml.5",
                             "man5/tsd-defaults.5"}) {
        EXPECT_TRUE(isFile(root + "/usr/share/man/" + page)) << page;
    }
    // The simulator finds the programs beside itself.
    for (const char* program : {"tsdsim", "tsd", "velad", "vela"}) {
        EXPECT_TRUE(isExecutableFile(root + "/usr/libexec/tsdsim/" + program)) << program;
    }
}

TEST(Install, ASecondInstallKeepsTheModulesConfiguration)
{
    std::string root = PrivateMounts::scratchDir("reinstall-root");
    const std::string install = "DESTDIR=" + root + " " + TSD_CMAKE_COMMAND + " --install " + TSD_BINARY_DIR;
    ASSERT_EQ(run(install + " > " + root + ".log 2>&1"), 0) << readFile(root + ".log");
    ASSERT_TRUE(PrivateMounts::writeFile(root + "/etc/default/tsd", "UUID=00ABCD\nTSD_OPTIONS=-d\n"));
    ASSERT_TRUE(PrivateMounts::writeFile(root + "/etc/TimeSourceDaemonConfig.xml", "<TimeSyncDaemon/>\n"));

    ASSERT_EQ(run(install + " > " + root + ".log 2>&1"), 0) << readFile(root + ".log");
    EXPECT_EQ(readFile(root + "/etc/default/tsd"), "UUID=00ABCD\nTSD_OPTIONS=-d\n");
    EXPECT_EQ(readFile(root + "/etc/TimeSourceDaemonConfig.xml"), "<TimeSyncDaemon/>\n");
    // The shipped versions wait beside them, and the install says so.
    EXPECT_EQ(readFile(root + "/etc/default/tsd.dist"), readFile(kSource + "/packaging/config/tsd.default"));
    EXPECT_EQ(readFile(root + "/etc/TimeSourceDaemonConfig.xml.dist"),
              readFile(kSource + "/packaging/config/TimeSourceDaemonConfig.xml"));
    EXPECT_NE(readFile(root + ".log").find("Keeping: " + root + "/etc/default/tsd"), std::string::npos)
        << readFile(root + ".log");
}

// The daemon reads its configuration once per process; this is the only test
// in this program that reads it.
TEST(ExampleConfiguration, IsReadAsDocumented)
{
    ASSERT_TRUE(PrivateMounts::shadow("/etc"));
    ASSERT_TRUE(PrivateMounts::writeFile("/etc/TimeSourceDaemonConfig.xml",
                                         readFile(kSource + "/packaging/config/TimeSourceDaemonConfig.xml")));
    const ConfigParams& cfg = ConfigParams::instance();
    EXPECT_EQ(cfg.getMulticastAddress(), "239.255.42.1");
    EXPECT_EQ(cfg.getMulticastPort(orv::tsd::REAR_FW), 17001u);
    EXPECT_EQ(cfg.getMulticastPort(orv::tsd::FRONT_FW), 17002u);
    EXPECT_EQ(cfg.getPrioLevel("KP"), 20u);
    EXPECT_EQ(cfg.getPrioLevel("RZ"), 10u);
    EXPECT_EQ(cfg.getPrioLevel("Ptp"), 5u);
    EXPECT_EQ(cfg.getPrioLevel("Ntp"), 3u);
}

TEST_F(Scripts, PtpStartRunsPtp4lWithTheOptionsOfItsFileAndStopEndsIt)
{
    ASSERT_TRUE(PrivateMounts::writeFile("/run/timesync/ptp4l.cfg", "-4 -E -H -i firewire0\n"));
    ASSERT_EQ(run(env() + kScripts + "/ptp4ladm.sh start"), 0);
    pid_t pid = pidFrom("/run/timesync/ptp4l.pid");
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(alive(pid));
    EXPECT_EQ(readFile(m_dir + "/ptp4l.args"), "-4 -E -H -i firewire0\n");

    ASSERT_TRUE(PrivateMounts::writeFile("/run/timesync/ptp4l.cfg", "-2 -i firewire1\n"));
    ASSERT_EQ(run(env() + kScripts + "/ptp4ladm.sh restart"), 0);
    pid_t again = pidFrom("/run/timesync/ptp4l.pid");
    EXPECT_NE(again, pid);
    EXPECT_EQ(readFile(m_dir + "/ptp4l.args"), "-2 -i firewire1\n");

    ASSERT_EQ(run(env() + kScripts + "/ptp4ladm.sh stop"), 0);
    // The stand-in is a grandchild of this test (the script backgrounds it)
    // and has been reparented; it is gone once kill -0 fails.
    auto deadline = std::chrono::steady_clock::now() + 5s;
    while (alive(again) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_FALSE(alive(again));
    EXPECT_FALSE(std::ifstream("/run/timesync/ptp4l.pid").good());
    EXPECT_EQ(run(env() + kScripts + "/ptp4ladm.sh stop"), 0) << "stopping a stopped daemon is no failure";
}

TEST_F(Scripts, PtpStartFailsWithoutItsFileOrWithoutPtp4l)
{
    EXPECT_EQ(run(env() + kScripts + "/ptp4ladm.sh start 2>/dev/null"), 1);
    ASSERT_TRUE(PrivateMounts::writeFile("/run/timesync/ptp4l.cfg", "-4\n"));
    EXPECT_EQ(run("PTP4L=" + m_dir + "/no-such-ptp4l " + kScripts + "/ptp4ladm.sh start 2>/dev/null"), 1);
    EXPECT_EQ(run(kScripts + "/ptp4ladm.sh frobnicate 2>/dev/null"), 2);
}

TEST_F(Scripts, NtpStartServesTheConfiguredServerAndStopEndsIt)
{
    ASSERT_TRUE(PrivateMounts::writeFile("/run/timesync/ntpserver.ip", "192.0.2.7\n"));
    // The daemon runs "/bin/start_ntpd.sh &": the script stays in the
    // foreground of its own shell as the NTP daemon.
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::execl("/bin/sh", "sh", "-c", (env() + "exec " + kScripts + "/start_ntpd.sh").c_str(), nullptr);
        ::_exit(127);
    }
    std::thread reaper([child] { ::waitpid(child, nullptr, 0); });
    auto deadline = std::chrono::steady_clock::now() + 5s;
    while (pidFrom("/run/timesync/ntpd.pid") == 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_EQ(pidFrom("/run/timesync/ntpd.pid"), child);
    std::string conf = readFile("/run/timesync/ntpd.conf");
    EXPECT_NE(conf.find("server 192.0.2.7 iburst"), std::string::npos) << conf;
    EXPECT_NE(readFile(m_dir + "/ntpd.args").find("-c /var/run/timesync/ntpd.conf"), std::string::npos);

    EXPECT_EQ(run(kScripts + "/stop_ntpd.sh"), 0);
    reaper.join();
    EXPECT_FALSE(std::ifstream("/run/timesync/ntpd.pid").good());
    EXPECT_EQ(run(kScripts + "/stop_ntpd.sh"), 0) << "stopping a stopped daemon is no failure";
}

TEST_F(Scripts, NtpStartFailsWithoutItsFile)
{
    EXPECT_EQ(run(env() + kScripts + "/start_ntpd.sh 2>/dev/null"), 1);
}

// TSD_SCRIPT_DIR is one setting: the daemon's command lines and the install
// rules take it from the same place, and only a plain absolute path gets in
// (the daemon pastes it into shell command lines).
TEST(ScriptDirectory, IsOneSettingForTheDaemonAndTheInstallAndMustBePlain)
{
    const std::string dir = PrivateMounts::scratchDir("script-dir");
    const std::string configure = std::string(TSD_CMAKE_COMMAND) + " -S " + kSource + " -B " + dir +
                                  "/build -DTSD_BUILD_TESTS=OFF -DTSD_BUILD_BENCH=OFF -DTSD_BUILD_FUZZ=OFF";
    for (const char* bad : {"bin", "/bin/", "/opt/tsd scripts", "/bin;reboot", "/opt/$(id)", "/opt//x"}) {
        SCOPED_TRACE(bad);
        const std::string log = dir + "/bad.log";
        EXPECT_NE(run(configure + " '-DTSD_SCRIPT_DIR=" + bad + "' > " + log + " 2>&1"), 0);
        EXPECT_NE(readFile(log).find("TSD_SCRIPT_DIR must be an absolute path"), std::string::npos)
            << readFile(log);
        ::unlink((dir + "/build/CMakeCache.txt").c_str());
    }

    const std::string log = dir + "/good.log";
    ASSERT_EQ(run(configure + " -DTSD_SCRIPT_DIR=/opt/tsd-1.0/scripts > " + log + " 2>&1"), 0) << readFile(log);
    EXPECT_NE(readFile(dir + "/build/src/CMakeFiles/tsdcore.dir/flags.make")
                  .find("-DTSD_SCRIPT_DIR=\\\"/opt/tsd-1.0/scripts\\\""),
              std::string::npos);
    EXPECT_NE(readFile(dir + "/build/packaging/cmake_install.cmake").find("/opt/tsd-1.0/scripts"), std::string::npos);
}

// The files a module receives besides the binaries: where the install rules
// put them and whether the daemon reads the example configuration as
// intended. Runs in the test's private mount namespace, so /etc and the
// scratch folders are the test's own. The time-service scripts themselves
// have test programs of their own beside this one.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "ModuleSandbox.h"
#include "config/ConfigParams.h"
#include "sync/NtpManage.h"
#include "sync/PTPManage.h"
#include "testsupport/PrivateMounts.h"

using scripttest::kSource;
using scripttest::readFile;
using testsupport::PrivateMounts;

namespace {

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
    // The installed scripts use the installed library and allow-lists, never
    // the build tree's.
    for (const char* script : {"/bin/ptp4ladm.sh", "/bin/start_ntpd.sh", "/bin/stop_ntpd.sh"}) {
        EXPECT_TRUE(isExecutableFile(root + script)) << script;
        std::string text = readFile(root + script);
        EXPECT_NE(text.find("\n. '/usr/share/tsd/time-services.sh'\n"), std::string::npos) << script;
        EXPECT_NE(text.find("\nTSD_DATA_DIR='/usr/share/tsd'\n"), std::string::npos) << script;
        EXPECT_EQ(text.find(kSource), std::string::npos) << script;
    }
    for (const char* shared : {"time-services.sh", "ptp4l-options", "chronyd-options", "ntpd-options"}) {
        EXPECT_EQ(readFile(root + "/usr/share/tsd/" + shared),
                  readFile(kSource + "/packaging/" +
                           (std::string(shared) == "time-services.sh" ? "scripts/" : "config/") + shared))
            << shared;
    }
    EXPECT_EQ(readFile(root + "/etc/TimeSourceDaemonConfig.xml"),
              readFile(kSource + "/packaging/config/TimeSourceDaemonConfig.xml"));
    // The UUID is the first setting: provisioning rewrites that line.
    std::string firstSetting;
    for (const std::string& line : scripttest::readLines(root + "/etc/default/tsd")) {
        if (!line.empty() && line[0] != '#') {
            firstSetting = line;
            break;
        }
    }
    EXPECT_EQ(firstSetting.compare(0, 5, "UUID="), 0) << firstSetting;

    // The units start the programs where the install put them.
    std::string tsdUnit = readFile(root + "/lib/systemd/system/tsd.service");
    std::string veladUnit = readFile(root + "/lib/systemd/system/velad.service");
    EXPECT_NE(tsdUnit.find("RuntimeDirectory=timesync"), std::string::npos) << tsdUnit;
    EXPECT_NE(tsdUnit.find(" $TSD_OPTIONS\n"), std::string::npos) << tsdUnit;
    // The daemon starts with no time service of its own: the module follows.
    EXPECT_NE(tsdUnit.find("\nExecStartPre=-/bin/ptp4ladm.sh stop\n"), std::string::npos) << tsdUnit;
    EXPECT_NE(tsdUnit.find("\nExecStartPre=-/bin/stop_ntpd.sh\n"), std::string::npos) << tsdUnit;
    // The debug signals reach the daemon alone, not the scripts it runs.
    EXPECT_NE(tsdUnit.find("systemctl kill --kill-whom=main -s SIGUSR1 tsd"), std::string::npos) << tsdUnit;
    EXPECT_EQ(tsdUnit.find("systemctl kill -s"), std::string::npos) << tsdUnit;
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
    for (const char* program : {"tsdsim", "tsd", "velad", "vela", "fwdevd", "tsdparamd"}) {
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

// fwdevd and tsdparamd: their units start before tsd and tell when they are
// ready, tsd wants them, and what they read is where they read it.
TEST(Install, PutsTheServicesBesideTsdInPlace)
{
    std::string root = PrivateMounts::scratchDir("install-services");
    ASSERT_EQ(run("DESTDIR=" + root + " " + TSD_CMAKE_COMMAND + " --install " + TSD_BINARY_DIR + " > " +
                  root + ".log 2>&1"),
              0)
        << readFile(root + ".log");
    for (const char* name : {"fwdevd", "tsdparamd"}) {
        SCOPED_TRACE(name);
        const std::string unit = readFile(root + "/lib/systemd/system/" + name + ".service");
        for (const char* line : {"\nType=notify\n", "\nAfter=velad.service\n", "\nBefore=tsd.service\n",
                                 "\nUser=", "\nNoNewPrivileges=yes\n"}) {
            EXPECT_NE(unit.find(line), std::string::npos) << line << " in\n" << unit;
        }
        const std::string program = execStartOf(unit);
        EXPECT_EQ(program.substr(program.rfind('/') + 1), name);
        EXPECT_TRUE(isExecutableFile(root + program)) << program;
        EXPECT_EQ(run("find " + root + " -name " + std::string(name) + ".8 | grep -q ."), 0) << "man page";
    }
    EXPECT_NE(readFile(root + "/lib/systemd/system/tsdparamd.service").find("\nStateDirectory=tsd\n"),
              std::string::npos);
    EXPECT_NE(readFile(root + "/lib/systemd/system/tsd.service").find("fwdevd.service tsdparamd.service"),
              std::string::npos);
    EXPECT_EQ(readFile(root + "/etc/tsd/param.json"), readFile(kSource + "/packaging/config/param.json"));
    EXPECT_EQ(run("find " + root + " -path '*/share/tsd/ptp4l-options' -type f | grep -q ."), 0);
    EXPECT_NE(readFile(root + "/usr/lib/sysusers.d/tsd-services.conf").find("\nu fwdevd "), std::string::npos);
    EXPECT_NE(readFile(root + "/usr/lib/sysusers.d/tsd-services.conf").find("\nu tsdparamd "), std::string::npos);
    EXPECT_NE(readFile(root + "/usr/lib/sysusers.d/velad.conf").find("\nu velad "), std::string::npos);
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

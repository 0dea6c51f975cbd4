// The Debian packages as an administrator meets them. The suite builds them
// once (scripts/build-debs), checks them with lintian, and then installs,
// upgrades, removes and purges them in throw-away roots: an overlay of / in
// this test program's own mount namespace, whose writes land in a tmpfs and
// vanish with the test. The host's root and its package database stay as they
// were. It also builds a small bus program against the installed development
// files, once with pkg-config and once with CMake, and runs it, and prints the
// sandbox scores of the installed units. Last, it boots a module from the
// installed packages: systemd as the init of a container (systemd-nspawn)
// whose root is such a throw-away root, with a network of its own.
//
// TSD_PREBUILT_DEBS=DIR skips the build and takes the packages (and the
// .changes) from DIR: ctest builds them once, as a test of its own
// (packaging_DebianPackages_build), for this program's two entries, the
// booted module and the rest. Run by hand without it, the program builds
// them itself.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Sandbox.h"
#include "testsupport/ChildProcess.h"
#include "testsupport/PrivateMounts.h"

using namespace std::chrono_literals;
using testsupport::ChildProcess;
using testsupport::PrivateMounts;

namespace {

const std::string kSource = TSD_SOURCE_DIR;
const std::string kBinary = TSD_BINARY_DIR;
const char kVersion[] = "1.0.0";
const char kNewVersion[] = "1.0.0+1";
// Building the packages compiles the whole project once more.
constexpr auto kBuildTimeout = 1500s;
constexpr auto kStepTimeout = 300s;
// Configuration files whose shipped version changes in the upgrade.
const char kChangedConffiles[] = "etc/TimeSourceDaemonConfig.xml etc/vela/acl.conf";

struct Output
{
    int status = -1;
    std::string text;  // stdout and stderr together
};

// Runs a shell command line on the host, stdout and stderr together.
Output sh(const std::string& command, std::chrono::seconds timeout = kStepTimeout)
{
    ChildProcess child({"/bin/sh", "-c", "exec 2>&1; " + command});
    child.closeStdin();
    Output out;
    out.text = child.readAll(timeout);
    out.status = child.wait(timeout);
    return out;
}

std::string shellQuoted(const std::string& s)
{
    std::string out = "'";
    for (char c : s) {
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return out + "'";
}

bool exists(const std::string& path)
{
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

const char* const kPackages[] = {"liborv1", "libvelapeerasync1", "tsd-dev", "velad",        "vela",
                                 "tsd",     "tsd-services",      "tsd-tools", "tsdsim"};
const char kAllPackages[] = "liborv1 libvelapeerasync1 tsd-dev velad vela tsd tsd-services tsd-tools tsdsim";

// An overlay of / mounted in this process's private mount namespace, with a
// private /proc, /dev, /run and /tmp, entered with chroot. /run holds no
// service manager, and policy-rc.d refuses every start, so the maintainer
// scripts start nothing on this machine.
class ThrowawayRoot
{
public:
    explicit ThrowawayRoot(const std::string& name)
    {
        m_base = PrivateMounts::scratchDir("root-" + name);
        m_root = m_base + "/merged";
        if (::mount("tsdroot", m_base.c_str(), "tmpfs", 0, "mode=0755") != 0) {
            return;
        }
        for (const char* dir : {"/upper", "/work", "/merged"}) {
            ::mkdir((m_base + dir).c_str(), 0755);
        }
        const std::string options = "lowerdir=/,upperdir=" + m_base + "/upper,workdir=" + m_base + "/work";
        if (::mount("overlay", m_root.c_str(), "overlay", 0, options.c_str()) != 0) {
            return;
        }
        m_ready = ::mount("proc", (m_root + "/proc").c_str(), "proc", 0, nullptr) == 0 &&
                  ::mount("/dev", (m_root + "/dev").c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0 &&
                  ::mount("tsdrun", (m_root + "/run").c_str(), "tmpfs", 0, "mode=0755") == 0 &&
                  ::mount("tsdtmp", (m_root + "/tmp").c_str(), "tmpfs", 0, "mode=1777") == 0 &&
                  PrivateMounts::writeFile(m_root + "/usr/sbin/policy-rc.d", "#!/bin/sh\nexit 101\n", 0755);
    }
    ~ThrowawayRoot()
    {
        // A lazy unmount takes the overlay's own mounts along.
        ::umount2(m_root.c_str(), MNT_DETACH);
        ::umount2(m_base.c_str(), MNT_DETACH);
    }
    ThrowawayRoot(const ThrowawayRoot&) = delete;
    ThrowawayRoot& operator=(const ThrowawayRoot&) = delete;

    bool ready() const { return m_ready; }
    // A path inside the root, as the host sees it.
    std::string path(const std::string& inside) const { return m_root + inside; }

    // Runs a shell command line inside the root, with a plain environment.
    Output run(const std::string& command, std::chrono::seconds timeout = kStepTimeout) const
    {
        return sh("exec /usr/sbin/chroot " + shellQuoted(m_root) +
                      " /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 HOME=/root"
                      " DEBIAN_FRONTEND=noninteractive /bin/sh -c " +
                      shellQuoted("exec 2>&1; " + command),
                  timeout);
    }

    // Copies host files into the root's /tmp/debs.
    bool bring(const std::vector<std::string>& files) const
    {
        std::string list;
        for (const std::string& f : files) {
            list += " " + shellQuoted(f);
        }
        return sh("mkdir -p " + shellQuoted(path("/tmp/debs")) + " && cp" + list + " " + shellQuoted(path("/tmp/debs"))).status ==
               0;
    }

    std::string versionOf(const std::string& package) const
    {
        Output out = run("dpkg-query -W -f='${db:Status-Abbrev} ${Version}' " + package);
        return out.status == 0 ? out.text : "not installed";
    }

private:
    std::string m_base;
    std::string m_root;
    bool m_ready = false;
};

class DebianPackages : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        const char* prebuilt = std::getenv("TSD_PREBUILT_DEBS");
        s_dir = prebuilt != nullptr && *prebuilt != '\0' ? prebuilt : kBinary + "/deb";
        if (prebuilt == nullptr || *prebuilt == '\0') {
            const auto start = std::chrono::steady_clock::now();
            Output build = sh(shellQuoted(kSource + "/scripts/build-debs") + " " + shellQuoted(s_dir) + " > " +
                                  shellQuoted(kBinary + "/build-debs.log"),
                              kBuildTimeout);
            std::printf("[ figures  ] package build: %.0f s, exit status %d (log: %s/build-debs.log)\n",
                        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
                        build.status, kBinary.c_str());
            s_built = build.status == 0;
        } else {
            s_built = true;
        }
        // The next release: the same packages, a later version, and two
        // shipped configuration files that changed (tsd's XML, the bus's
        // access policy).
        s_newDir = s_dir + "/upgrade";
        Output bump = sh("rm -rf " + shellQuoted(s_newDir) + " && mkdir -p " + shellQuoted(s_newDir) + " && for deb in " +
                         shellQuoted(s_dir) + "/*_" + kVersion + "_*.deb; do case $deb in *-dbgsym_*) continue;; esac; "
                         "changed=; for f in " + kChangedConffiles + "; do "
                         "dpkg-deb -c \"$deb\" | grep -q \" \\./$f$\" && changed=\"$changed $f\"; done; " +
                         shellQuoted(kSource + "/tests/packaging/bump-deb-version") + " \"$deb\" " + shellQuoted(s_newDir) +
                         " " + kNewVersion + " $changed || exit 1; done");
        s_bumped = s_built && bump.status == 0;
        if (!s_bumped) {
            std::printf("%s\n", bump.text.c_str());
        }
    }

    // The packages of one version, without the debug symbols.
    static std::vector<std::string> packages(const std::string& dir, const std::string& version)
    {
        Output ls = sh("ls " + shellQuoted(dir) + "/*_" + version + "_*.deb | grep -v -- -dbgsym_");
        std::vector<std::string> files;
        std::istringstream lines(ls.text);
        std::string line;
        while (std::getline(lines, line)) {
            if (!line.empty()) {
                files.push_back(line);
            }
        }
        return files;
    }

    // A root with version 1.0.0 of every package installed.
    static void installAll(const ThrowawayRoot& root)
    {
        ASSERT_TRUE(root.ready());
        const std::vector<std::string> debs = packages(s_dir, kVersion);
        ASSERT_EQ(debs.size(), std::size(kPackages)) << "one of each: liborv1 libvelapeerasync1 tsd-dev velad vela tsd "
                                                        "tsd-services tsd-tools tsdsim";
        ASSERT_TRUE(root.bring(debs));
        Output install = root.run("dpkg -i /tmp/debs/*.deb");
        ASSERT_EQ(install.status, 0) << install.text;
    }

    static std::string s_dir;
    static std::string s_newDir;
    static bool s_built;
    static bool s_bumped;
};

std::string DebianPackages::s_dir;
std::string DebianPackages::s_newDir;
bool DebianPackages::s_built = false;
bool DebianPackages::s_bumped = false;

}  // namespace

TEST_F(DebianPackages, LintianFindsNoErrorAndNoWarningWithoutItsReason)
{
    ASSERT_TRUE(s_built);
    // Overridden tags carry their reason in debian/*.lintian-overrides;
    // informational tags are shown but do not fail.
    Output lint = sh("lintian --fail-on error,warning --display-info " + shellQuoted(s_dir) + "/*.changes", kStepTimeout);
    std::printf("%s", lint.text.c_str());
    EXPECT_EQ(lint.status, 0) << lint.text;
    EXPECT_EQ(lint.text.find("\nE: "), std::string::npos);
    EXPECT_EQ(lint.text.find("\nW: "), std::string::npos);
}

TEST_F(DebianPackages, InstallUpgradeRemoveAndPurgeKeepLocalConfigurationUntilThePurge)
{
    ASSERT_TRUE(s_bumped);
    const std::string hostBefore = sh("dpkg-query -W -f='${db:Status-Abbrev} ${Version}' tsd").text;
    const std::string hostUsers = sh("getent passwd velad fwdevd tsdparamd").text;
    ThrowawayRoot root("lifecycle");
    installAll(root);
    for (const char* package : kPackages) {
        EXPECT_EQ(root.versionOf(package), std::string("ii  ") + kVersion) << package;
    }
    // Every file a package puts under /etc is one of its conffiles.
    Output notConffiles = root.run(std::string("for p in ") + kAllPackages +
                                   "; do dpkg -L $p | grep '^/etc/' | while read -r f; do [ -f \"$f\" ] || continue; "
                                   "dpkg-query -W -f='${Conffiles}\\n' $p | grep -q \" $f \" || echo \"$p: $f\"; done; done");
    EXPECT_EQ(notConffiles.text, "");
    Output etcFiles = root.run(std::string("for p in ") + kAllPackages + "; do dpkg -L $p | grep '^/etc/'; done");
    for (const char* file : {"/etc/default/tsd", "/etc/TimeSourceDaemonConfig.xml", "/etc/vela/acl.conf",
                             "/etc/vela/velad.conf", "/etc/tsd/param.json"}) {
        EXPECT_NE(etcFiles.text.find(std::string(file) + "\n"), std::string::npos) << file;
    }
    // The system users of the broker and the two services, without a login.
    for (const char* user : {"velad", "fwdevd", "tsdparamd"}) {
        Output entry = root.run(std::string("getent passwd ") + user + " && id -gn " + user);
        ASSERT_EQ(entry.status, 0) << user << ": " << entry.text;
        std::istringstream fields(entry.text);
        std::vector<std::string> field;
        for (std::string f; std::getline(fields, f, ':');) {
            field.push_back(f);
        }
        ASSERT_EQ(field.size(), 7u) << entry.text;
        EXPECT_LT(std::stoul(field[2]), 1000u) << entry.text;
        EXPECT_NE(field[6].find("nologin\n" + std::string(user) + "\n"), std::string::npos) << entry.text;
    }
    // The units are enabled (not started: nothing here runs a service
    // manager); the broker by its socket too.
    for (const char* link : {"sockets.target.wants/velad.socket", "multi-user.target.wants/velad.service",
                             "multi-user.target.wants/fwdevd.service", "multi-user.target.wants/tsdparamd.service",
                             "multi-user.target.wants/tsd.service"}) {
        EXPECT_TRUE(exists(root.path(std::string("/etc/systemd/system/") + link))) << link;
    }
    // Every installed program but the daemon (whose options are fixed) tells
    // its version, and each has its manual page where man finds it.
    Output versions = root.run(std::string("for p in ") + kAllPackages +
                               "; do dpkg -L $p | grep -E '^(/usr)?/s?bin/[^/]+$'; done | sort | "
                               "while read -r f; do man -w \"${f##*/}\" > /dev/null || echo \"no page: $f\"; "
                               "[ \"$f\" = /usr/sbin/tsd ] || [ \"${f##*.}\" = sh ] || \"$f\" --version; done | sort");
    EXPECT_EQ(versions.status, 0) << versions.text;
    EXPECT_EQ(versions.text, "fwdevd 1.0.0\ntsdctl 1.0.0\ntsdmon 1.0.0\ntsdparamd 1.0.0\ntsdsim 1.0.0\n"
                             "vela 1.0.0\nvelad 1.0.0\n");
    Output tsdHelp = root.run("/usr/sbin/tsd -h");
    EXPECT_NE(tsdHelp.text.find("-d for enable DEBUG SYSLOG"), std::string::npos) << tsdHelp.text;

    // The module's own settings, and what tsdparamd kept at run time.
    ASSERT_EQ(root.run("sed -i 's/^UUID=.*/UUID=00ABCD/' /etc/default/tsd && "
                       "sed -i 's/17001/17101/' /etc/TimeSourceDaemonConfig.xml && "
                       "echo 'user operator set sync/param' >> /etc/vela/acl.conf && "
                       "sed -i 's/^max-connections 256$/max-connections 128/' /etc/vela/velad.conf && "
                       "sed -i 's/\"threshold\": 0.5/\"threshold\": 2.5/' /etc/tsd/param.json && "
                       "mkdir -p /var/lib/tsd && echo '{\"timesource\":\"Ntp\"}' > /var/lib/tsd/param.json")
                  .status,
              0);
    std::map<std::string, std::string> edited;
    for (const char* file : {"/etc/default/tsd", "/etc/TimeSourceDaemonConfig.xml", "/etc/vela/acl.conf",
                             "/etc/vela/velad.conf", "/etc/tsd/param.json"}) {
        edited[file] = PrivateMounts::readFile(root.path(file));
    }
    ASSERT_NE(edited["/etc/default/tsd"].find("UUID=00ABCD\n"), std::string::npos);
    ASSERT_NE(edited["/etc/vela/velad.conf"].find("\nmax-connections 128\n"), std::string::npos);
    ASSERT_NE(edited["/etc/tsd/param.json"].find("\"threshold\": 2.5"), std::string::npos);
    const auto expectEditsKept = [&](const char* when) {
        for (const auto& [file, text] : edited) {
            EXPECT_EQ(PrivateMounts::readFile(root.path(file)), text) << file << " " << when;
        }
    };

    // Reinstalling the same version keeps every file.
    Output reinstall = root.run("dpkg -i /tmp/debs/tsd_*.deb /tmp/debs/velad_*.deb /tmp/debs/tsd-services_*.deb");
    ASSERT_EQ(reinstall.status, 0) << reinstall.text;
    expectEditsKept("after a reinstall");

    // The upgrade ships TimeSourceDaemonConfig.xml and acl.conf changed, the
    // others as they were; the administrator's answer to the question about
    // a changed one is "keep mine", as apt's --force-confold gives it.
    ASSERT_TRUE(sh("rm -f " + shellQuoted(root.path("/tmp/debs")) + "/*.deb").status == 0);
    ASSERT_TRUE(root.bring(packages(s_newDir, kNewVersion)));
    Output upgrade = root.run("dpkg -i --force-confdef --force-confold /tmp/debs/*.deb");
    ASSERT_EQ(upgrade.status, 0) << upgrade.text;
    for (const char* package : kPackages) {
        EXPECT_EQ(root.versionOf(package), std::string("ii  ") + kNewVersion) << package;
    }
    expectEditsKept("after the upgrade");
    EXPECT_NE(PrivateMounts::readFile(root.path("/etc/TimeSourceDaemonConfig.xml.dpkg-dist")).find("<!-- changed in 1.0.0+1 -->"),
              std::string::npos)
        << "the new shipped version waits beside the kept one";
    EXPECT_NE(PrivateMounts::readFile(root.path("/etc/vela/acl.conf.dpkg-dist")).find("\n# changed in 1.0.0+1\n"),
              std::string::npos);
    for (const char* unchanged : {"/etc/vela/velad.conf.dpkg-dist", "/etc/tsd/param.json.dpkg-dist",
                                  "/etc/default/tsd.dpkg-dist"}) {
        EXPECT_FALSE(exists(root.path(unchanged))) << unchanged << ": no question about an unchanged file";
    }
    EXPECT_EQ(root.run("getent passwd velad fwdevd tsdparamd | wc -l").text, "3\n");

    // Removing keeps the configuration and the kept parameters; purging
    // takes both.
    Output remove = root.run("dpkg -r tsdsim tsd tsd-services tsd-tools");
    ASSERT_EQ(remove.status, 0) << remove.text;
    for (const char* gone : {"/usr/sbin/tsd", "/usr/sbin/fwdevd", "/usr/sbin/tsdparamd", "/usr/bin/tsdmon"}) {
        EXPECT_FALSE(exists(root.path(gone))) << gone;
    }
    expectEditsKept("after a remove");
    EXPECT_TRUE(exists(root.path("/var/lib/tsd/param.json")));
    EXPECT_EQ(root.versionOf("tsd"), std::string("rc  ") + kNewVersion);
    EXPECT_EQ(root.versionOf("tsd-services"), std::string("rc  ") + kNewVersion);

    Output purge = root.run("dpkg -P tsd tsd-services");
    ASSERT_EQ(purge.status, 0) << purge.text;
    for (const char* gone : {"/etc/default/tsd", "/etc/TimeSourceDaemonConfig.xml",
                             "/etc/TimeSourceDaemonConfig.xml.dpkg-dist", "/etc/tsd/param.json", "/var/lib/tsd",
                             "/etc/systemd/system/multi-user.target.wants/tsd.service",
                             "/etc/systemd/system/multi-user.target.wants/fwdevd.service",
                             "/etc/systemd/system/multi-user.target.wants/tsdparamd.service"}) {
        EXPECT_FALSE(exists(root.path(gone))) << gone;
    }
    EXPECT_EQ(root.versionOf("tsd"), "not installed");
    EXPECT_EQ(root.versionOf("tsd-services"), "not installed");

    Output purgeRest = root.run("dpkg -P tsdsim tsd-tools tsd-dev vela velad libvelapeerasync1 liborv1");
    EXPECT_EQ(purgeRest.status, 0) << purgeRest.text;
    for (const char* gone : {"/etc/vela/acl.conf", "/etc/vela/acl.conf.dpkg-dist", "/etc/vela/velad.conf",
                             "/etc/systemd/system/multi-user.target.wants/velad.service",
                             "/etc/systemd/system/sockets.target.wants/velad.socket",
                             "/usr/include/vela/PeerAsync.h"}) {
        EXPECT_FALSE(exists(root.path(gone))) << gone;
    }
    // System users stay after a purge, as Debian leaves them: a later user
    // given the same uid would inherit whatever they owned.
    EXPECT_EQ(root.run("getent passwd velad fwdevd tsdparamd | wc -l").text, "3\n");
    // The host never saw any of it.
    EXPECT_EQ(sh("dpkg-query -W -f='${db:Status-Abbrev} ${Version}' tsd").text, hostBefore);
    EXPECT_EQ(sh("getent passwd velad fwdevd tsdparamd").text, hostUsers);
}

TEST_F(DebianPackages, InstalledProgramsAndLibrariesCarryNoRunpath)
{
    ASSERT_TRUE(s_built);
    ThrowawayRoot root("runpath");
    installAll(root);
    for (const char* file : {"/usr/sbin/tsd", "/usr/sbin/velad", "/usr/bin/vela", "/usr/bin/tsdctl", "/usr/sbin/fwdevd",
                             "/usr/sbin/tsdparamd", "/usr/bin/tsdmon", "/usr/libexec/tsdsim/tsdsim"}) {
        Output dynamic = sh("readelf -d " + shellQuoted(root.path(file)));
        ASSERT_EQ(dynamic.status, 0) << file << dynamic.text;
        EXPECT_EQ(dynamic.text.find("RUNPATH"), std::string::npos) << file << dynamic.text;
        EXPECT_EQ(dynamic.text.find("RPATH"), std::string::npos) << file << dynamic.text;
    }
    for (const char* soname : {"liborv.so.1", "libvelapeerasync.so.1"}) {
        Output dynamic = root.run(std::string("readelf -d /usr/lib/*/") + soname);
        EXPECT_NE(dynamic.text.find(std::string("Library soname: [") + soname + "]"), std::string::npos)
            << dynamic.text;
        EXPECT_EQ(dynamic.text.find("RPATH"), std::string::npos) << dynamic.text;
        EXPECT_EQ(dynamic.text.find("RUNPATH"), std::string::npos) << dynamic.text;
    }
}

TEST_F(DebianPackages, AProgramBuildsAgainstTheDevelopmentFilesWithPkgConfigAndWithCMake)
{
    ASSERT_TRUE(s_built);
    ThrowawayRoot root("dev");
    installAll(root);
    // A bus participant: owns a state, fetches it back, prints it.
    ASSERT_TRUE(PrivateMounts::writeFile(root.path("/tmp/probe/probe.cpp"), R"(
#include <orv/sys/EventLoop.h>
#include <orv/sys/Timer.h>
#include <vela/PeerAsync.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    orv::sys::EventLoop loop;
    vela::PeerAsync peer(loop, "127.0.0.1", static_cast<unsigned>(std::atoi(argv[1])), "probe");
    int status = 1;
    peer.addStateAsync("probe/value", Json::Value(42));
    vela::matcher_t matcher;
    matcher.equals = "probe/value";
    peer.addFetchAsync(matcher, [&](const Json::Value& notification, int) {
        std::printf("%s %d\n", notification["path"].asCString(), notification["value"].asInt());
        status = 0;
        loop.stop();
    });
    orv::sys::Timer deadline(loop);
    deadline.set(std::chrono::seconds(10), false, [&](bool fired) {
        if (fired)
            loop.stop();
    });
    loop.execute();
    return status;
}
)"));
    ASSERT_TRUE(PrivateMounts::writeFile(root.path("/tmp/probe/CMakeLists.txt"), R"(
cmake_minimum_required(VERSION 3.16)
project(probe CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(orv 1.0 REQUIRED)
find_package(velapeerasync 1.0 REQUIRED)
add_executable(probe-cmake probe.cpp)
target_link_libraries(probe-cmake PRIVATE vela::velapeerasync orv::orv)
)"));

    Output pkgConfig = root.run("cd /tmp/probe && g++ -std=c++17 -o probe-pc probe.cpp "
                                "$(pkg-config --cflags --libs velapeerasync orv)");
    ASSERT_EQ(pkgConfig.status, 0) << pkgConfig.text;
    Output cmake = root.run("cd /tmp/probe && cmake -S . -B build > /dev/null && cmake --build build");
    ASSERT_EQ(cmake.status, 0) << cmake.text;

    // The installed broker, on a port of its own choosing.
    ChildProcess velad({"/usr/sbin/chroot", root.path("/"), "/usr/sbin/velad", "--port", "0", "--quiet"});
    std::string listening;
    ASSERT_TRUE(velad.readLine(listening, 10s));
    const std::string port = listening.substr(listening.rfind(':') + 1);
    ASSERT_EQ(listening, "velad listening on 127.0.0.1:" + port);
    for (const char* probe : {"/tmp/probe/probe-pc", "/tmp/probe/build/probe-cmake"}) {
        Output run = root.run(std::string(probe) + " " + port, 30s);
        EXPECT_EQ(run.status, 0) << probe << ": " << run.text;
        EXPECT_EQ(run.text, "probe/value 42\n") << probe;
    }
}

TEST_F(DebianPackages, InstalledUnitsGetTheirSandboxScores)
{
    ASSERT_TRUE(s_built);
    ThrowawayRoot root("units");
    installAll(root);
    // Every service unit the packages install, with its figure.
    Output units = root.run(std::string("for p in ") + kAllPackages +
                            "; do dpkg -L $p | grep -E '^/lib/systemd/system/[^/]+\\.service$'; done | sort");
    std::vector<std::string> services;
    std::istringstream lines(units.text);
    for (std::string line; std::getline(lines, line);) {
        services.push_back(line);
    }
    ASSERT_EQ(services.size(), 4u) << units.text;
    std::map<std::string, double> exposure;
    for (const std::string& unit : services) {
        Output score =
            sh("systemd-analyze security --offline=yes --no-pager " + shellQuoted(root.path(unit)) + " | tail -n 1");
        std::printf("[ figures  ] %s", score.text.c_str());
        EXPECT_EQ(score.status, 0) << score.text;
        const std::string name = unit.substr(unit.rfind('/') + 1);
        const std::string prefix = "Overall exposure level for " + name + ": ";
        const auto at = score.text.find(prefix);
        ASSERT_NE(at, std::string::npos) << score.text;
        exposure[name] = std::strtod(score.text.c_str() + at + prefix.size(), nullptr);
    }
    // The broker holds no privilege at all; a time daemon of the
    // distribution (chrony, 3.7) is the mark it must not exceed. fwdevd and
    // tsdparamd fare as well as it does; tsd runs as root for its scripts and
    // is fenced off otherwise (1.8 when its sandbox was last changed).
    EXPECT_GT(exposure["velad.service"], 0.0);
    EXPECT_LE(exposure["velad.service"], 3.7);
    EXPECT_LE(exposure["fwdevd.service"], exposure["velad.service"]);
    EXPECT_LE(exposure["tsdparamd.service"], exposure["velad.service"]);
    EXPECT_LE(exposure["tsd.service"], 2.0);

    // Each unit parses without a complaint, and what it names is installed:
    // the program, the units it orders itself against and the manual pages
    // of Documentation=.
    for (const std::string& unit : services) {
        Output verify = root.run("systemd-analyze verify " + unit + " /lib/systemd/system/velad.socket");
        EXPECT_EQ(verify.status, 0) << unit << ": " << verify.text;
        EXPECT_EQ(verify.text, "") << unit;
    }
}

namespace {

// A module booted from the installed packages: systemd as PID 1 of a
// container (systemd-nspawn) whose root is the throw-away root, with a
// network of its own (loopback and what the test adds), without
// CAP_SYS_TIME, so nothing in it can set the host's clock. It boots a target
// of its own that wants the module's units, not the host's.
class BootedModule
{
public:
    explicit BootedModule(const ThrowawayRoot& root)
        : m_nspawn({"/usr/bin/systemd-nspawn", "--quiet", "--directory=" + root.path("/"), "--machine=tsdmodule",
                    "--boot", "--register=no", "--keep-unit", "--private-network", "--console=passive",
                    "--drop-capability=CAP_SYS_TIME", "--", "systemd.unit=tsd-module.target"})
    {
        m_nspawn.closeStdin();
        // The container's init is nspawn's child.
        const auto deadline = std::chrono::steady_clock::now() + 20s;
        while (m_init <= 0 && std::chrono::steady_clock::now() < deadline && m_nspawn.running()) {
            Output child = sh("cat /proc/" + std::to_string(m_nspawn.pid()) + "/task/*/children");
            std::istringstream(child.text) >> m_init;
            if (m_init <= 0) {
                std::this_thread::sleep_for(100ms);
            }
        }
    }
    ~BootedModule()
    {
        if (m_init > 0) {
            run("systemctl poweroff", 10s);
            if (m_nspawn.wait(30s) == -1) {
                // The init of the container's PID namespace takes every
                // process of the container with it.
                ::kill(m_init, SIGKILL);
            }
        }
    }
    BootedModule(const BootedModule&) = delete;
    BootedModule& operator=(const BootedModule&) = delete;

    bool started() const { return m_init > 0; }
    // What nspawn said, once it ended.
    std::string said() { return m_nspawn.readAll(1s) + m_nspawn.readAllStderr(1s); }
    pid_t init() const { return m_init; }

    // A shell command line inside the container: its namespaces, root and
    // service manager.
    Output run(const std::string& command, std::chrono::seconds timeout = 30s) const
    {
        return sh("exec /usr/bin/nsenter --target " + std::to_string(m_init) +
                      " --all /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 SYSTEMD_COLORS=0"
                      " /bin/sh -c " + shellQuoted(command),
                  timeout);
    }

    // Polls a command inside until it succeeds; its last output.
    Output until(const std::string& command, std::chrono::seconds timeout = 60s) const
    {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        Output out = run(command);
        while (out.status != 0 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(250ms);
            out = run(command);
        }
        return out;
    }

    std::string property(const std::string& unit, const std::string& name) const
    {
        Output out = run("systemctl show --value -p " + name + " " + unit);
        return out.text.substr(0, out.text.find('\n'));
    }

private:
    ChildProcess m_nspawn;
    pid_t m_init = -1;
};

// The monotonic time of a unit's first journal line that holds text, in
// seconds since boot; -1 when there is none.
double firstJournalTime(const BootedModule& module, const std::string& unit, const std::string& text)
{
    Output out = module.run("journalctl -b -o short-monotonic --no-pager -u " + unit + " | grep -m 1 -F " +
                            shellQuoted(text));
    if (out.status != 0 || out.text.size() < 3 || out.text[0] != '[') {
        return -1;
    }
    return std::strtod(out.text.c_str() + 1, nullptr);
}

}  // namespace

// The packages on a booted module, under the real service manager: the
// socket holds the bus's port and starts the broker, the notify services
// become active when they say so, the services beside tsd come first, tsd
// runs once its rear port is there, its scripts start ptp4l in a unit of its
// own from inside tsd's sandbox, and signalling tsd leaves ptp4l alone.
TEST_F(DebianPackages, ABootedModuleRunsThePackagesUnderTheServiceManager)
{
    ASSERT_TRUE(s_built);
    if (::access("/usr/bin/systemd-nspawn", X_OK) != 0) {
        GTEST_SKIP() << "systemd-nspawn is missing (package systemd-container, scripts/install-deps)";
    }
    ThrowawayRoot root("boot");
    installAll(root);
    // The container brings its own /proc, /dev and /run; nothing is to be
    // refused to the service manager that boots.
    ASSERT_EQ(::unlink(root.path("/usr/sbin/policy-rc.d").c_str()), 0);
    for (const char* mounted : {"/proc", "/dev", "/run"}) {
        ASSERT_EQ(::umount2(root.path(mounted).c_str(), MNT_DETACH), 0) << mounted;
    }
    ASSERT_TRUE(PrivateMounts::writeFile(root.path("/etc/systemd/system/tsd-module.target"),
                                         "[Unit]\nDescription=The module's own services\n"
                                         "Requires=basic.target\nAfter=basic.target\n"
                                         "Wants=velad.socket velad.service fwdevd.service tsdparamd.service "
                                         "tsd.service\nAllowIsolate=yes\n"));
    // This module's UUID; ptp4l with software time stamps (a TAP has no
    // others) and never steering a clock.
    ASSERT_EQ(root.run("sed -i -e 's/^UUID=.*/UUID=000104/' -e 's/^PTP4L_FOLLOWER_OPTIONS=.*/"
                       "PTP4L_FOLLOWER_OPTIONS=\"-4 -S -i firewire0 --free_running 1\"/' /etc/default/tsd && "
                       "sed -i 's/\"ptp4l\": .*/\"ptp4l\": \"-4 -S -i firewire0 --free_running 1\"/' "
                       "/etc/tsd/param.json")
                  .status,
              0);

    const auto start = std::chrono::steady_clock::now();
    BootedModule module(root);
    ASSERT_TRUE(module.started()) << module.said();
    Output booted = module.until("systemctl is-active --quiet tsdparamd.service fwdevd.service velad.service");
    std::printf("[ figures  ] boot to velad, fwdevd and tsdparamd active: %.1f s\n",
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    ASSERT_EQ(booted.status, 0) << module.run("systemctl --no-pager status velad fwdevd tsdparamd").text;

    // The broker holds its port through the socket, runs as its own user,
    // and every service beside tsd said when it was ready.
    EXPECT_EQ(module.property("velad.socket", "ActiveState"), "active");
    for (const char* unit : {"velad.service", "fwdevd.service", "tsdparamd.service", "tsd.service"}) {
        EXPECT_EQ(module.property(unit, "Type"), "notify") << unit;
    }
    for (const auto& [unit, user] : std::vector<std::pair<std::string, std::string>>{
             {"velad.service", "velad"}, {"fwdevd.service", "fwdevd"}, {"tsdparamd.service", "tsdparamd"}}) {
        Output owner = module.run("ps -o user:32= -p " + module.property(unit, "MainPID"));
        EXPECT_EQ(owner.text, user + "\n") << unit;
    }
    Output listeners = module.run("ss -Hltnp 'sport = :11122'");
    EXPECT_NE(listeners.text.find("127.0.0.1:11122"), std::string::npos) << listeners.text;
    EXPECT_NE(listeners.text.find("(\"systemd\",pid=1,"), std::string::npos) << listeners.text;

    // No rear port yet: tsd cannot run. A container's /sys is read-only, so
    // the service manager has no device units there and the wait for
    // firewire0 does not hold tsd back; it ends with 255 and is restarted.
    EXPECT_NE(module.property("tsd.service", "After").find("sys-subsystem-net-devices-firewire0.device"),
              std::string::npos);
    // firewire0: a TAP of the FireWire link type, created in the module's
    // network, carrying the node id that makes it this module's rear port
    // (the tun driver shows a 6-byte address; the daemon reads the 8-byte
    // node id from sysfs, so it is put over the attribute).
    const int home = ::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    const int there = ::open(("/proc/" + std::to_string(module.init()) + "/ns/net").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(home, 0);
    ASSERT_GE(there, 0);
    ASSERT_EQ(::setns(there, CLONE_NEWNET), 0);
    auto tap = std::make_unique<orvtest::Tap>("firewire0", 24);
    ASSERT_EQ(::setns(home, CLONE_NEWNET), 0);
    ::close(there);
    ::close(home);
    Output port = module.run("ip addr add 169.254.10.1/16 dev firewire0 && ip link set firewire0 up && "
                             "echo 00:0a:7c:31:00:00:01:04 > /run/firewire0.address && "
                             "mount --bind /run/firewire0.address /sys/class/net/firewire0/address");
    ASSERT_EQ(port.status, 0) << port.text;

    Output tsdActive = module.until("systemctl is-active --quiet tsd.service", 60s);
    ASSERT_EQ(tsdActive.status, 0) << module.run("journalctl -b --no-pager -u tsd | tail -n 30").text;
    // fwdevd and tsdparamd were ready before tsd was first started.
    const double tsdFirst = firstJournalTime(module, "tsd.service", "Starting tsd.service");
    const double fwdevdReady = firstJournalTime(module, "fwdevd.service", "Started fwdevd.service");
    const double paramReady = firstJournalTime(module, "tsdparamd.service", "Started tsdparamd.service");
    EXPECT_GT(fwdevdReady, 0.0);
    EXPECT_GT(paramReady, 0.0);
    EXPECT_LT(fwdevdReady, tsdFirst);
    EXPECT_LT(paramReady, tsdFirst);

    // Alone on its chain, tsd elects itself and has its script start the
    // serving ptp4l: systemd-run from inside tsd's sandbox, a unit of its own.
    Output master = module.until("vela get sync/master | grep -q 0A7C31000104 && "
                                 "[ \"$(cat /run/timesync/ptp4l.role)\" = server ] && "
                                 "systemctl is-active --quiet tsd-ptp4l.service",
                                 30s);
    ASSERT_EQ(master.status, 0) << module.run("vela get sync/master; cat /run/timesync/ptp4l.role; "
                                              "journalctl -b --no-pager -u tsd -u tsd-ptp4l | tail -n 30")
                                       .text;
    EXPECT_EQ(module.property("tsd-ptp4l.service", "ControlGroup"), "/system.slice/tsd-ptp4l.service");
    const std::string ptp4l = module.property("tsd-ptp4l.service", "MainPID");
    EXPECT_EQ(module.run("cat /run/timesync/ptp4l.pid").text, ptp4l + "\n");

    // Debug logging on, the way the unit's comment says: the daemon gets the
    // signal, ptp4l does not.
    const std::string tsdPid = module.property("tsd.service", "MainPID");
    Output debug = module.run("systemctl kill --kill-whom=main -s SIGUSR1 tsd && sleep 1");
    ASSERT_EQ(debug.status, 0) << debug.text;
    EXPECT_EQ(module.property("tsd.service", "MainPID"), tsdPid);
    EXPECT_EQ(module.property("tsd.service", "ActiveState"), "active");
    EXPECT_EQ(module.property("tsd-ptp4l.service", "MainPID"), ptp4l);
    EXPECT_EQ(module.property("tsd-ptp4l.service", "ActiveState"), "active");

    // A restart of tsd runs "ptp4ladm.sh stop" first, inside the same
    // sandbox: its systemctl stop ends the serving ptp4l (the script fails
    // when it cannot), and the new election starts another one.
    ASSERT_EQ(module.run("systemctl restart tsd.service").status, 0);
    Output restarted = module.until("systemctl is-active --quiet tsd.service tsd-ptp4l.service && "
                                    "[ \"$(systemctl show --value -p MainPID tsd-ptp4l.service)\" != " + ptp4l + " ]",
                                    30s);
    ASSERT_EQ(restarted.status, 0) << module.run("journalctl -b --no-pager -u tsd -u tsd-ptp4l | tail -n 30").text;
    EXPECT_NE(module.run("[ -d /proc/" + ptp4l + " ]").status, 0) << "the first ptp4l still runs";
    const std::string pre = module.property("tsd.service", "ExecStartPre");
    EXPECT_NE(pre.find("argv[]=/bin/ptp4ladm.sh stop ;"), std::string::npos) << pre;
    EXPECT_NE(pre.find("code=exited ; status=0 }"), std::string::npos) << pre;

    // The broker stopped: the socket keeps the port, and the next peer that
    // connects starts a new broker, where tsd's states are back.
    const std::string velad = module.property("velad.service", "MainPID");
    ASSERT_EQ(module.run("systemctl stop velad.service").status, 0);
    EXPECT_EQ(module.property("velad.socket", "ActiveState"), "active");
    Output again = module.until("vela get sync/master | grep -q 0A7C31000104", 30s);
    EXPECT_EQ(again.status, 0) << again.text;
    EXPECT_EQ(module.property("velad.service", "ActiveState"), "active");
    EXPECT_NE(module.property("velad.service", "MainPID"), velad);

    // The sandboxes as the running service manager rates them.
    for (const char* unit : {"velad.service", "fwdevd.service", "tsdparamd.service", "tsd.service"}) {
        Output score = module.run(std::string("systemd-analyze security --no-pager ") + unit + " | tail -n 1");
        std::printf("[ figures  ] running: %s", score.text.c_str());
        EXPECT_NE(score.text.find("Overall exposure level for " + std::string(unit)), std::string::npos);
    }
    Output failed = module.run("systemctl --no-pager --failed --plain --no-legend | grep -E 'velad|fwdevd|tsd'");
    EXPECT_EQ(failed.text, "");
}

// The daemon killed with SIGKILL while its ptp4l serves the chain, then
// started again: with the real /bin/ptp4ladm.sh and the real ptp4l behind
// it, the module never runs a second ptp4l. ptp4l uses software time stamps
// and --free_running 1, and runs without CAP_SYS_TIME (dropped from the
// bounding set before the script runs), so no clock is ever adjusted.
//
// Two restarts: as the service unit restarts the daemon (its ExecStartPre
// "ptp4ladm.sh stop" first, which puts the follower in the server's place),
// and the daemon alone. Either way the new daemon knows nothing of the
// ptp4l it left behind; the script's pid file does, and every start
// replaces what it names.
#include <dirent.h>
#include <sys/stat.h>

#include <fstream>

#include "FaultTestUtil.h"

namespace {

const std::string kOptions = "-4 -S -i firewire0 --free_running 1";

// The pids of the ptp4l processes in module m's network namespace.
std::vector<pid_t> ptp4lIn(const tsdsim::Module& m)
{
    struct stat own{};
    std::vector<pid_t> out;
    if (::stat(("/proc/" + std::to_string(m.holderPid()) + "/ns/net").c_str(), &own) != 0) {
        return out;
    }
    DIR* d = ::opendir("/proc");
    if (!d) {
        return out;
    }
    while (dirent* e = ::readdir(d)) {
        const pid_t pid = static_cast<pid_t>(std::atoi(e->d_name));
        if (pid <= 0) {
            continue;
        }
        const std::string dir = std::string("/proc/") + e->d_name;
        struct stat ns{};
        std::ifstream comm(dir + "/comm");
        std::string name;
        std::getline(comm, name);
        std::ifstream status(dir + "/status");
        std::string line;
        bool zombie = false;
        while (std::getline(status, line)) {
            zombie = zombie || (line.rfind("State:", 0) == 0 && line.find('Z') != std::string::npos);
        }
        if (name == "ptp4l" && !zombie && ::stat((dir + "/ns/net").c_str(), &ns) == 0 && ns.st_ino == own.st_ino) {
            out.push_back(pid);
        }
    }
    ::closedir(d);
    return out;
}

// Puts the real ptp4ladm.sh in place of the module's recording stand-in:
// the stand-in's file is rewritten in place (the module sees it through its
// overlay), still reporting each call to the simulator, then runs the
// script from the build tree without CAP_SYS_TIME, with settings of the
// test's own. The module's /proc is a shadow made when the module was built
// and has no entries of later processes, which the script's tracking of
// ptp4l reads: the script runs in a mount namespace of its own with the
// module's whole procfs on /proc.
void useRealPtp4ladm(tsdsim::Module& m)
{
    const std::string defaults = m.dir() + "/tsd.default";
    {
        std::ofstream d(defaults, std::ios::trunc);
        d << "UUID=" << m.setup().label().substr(6) << "\n"
          << "PTP4L_FOLLOWER_OPTIONS=\"" << kOptions << "\"\n";
    }
    ::chmod(defaults.c_str(), 0644);
    const std::string script = std::string(TSD_BINARY_DIR) + "/packaging/scripts/ptp4ladm.sh";
    std::ofstream w(m.files().scriptPath("ptp4ladm.sh"), std::ios::trunc);
    w << "#!/bin/sh\n"
      << "printf '%s\\n' \"ptp4ladm.sh $*\" > '" << m.files().scriptFifo() << "'\n"
      << "TSD_DEFAULTS='" << defaults << "' exec /usr/bin/unshare -m --propagation private -- /bin/sh -c '"
      << "/bin/mount --bind " << m.files().procMountPoint() << " /proc && "
      << "exec /usr/bin/setpriv --bounding-set -sys_time -- /bin/sh " << script << " \"$@\"' sh \"$@\"\n";
}

// The ptp4l processes the script starts leave their session (setsid) and
// outlive the daemon, the module's holder and the test, as they would a
// stopped tsd on a module. The guard ends those of the modules, by pid,
// before the world goes, also when the test fails.
class Ptp4lReaper
{
public:
    explicit Ptp4lReaper(const std::vector<const tsdsim::Module*>& modules) : m_modules(modules) {}
    ~Ptp4lReaper()
    {
        for (const auto* m : m_modules) {
            for (pid_t pid : ptp4lIn(*m)) {
                ::kill(pid, SIGKILL);
            }
        }
    }
    Ptp4lReaper(const Ptp4lReaper&) = delete;
    Ptp4lReaper& operator=(const Ptp4lReaper&) = delete;

private:
    std::vector<const tsdsim::Module*> m_modules;
};

// What the module's scripts and ptp4l said, for failure messages.
std::string scriptLog(const tsdsim::Module& m)
{
    std::string out;
    for (const auto& l : m.syslog()) {
        if (l.ident != "tsd") {
            out += l.ident + ": " + l.text + "\n";
        }
    }
    for (const auto& c : m.scriptCalls()) {
        out += "call: " + c.script + " " + c.args + "\n";
    }
    return out;
}

// The module's ptp4l as the script records it: role and pid.
std::string role(const tsdsim::Module& m)
{
    return m.runFile("timesync/ptp4l.role");
}

}  // namespace

TEST(FaultTsdKillRealPtp4l, NoSecondPtp4lAfterARestart)
{
    tsdsim::World world;
    tsdsim::Bus& bus = world.addBus("chain");
    std::vector<tsdsim::ModuleSetup> setups{simtest::module("a", 0x020001), simtest::module("b", 0x020002)};
    for (auto& s : setups) {
        s.param.ptp4l = kOptions;
        tsdsim::Module& m = world.addModule(s);
        m.addInterface(tsdsim::Side::Rear, bus);
        useRealPtp4ladm(m);
    }
    world.updateReachable();
    tsdsim::Module& a = *world.findModule("a");
    tsdsim::Module& b = *world.findModule("b");
    Ptp4lReaper reaper({&a, &b});
    ASSERT_TRUE(world.startAll({"-d"}));
    auto agreed = [&] {
        return simtest::Chain::follows(a, 0x020002) && simtest::Chain::follows(b, 0x020002) &&
               b.states("sync/errors/").empty();
    };
    ASSERT_TRUE(world.waitFor([&] { return agreed() && role(b) == "server\n" && role(a) == "follower\n"; },
                              simtest::kSettle))
        << "b: " << role(b) << " a: " << role(a) << "\n" << scriptLog(b) << scriptLog(a);
    ASSERT_TRUE(world.waitFor([&] { return ptp4lIn(b).size() == 1 && ptp4lIn(a).size() == 1; }, std::chrono::seconds(5)))
        << ptp4lIn(b).size() << " ptp4l in b, " << ptp4lIn(a).size() << " in a";

    for (bool asTheUnitDoes : {true, false}) {
        SCOPED_TRACE(asTheUnitDoes ? "restarted as the unit does" : "the daemon restarted alone");
        const pid_t server = ptp4lIn(b).at(0);
        const int st = b.stopTsd(SIGKILL);
        ASSERT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL) << st;
        // The server outlives the daemon that started it.
        EXPECT_EQ(ptp4lIn(b), std::vector<pid_t>{server});
        const double killed = world.now();
        if (asTheUnitDoes) {
            std::string out;
            EXPECT_EQ(b.run({"/bin/sh", "-c", "/bin/ptp4ladm.sh stop"}, &out, std::chrono::seconds(10)), 0) << out;
            EXPECT_EQ(role(b), "follower\n");
            EXPECT_EQ(ptp4lIn(b).size(), 1u);
        }
        ASSERT_TRUE(b.startTsd({"-d"}));
        // Until the election is over and the new daemon has started its server,
        // and for a while after, one ptp4l runs, never two.
        std::size_t most = 0;
        const bool back = world.waitFor(
            [&] {
                most = std::max(most, ptp4lIn(b).size());
                return agreed() && role(b) == "server\n" && ptp4lIn(b).size() == 1 && ptp4lIn(b)[0] != server;
            },
            simtest::kSettle);
        ASSERT_TRUE(back) << role(b) << ptp4lIn(b).size();
        std::printf("RECOVERY tsd killed while its ptp4l served (%s): %.2f s until the new server ran\n",
                    asTheUnitDoes ? "unit's restart" : "daemon alone", world.now() - killed);
        world.waitFor([&] { return false; }, std::chrono::seconds(2));
        most = std::max(most, ptp4lIn(b).size());
        EXPECT_EQ(most, 1u) << "a second ptp4l ran beside the first";
        EXPECT_EQ(ptp4lIn(b).size(), 1u);
        EXPECT_EQ(std::to_string(ptp4lIn(b).at(0)) + "\n", b.runFile("timesync/ptp4l.pid"));
        EXPECT_EQ(ptp4lIn(a).size(), 1u);
    }
    for (auto* m : {&a, &b}) {
        const int st = m->stopTsd(SIGTERM, std::chrono::seconds(10));
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st;
    }
}

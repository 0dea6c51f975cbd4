// What the time-service scripts accept from the files tsd writes verbatim from
// the bus, and from /etc/default/tsd. The accept/refuse tables are shared with
// tsdparamd's validator, so that the bus and the scripts refuse the same
// values; every line runs through the real script, with stand-ins for ptp4l
// and chronyd that record their arguments. A refused line starts nothing and
// is named in syslog as the table's third column shows it.
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <fstream>

#include "ModuleSandbox.h"
#include "testsupport/SyslogCapture.h"

using namespace scripttest;
using namespace std::chrono_literals;
using orvtest::runIsolated;

namespace {

struct Case
{
    bool accept = false;
    std::string value;  // escaped, as in the table
    std::string named;  // refused: the token the message names
};

// "accept<TAB>value" or "refuse<TAB>value[<TAB>token]"; the value itself may
// hold tabs, so a refusal's token is what follows the last one.
std::vector<Case> readCases(const std::string& table, bool withToken)
{
    std::vector<Case> cases;
    std::ifstream in(kSource + "/tests/data/" + table);
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        Case c;
        auto tab = line.find('\t');
        c.accept = line.compare(0, tab, "accept") == 0;
        c.value = line.substr(tab + 1);
        if (!c.accept && withToken) {
            auto last = c.value.rfind('\t');
            c.named = c.value.substr(last + 1);
            c.value = c.value.substr(0, last);
        }
        cases.push_back(c);
    }
    EXPECT_GT(cases.size(), 10u) << table;
    return cases;
}

void writeBytes(const std::string& path, const std::string& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

bool loggedStartingWith(testsupport::SyslogCapture& syslog, const std::string& head, const std::string& tail)
{
    for (const auto& line : syslog.lines()) {
        if (line.priority == LOG_ERR && line.text.compare(0, head.size(), head) == 0 &&
            line.text.size() >= tail.size() && line.text.compare(line.text.size() - tail.size(), tail.size(), tail) == 0) {
            return true;
        }
    }
    return false;
}

// The part both tables share: the value and tsd's line feed go to the file,
// the script runs; an accepted value started the stand-in (status 0, its
// arguments recorded), a refused one started nothing (status 1, the pid file
// as it was). Returns the stand-in's recorded arguments.
std::vector<std::string> throughScript(ModuleSandbox& module, testsupport::SyslogCapture& syslog, const Case& c,
                                       const std::string& script, const std::string& file,
                                       const std::string& daemon)
{
    const std::string args = module.dir() + "/" + daemon + ".args";
    ::unlink(args.c_str());
    writeBytes(kRun + "/" + file, unescape(c.value) + "\n");
    pid_t before = pidFrom(kRun + "/" + daemon + ".pid");
    syslog.clear();
    Outcome outcome = module.run(script);
    if (c.accept) {
        EXPECT_EQ(outcome.status, 0) << syslog.dump();
        EXPECT_TRUE(waitFor([&] { return ::access(args.c_str(), F_OK) == 0; }, 3s));
        return readLines(args);
    }
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(::access(args.c_str(), F_OK), 0) << "a refused value started " << daemon;
    EXPECT_EQ(pidFrom(kRun + "/" + daemon + ".pid"), before);
    return {};
}

// One ptp4l.cfg through "ptp4ladm.sh start": accepted values reach the
// stand-in token by token, refused ones are named.
void checkPtpValue(ModuleSandbox& module, testsupport::SyslogCapture& syslog, const Case& c)
{
    SCOPED_TRACE((c.accept ? "accept " : "refuse ") + c.value);
    std::vector<std::string> args = throughScript(module, syslog, c, "ptp4ladm.sh start", "ptp4l.cfg", "ptp4l");
    if (c.accept) {
        EXPECT_EQ(args, splitBlanks(unescape(c.value)));
    } else {
        EXPECT_TRUE(syslog.contains(LOG_ERR, "/var/run/timesync/ptp4l.cfg: refused \"" + c.named +
                                                 "\"; nothing started"))
            << syslog.dump();
    }
}

}  // namespace

TEST(ScriptInputCases, EveryPtp4lOptionCaseThroughPtp4ladm)
{
    runIsolated([] {
        testsupport::SyslogCapture syslog;
        ModuleSandbox module;
        module.setDefaults("PTP4L=" + module.recorder("ptp4l") + "\n");
        // A glob must stay a glob, whatever the working directory holds.
        orvtest::writeFile(module.dir() + "/v0", "");
        for (const Case& c : readCases("ptp4l-option-cases", true)) {
            checkPtpValue(module, syslog, c);
        }
        // The scripts work from /, where "bi?" would match /bin.
        checkPtpValue(module, syslog, {false, "-4 -i bi?", "bi?"});
    });
}

TEST(ScriptInputCases, AnOverlongPtp4lConfigIsRefusedUnread)
{
    runIsolated([] {
        testsupport::SyslogCapture syslog;
        ModuleSandbox module;
        module.setDefaults("PTP4L=" + module.recorder("ptp4l") + "\n");
        std::string value;
        while (value.size() < 4100) {
            value += "-4 ";
        }
        checkPtpValue(module, syslog, {false, value, "(longer than 4096 bytes)"});
    });
}

TEST(ScriptInputCases, EveryNtpServerCaseThroughStartNtpd)
{
    runIsolated([] {
        testsupport::SyslogCapture syslog;
        ModuleSandbox module;
        module.setDefaults("CHRONYD=" + module.recorder("chronyd") + "\n");
        for (const Case& c : readCases("ntp-server-cases", false)) {
            SCOPED_TRACE((c.accept ? "accept " : "refuse ") + c.value);
            throughScript(module, syslog, c, "start_ntpd.sh", "ntpserver.ip", "chronyd");
            if (c.accept) {
                std::string conf = readFile(kRun + "/chronyd.conf");
                EXPECT_NE(conf.find("\nserver " + c.value + " iburst\n"), std::string::npos) << conf;
            } else {
                EXPECT_TRUE(
                    loggedStartingWith(syslog, "/var/run/timesync/ntpserver.ip: refused ", "; nothing started"))
                    << syslog.dump();
            }
        }
    });
}

TEST(ScriptInputCases, TheFollowerOptionsGoThroughTheSameAllowList)
{
    runIsolated([] {
        testsupport::SyslogCapture syslog;
        ModuleSandbox module;
        module.setDefaults("PTP4L=" + module.recorder("ptp4l") +
                           "\nPTP4L_FOLLOWER_OPTIONS=\"-4 -S -i firewire0 -f /etc/passwd\"\n");
        EXPECT_EQ(module.run("ptp4ladm.sh stop").status, 1);
        EXPECT_TRUE(module.processes().empty());
        EXPECT_TRUE(syslog.contains(LOG_ERR, "PTP4L_FOLLOWER_OPTIONS: refused \"-f\"; no follower started"))
            << syslog.dump();
    });
}

TEST(ScriptInputCases, TheNtpDaemonOptionsGoThroughTheirAllowLists)
{
    runIsolated([] {
        testsupport::SyslogCapture syslog;
        ModuleSandbox module;
        orvtest::writeFile(kRun + "/ntpserver.ip", "10.1.0.1\n");
        module.setDefaults("CHRONYD=" + module.recorder("chronyd") + "\nCHRONYD_OPTIONS=\"-x -f /etc/passwd\"\n");
        EXPECT_EQ(module.run("start_ntpd.sh").status, 1);
        EXPECT_TRUE(syslog.contains(LOG_ERR, "CHRONYD_OPTIONS: refused \"-f\"; nothing started")) << syslog.dump();

        module.setDefaults("CHRONYD=/nonexistent\nNTPD=" + module.recorder("ntpd") + "\nNTPD_OPTIONS=\"-g -q\"\n");
        EXPECT_EQ(module.run("start_ntpd.sh").status, 1);
        EXPECT_TRUE(syslog.contains(LOG_ERR, "NTPD_OPTIONS: refused \"-q\"; nothing started")) << syslog.dump();
        EXPECT_TRUE(module.processes().empty());
    });
}

TEST(ScriptInputCases, ADefaultsFileOthersMayChangeIsNotRead)
{
    runIsolated([] {
        testsupport::SyslogCapture syslog;
        ModuleSandbox module;
        module.setDefaults("PTP4L=" + module.recorder("ptp4l") + "\n");
        ASSERT_EQ(::chmod((module.dir() + "/tsd.default").c_str(), 0666), 0);
        orvtest::writeFile(kRun + "/ptp4l.cfg", "-4\n");
        EXPECT_EQ(module.run("ptp4ladm.sh start").status, 1);
        EXPECT_TRUE(module.processes().empty());
        EXPECT_TRUE(syslog.contains(LOG_ERR, module.dir() +
                                                 "/tsd.default must be a regular file that only root may change; "
                                                 "not read"))
            << syslog.dump();
    });
}

TEST(ScriptInputCases, ASettingIsTakenAsItIsNeverEvaluated)
{
    runIsolated([] {
        testsupport::SyslogCapture syslog;
        ModuleSandbox module;
        std::string marker = module.dir() + "/evaluated";
        orvtest::writeFile(kRun + "/ptp4l.cfg", "-4\n");
        for (const std::string& value : {"\"$(touch " + marker + ")\"", "`touch " + marker + "`",
                                         module.recorder("ptp4l") + ";touch " + marker,
                                         "\"" + module.recorder("ptp4l") + "\\\"\""}) {
            SCOPED_TRACE(value);
            module.setDefaults("PTP4L=" + value + "\n");
            syslog.clear();
            EXPECT_EQ(module.run("ptp4ladm.sh start").status, 1);
            EXPECT_TRUE(syslog.contains(LOG_ERR, module.dir() + "/tsd.default: PTP4L is not a plain value; not used"))
                << syslog.dump();
        }
        EXPECT_NE(::access(marker.c_str(), F_OK), 0);
        EXPECT_TRUE(module.processes().empty());
    });
}

TEST(ScriptInputCases, AProgramMustBeAnAbsolutePathOnlyRootMayChange)
{
    runIsolated([] {
        testsupport::SyslogCapture syslog;
        ModuleSandbox module;
        orvtest::writeFile(kRun + "/ptp4l.cfg", "-4\n");
        module.setDefaults("PTP4L=ptp4l\n");
        EXPECT_EQ(module.run("ptp4ladm.sh start").status, 1);
        EXPECT_TRUE(syslog.contains(LOG_ERR, "PTP4L=ptp4l: not an absolute path")) << syslog.dump();

        std::string open = module.recorder("open-ptp4l");
        ASSERT_EQ(::chmod(open.c_str(), 0777), 0);
        module.setDefaults("PTP4L='" + open + "'\n");
        EXPECT_EQ(module.run("ptp4ladm.sh start").status, 1);
        EXPECT_TRUE(syslog.contains(LOG_ERR, "PTP4L=" + open + ": not an executable file that only root may change"))
            << syslog.dump();
        EXPECT_TRUE(module.processes().empty());
    });
}

#include "tsdsim/ModuleTimeServices.h"

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tsdsim/ChildProcess.h"
#include "tsdsim/ModuleFiles.h"
#include "tsdsim/ModuleSandbox.h"

namespace tsdsim {

namespace {

void writeFile(const std::string& path, const std::string& content, mode_t mode)
{
    std::ofstream out(path, std::ios::trunc | std::ios::binary);
    out << content;
    out.close();
    // The scripts act as root on what these files say, so they take them only
    // when root alone may change them.
    if (!out || ::chmod(path.c_str(), mode) != 0) {
        throw std::runtime_error("tsdsim: cannot write " + path);
    }
}

std::string joined(const std::string& a, const std::string& b)
{
    return b.empty() ? a : a + " " + b;
}

// Fields of /proc/PID/stat after the command: state, ppid, pgrp, session.
bool statOf(pid_t pid, char& state, pid_t& ppid, pid_t& session)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line)) {
        return false;
    }
    const std::size_t close = line.rfind(')');
    if (close == std::string::npos) {
        return false;
    }
    std::istringstream rest(line.substr(close + 1));
    long pp = 0;
    long group = 0;
    long sid = 0;
    if (!(rest >> state >> pp >> group >> sid)) {
        return false;
    }
    ppid = static_cast<pid_t>(pp);
    session = static_cast<pid_t>(sid);
    return true;
}

template <typename Fn>
void forEachProcess(Fn fn)
{
    DIR* d = ::opendir("/proc");
    if (!d) {
        return;
    }
    while (dirent* e = ::readdir(d)) {
        char* end = nullptr;
        const long pid = std::strtol(e->d_name, &end, 10);
        if (pid > 0 && end && *end == '\0') {
            fn(static_cast<pid_t>(pid));
        }
    }
    ::closedir(d);
}

std::string valueAfter(const std::string& text, const std::string& key)
{
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string name;
        std::string value;
        if (words >> name >> value && name == key) {
            return value;
        }
    }
    return "";
}

}  // namespace

std::string RealServices::serverOptions() const
{
    return joined(basePtp4lOptions(), ptp4lTiming);
}

bool PtpView::follows() const
{
    // UNCALIBRATED is as far as a free-running follower gets: it has chosen
    // its master and measures against it, but never steers a clock.
    return answered && (portState == "SLAVE" || portState == "UNCALIBRATED");
}

bool PtpView::serves() const
{
    return answered && portState == "MASTER" && grandmaster == clock;
}

std::string clockIdentityText(std::uint64_t identity)
{
    char buf[24];
    std::snprintf(buf, sizeof buf, "%06llx.%04llx.%06llx",
                  static_cast<unsigned long long>(identity >> 40),
                  static_cast<unsigned long long>((identity >> 24) & 0xFFFF),
                  static_cast<unsigned long long>(identity & 0xFFFFFF));
    return buf;
}

bool parseClockIdentity(const std::string& text, std::uint64_t& identity)
{
    if (text.size() != 18 || text[6] != '.' || text[11] != '.') {
        return false;
    }
    std::uint64_t v = 0;
    for (char c : text) {
        if (c == '.') {
            continue;
        }
        int digit;
        if (c >= '0' && c <= '9') {
            digit = c - '0';
        } else if (c >= 'a' && c <= 'f') {
            digit = c - 'a' + 10;
        } else if (c >= 'A' && c <= 'F') {
            digit = c - 'A' + 10;
        } else {
            return false;
        }
        v = v << 4 | static_cast<std::uint64_t>(digit);
    }
    identity = v;
    return true;
}

ModuleTimeServices::ModuleTimeServices(const RealServices& real, ModuleFiles& files,
                                       const ModuleSandbox& sandbox, std::uint32_t uuid,
                                       std::uint64_t rearNodeId)
    : m_real(real), m_sandbox(sandbox), m_clockIdentity(rearNodeId)
{
    const std::string dir = files.path("services");
    ::mkdir(dir.c_str(), 0755);
    const std::string ptp4l = dir + "/ptp4l";
    writeFile(ptp4l,
              "#!/bin/sh\n"
              "# The module's ptp4l. Its FireWire port has no hardware address that\n"
              "# ptp4l could take a clock identity from; a card's EUI-64 would give this.\n"
              "exec '" + m_real.ptp4l + "' --clockIdentity " + clockIdentityText(m_clockIdentity) +
                  " \"$@\"\n",
              0755);
    char uuidText[8];
    std::snprintf(uuidText, sizeof uuidText, "%06X", uuid & 0xFFFFFFu);
    m_defaults = dir + "/tsd.default";
    // chronyd may never set the clock (-x) and, as this host has no user of
    // its own for it, drops root to nobody.
    writeFile(m_defaults,
              std::string("UUID=") + uuidText + "\n" + "PTP4L=" + ptp4l + "\n" +
                  "PTP4L_FOLLOWER_OPTIONS=\"" + m_real.serverOptions() + "\"\n" + "CHRONYD=" +
                  m_real.chronyd + "\n" + "CHRONYD_OPTIONS=\"-x -u nobody\"\n",
              0644);
}

std::unique_ptr<ChildProcess> ModuleTimeServices::startQuery() const
{
    ChildProcess::Options o = m_sandbox.childOptions(
        {m_real.pmc, "-u", "-b", "0", "GET PORT_DATA_SET", "GET PARENT_DATA_SET", "GET DEFAULT_DATA_SET"},
        "pmc");
    o.pipeStdout = true;
    auto query = std::make_unique<ChildProcess>();
    if (!query->start(o)) {
        return nullptr;
    }
    return query;
}

PtpView ModuleTimeServices::read(ChildProcess& query)
{
    PtpView view;
    std::string out;
    // pmc gives up on an unanswered request after about a second.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(2000);
    char buf[4096];
    for (;;) {
        ssize_t n;
        while ((n = ::read(query.stdoutFd(), buf, sizeof buf)) > 0) {
            out.append(buf, static_cast<std::size_t>(n));
        }
        if (!query.running()) {
            while ((n = ::read(query.stdoutFd(), buf, sizeof buf)) > 0) {
                out.append(buf, static_cast<std::size_t>(n));
            }
            break;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            query.stop(std::chrono::milliseconds(100));
            break;
        }
        ::usleep(5000);
    }
    view.portState = valueAfter(out, "portState");
    view.answered = !view.portState.empty() &&
                    parseClockIdentity(valueAfter(out, "clockIdentity"), view.clock) &&
                    parseClockIdentity(valueAfter(out, "grandmasterIdentity"), view.grandmaster);
    return view;
}

int ModuleTimeServices::kill() const
{
    int killed = 0;
    struct stat own{};
    const std::string ownNet = "/proc/" + std::to_string(m_sandbox.holderPid()) + "/ns/net";
    if (::stat(ownNet.c_str(), &own) != 0) {
        return killed;
    }
    forEachProcess([&](pid_t pid) {
        if (pid == m_sandbox.holderPid()) {
            return;
        }
        struct stat net{};
        const std::string path = "/proc/" + std::to_string(pid) + "/ns/net";
        if (::stat(path.c_str(), &net) == 0 && net.st_ino == own.st_ino && net.st_dev == own.st_dev) {
            // A zombie has ended already; only its parent may collect it.
            char state = 0;
            pid_t ppid = 0;
            pid_t session = 0;
            if (statOf(pid, state, ppid, session) && state != 'Z' && ::kill(pid, SIGKILL) == 0) {
                ++killed;
            }
        }
    });
    reapServices();
    return killed;
}

void reapServices()
{
    const pid_t self = ::getpid();
    forEachProcess([&](pid_t pid) {
        char state = 0;
        pid_t ppid = 0;
        pid_t session = 0;
        if (statOf(pid, state, ppid, session) && state == 'Z' && ppid == self && session == pid) {
            ::waitpid(pid, nullptr, WNOHANG);
        }
    });
}

}  // namespace tsdsim

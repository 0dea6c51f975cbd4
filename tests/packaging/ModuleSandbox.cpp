#include "ModuleSandbox.h"

#include <dirent.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "testsupport/PrivateMounts.h"

using testsupport::PrivateMounts;

namespace scripttest {

namespace {

std::string netOf(const std::string& nsPath)
{
    char buf[64] = {};
    ssize_t n = ::readlink(nsPath.c_str(), buf, sizeof(buf) - 1);
    return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string();
}

std::string netOfFile(const std::string& path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? "net:[" + std::to_string(st.st_ino) + "]" : std::string();
}

}  // namespace

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::vector<std::string> readLines(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

pid_t pidFrom(const std::string& path)
{
    std::string text = readFile(path);
    return text.empty() ? 0 : static_cast<pid_t>(std::stol(text));
}

bool alive(pid_t pid)
{
    if (pid <= 0 || ::kill(pid, 0) != 0) {
        return false;
    }
    std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    auto close = stat.rfind(')');
    return close != std::string::npos && stat.compare(close + 2, 1, "Z") != 0;
}

std::vector<std::string> commandLine(pid_t pid)
{
    std::vector<std::string> args;
    std::string raw = readFile("/proc/" + std::to_string(pid) + "/cmdline");
    std::size_t start = 0;
    for (std::size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] == '\0') {
            args.push_back(raw.substr(start, i - start));
            start = i + 1;
        }
    }
    return args;
}

std::vector<std::string> splitBlanks(const std::string& value)
{
    std::vector<std::string> tokens;
    std::string token;
    for (char c : value) {
        if (c == ' ' || c == '\t') {
            if (!token.empty()) {
                tokens.push_back(token);
            }
            token.clear();
        } else {
            token += c;
        }
    }
    if (!token.empty()) {
        tokens.push_back(token);
    }
    return tokens;
}

std::string unescape(const std::string& text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        char next = text[++i];
        if (next == 'n') {
            out += '\n';
        } else if (next == 't') {
            out += '\t';
        } else if (next == 'x' && i + 2 < text.size()) {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += next;
        }
    }
    return out;
}

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

ModuleSandbox::ModuleSandbox()
{
    // Before anything is started: no process of this test may set a clock.
    if (::prctl(PR_CAPBSET_DROP, CAP_SYS_TIME, 0, 0, 0) != 0) {
        ADD_FAILURE() << "cannot drop CAP_SYS_TIME";
    }
    // The scripts' services outlive the shell that started them; they become
    // this process's children, so that they can be collected and counted.
    ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
    m_dir = PrivateMounts::scratchDir("module");
    orvtest::run("ip link add firewire0 type veth peer name p0 netns peer");
    orvtest::run("ip addr add 10.1.0.2/24 dev firewire0 && ip link set firewire0 up");
    orvtest::run("ip -n peer addr add 10.1.0.1/24 dev p0 && ip -n peer link set p0 up");
    ::mkdir("/run/timesync", 0755);
    m_ownNet = netOf("/proc/self/ns/net");
    m_peerNet = netOfFile("/run/netns/peer");
    setDefaults("");
}

ModuleSandbox::~ModuleSandbox()
{
    for (pid_t pid : processes()) {
        ::kill(pid, SIGKILL);
    }
    waitFor([this] { return processes().empty(); }, std::chrono::seconds(5));
    reap();
}

void ModuleSandbox::setDefaults(const std::string& content)
{
    PrivateMounts::writeFile(m_dir + "/tsd.default", content, 0644);
}

std::string ModuleSandbox::program(const std::string& name, const std::string& content)
{
    std::string path = m_dir + "/" + name;
    PrivateMounts::writeFile(path, content, 0755);
    return path;
}

std::string ModuleSandbox::recorder(const std::string& name)
{
    return program(name, "#!/bin/sh\nfor a; do printf '%s\\n' \"$a\"; done > " + m_dir + "/" + name +
                             ".args.tmp\nmv " + m_dir + "/" + name + ".args.tmp " + m_dir + "/" + name +
                             ".args\nexec sleep 60\n");
}

std::string ModuleSandbox::stubborn(const std::string& name)
{
    return program(name, "#!/bin/sh\ntrap '' TERM\nexec sleep 60\n");
}

void ModuleSandbox::expectStopKillsWithinTheBound(const std::string& stopCall, pid_t daemon)
{
    ASSERT_TRUE(alive(daemon));
    Outcome stop = run(stopCall);
    EXPECT_EQ(stop.status, 0);
    EXPECT_LT(stop.seconds, 5.0);
    EXPECT_GE(stop.seconds, 0.9) << "SIGTERM alone cannot have ended it";
    EXPECT_FALSE(alive(daemon));
    EXPECT_TRUE(processes().empty());
}

std::string ModuleSandbox::envPrefix(const std::string& extraPath) const
{
    std::string env = "cd " + m_dir + " && TSD_DEFAULTS=" + m_dir + "/tsd.default ";
    if (!extraPath.empty()) {
        env += "PATH=" + extraPath + ":$PATH ";
    }
    return env;
}

Outcome ModuleSandbox::run(const std::string& scriptAndArgs, const std::string& extraPath)
{
    Outcome outcome;
    auto start = std::chrono::steady_clock::now();
    int status = std::system((envPrefix(extraPath) + kScripts + "/" + scriptAndArgs + " 2>/dev/null").c_str());
    outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}

void ModuleSandbox::runDetached(const std::string& scriptAndArgs)
{
    std::system((envPrefix("") + kScripts + "/" + scriptAndArgs + " 2>/dev/null &").c_str());
}

std::vector<pid_t> ModuleSandbox::processes()
{
    reap();
    std::vector<pid_t> found;
    DIR* proc = ::opendir("/proc");
    if (proc == nullptr) {
        return found;
    }
    while (dirent* entry = ::readdir(proc)) {
        char* end = nullptr;
        long pid = std::strtol(entry->d_name, &end, 10);
        if (pid <= 0 || *end != '\0' || pid == ::getpid()) {
            continue;
        }
        std::string net = netOf(std::string("/proc/") + entry->d_name + "/ns/net");
        if ((net == m_ownNet || net == m_peerNet) && alive(static_cast<pid_t>(pid))) {
            found.push_back(static_cast<pid_t>(pid));
        }
    }
    ::closedir(proc);
    return found;
}

std::vector<pid_t> ModuleSandbox::processesRunning(const std::string& text)
{
    std::vector<pid_t> found;
    for (pid_t pid : processes()) {
        for (const std::string& arg : commandLine(pid)) {
            if (arg.find(text) != std::string::npos) {
                found.push_back(pid);
                break;
            }
        }
    }
    return found;
}

void ModuleSandbox::reap()
{
    while (::waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

}  // namespace scripttest

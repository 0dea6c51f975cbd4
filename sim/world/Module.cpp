#include "tsdsim/Module.h"

#include <dirent.h>
#include <fcntl.h>
#include <json/reader.h>
#include <json/writer.h>
#include <poll.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "NsOps.h"
#include "tsdsim/Bus.h"
#include "tsdsim/World.h"

namespace tsdsim {

namespace {

constexpr unsigned kBusPort = 11122;
const char* const kScripts[] = {"ptp4ladm.sh", "start_ntpd.sh", "stop_ntpd.sh"};

void writeFile(const std::string& path, const std::string& content, mode_t mode = 0644)
{
    std::ofstream out(path, std::ios::trunc | std::ios::binary);
    out << content;
    out.close();
    if (!out) {
        throw std::runtime_error("tsdsim: cannot write " + path);
    }
    ::chmod(path.c_str(), mode);
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void makeDir(const std::string& path)
{
    if (::mkdir(path.c_str(), 0755) < 0 && errno != EEXIST) {
        throw std::runtime_error("tsdsim: cannot create " + path + ": " + std::strerror(errno));
    }
}

std::string compact(const Json::Value& v)
{
    Json::StreamWriterBuilder b;
    b["indentation"] = "";
    return Json::writeString(b, v);
}

bool parseJson(const std::string& text, Json::Value& out)
{
    Json::CharReaderBuilder b;
    std::unique_ptr<Json::CharReader> r(b.newCharReader());
    std::string errors;
    return r->parse(text.data(), text.data() + text.size(), &out, &errors);
}

// Reads what fd has now into buffer and returns the complete lines taken from
// it; ended is set when the writer closed its end.
std::vector<std::string> takeLines(int fd, std::string& buffer, bool& ended)
{
    char chunk[8192];
    ended = false;
    for (;;) {
        ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n <= 0) {
            ended = n == 0;
            break;
        }
        buffer.append(chunk, static_cast<std::size_t>(n));
    }
    std::vector<std::string> lines;
    std::size_t nl;
    while ((nl = buffer.find('\n')) != std::string::npos) {
        lines.push_back(buffer.substr(0, nl));
        buffer.erase(0, nl + 1);
    }
    return lines;
}

// ---- inside the holder child (single-threaded, after fork) ----

[[noreturn]] void holderFail(int fd, const std::string& what)
{
    std::string msg = "error: " + what + ": " + std::strerror(errno);
    ssize_t n = ::write(fd, msg.data(), msg.size());
    (void)n;
    ::_exit(1);
}

void writeSysctl(const std::string& path, const char* value)
{
    int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd >= 0) {
        ssize_t n = ::write(fd, value, std::strlen(value));
        (void)n;
        ::close(fd);
    }
}

// Mounts a tmpfs over dir holding a symlink to every entry of the (already
// mounted) original at real, so that single entries can be added beside them.
bool shadowDir(const std::string& dir, const std::string& real)
{
    DIR* d = ::opendir(real.c_str());
    if (!d) {
        return false;
    }
    std::vector<std::string> names;
    while (dirent* e = ::readdir(d)) {
        std::string n = e->d_name;
        if (n != "." && n != "..") {
            names.push_back(n);
        }
    }
    ::closedir(d);
    if (::mount("tmpfs", dir.c_str(), "tmpfs", MS_NOSUID, "mode=0755") < 0) {
        return false;
    }
    for (const auto& n : names) {
        std::string target = real + "/" + n;
        std::string link = dir + "/" + n;
        if (::symlink(target.c_str(), link.c_str()) < 0) {
            return false;
        }
    }
    return true;
}

void holderMain(const std::string& dir, int readyFd)
{
    if (::unshare(CLONE_NEWNS | CLONE_NEWNET) < 0) {
        holderFail(readyFd, "unshare");
    }
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0) {
        holderFail(readyFd, "make / private");
    }
    std::string err;
    if (!nsops::setUp("lo", err)) {
        holderFail(readyFd, "lo up");
    }
    // IPv6 would only add router and listener chatter to the relayed buses;
    // reverse-path filtering must not drop multicast from a sibling subnet.
    writeSysctl("/proc/sys/net/ipv6/conf/all/disable_ipv6", "1");
    writeSysctl("/proc/sys/net/ipv6/conf/default/disable_ipv6", "1");
    writeSysctl("/proc/sys/net/ipv4/conf/all/rp_filter", "0");
    writeSysctl("/proc/sys/net/ipv4/conf/default/rp_filter", "0");

    std::string realProc = dir + "/realproc";
    std::string realDev = dir + "/realdev";
    if (::mount("proc", realProc.c_str(), "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) < 0) {
        holderFail(readyFd, "mount private procfs");
    }
    if (::mount("/dev", realDev.c_str(), nullptr, MS_BIND | MS_REC, nullptr) < 0) {
        holderFail(readyFd, "bind /dev");
    }
    std::string etcOpts = "lowerdir=/etc,upperdir=" + dir + "/etc-up,workdir=" + dir + "/etc-work";
    if (::mount("overlay", "/etc", "overlay", 0, etcOpts.c_str()) < 0) {
        holderFail(readyFd, "overlay on /etc");
    }
    std::string binOpts = "lowerdir=/usr/bin,upperdir=" + dir + "/bin-up,workdir=" + dir + "/bin-work";
    if (::mount("overlay", "/usr/bin", "overlay", 0, binOpts.c_str()) < 0) {
        holderFail(readyFd, "overlay on /usr/bin");
    }
    std::string run = dir + "/run";
    if (::mount(run.c_str(), "/run", nullptr, MS_BIND, nullptr) < 0) {
        holderFail(readyFd, "bind /run");
    }
    // A sysfs mounted from inside the module's network namespace lists the
    // module's interfaces under /sys/class/net.
    if (::mount("sysfs", "/sys", "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) < 0) {
        holderFail(readyFd, "mount sysfs");
    }
    if (!shadowDir("/proc", realProc)) {
        holderFail(readyFd, "shadow /proc");
    }
    std::string deviceTree = dir + "/device-tree";
    if (::symlink(deviceTree.c_str(), "/proc/device-tree") < 0) {
        holderFail(readyFd, "device tree link");
    }
    if (!shadowDir("/dev", realDev)) {
        holderFail(readyFd, "shadow /dev");
    }
    ::unlink("/dev/log");
    std::string logSocket = dir + "/log.sock";
    if (::symlink(logSocket.c_str(), "/dev/log") < 0) {
        holderFail(readyFd, "/dev/log link");
    }
    ssize_t n = ::write(readyFd, "ok", 2);
    (void)n;
    ::close(readyFd);
    for (;;) {
        ::pause();
    }
}

}  // namespace

Module::Module(World& world, const ModuleSetup& setup, int index)
    : m_world(world), m_setup(setup), m_index(index), m_param(setup.param)
{
    m_dir = world.dir() + "/" + setup.name;
    try {
        buildFiles();
        openSyslog();
        startHolder();
    } catch (...) {
        // No destructor runs for a constructor that throws: give back the
        // socket registration and the holder process here.
        release();
        throw;
    }
}

Module::~Module()
{
    stop();
    release();
}

void Module::release()
{
    if (m_syslogFd >= 0) {
        m_world.io().removeFd(m_syslogFd);
        ::close(m_syslogFd);
        m_syslogFd = -1;
    }
    for (auto& p : m_ports) {
        if (p.bus) {
            p.bus->detach(p.portId);
            p.bus = nullptr;
        }
    }
    if (m_netns >= 0) {
        ::close(m_netns);
        m_netns = -1;
    }
    if (m_mntns >= 0) {
        ::close(m_mntns);
        m_mntns = -1;
    }
    if (m_holder > 0) {
        ::kill(m_holder, SIGKILL);
        int st;
        ::waitpid(m_holder, &st, 0);
        m_holder = -1;
    }
}

double Module::now() const
{
    return m_world.now();
}

void Module::buildFiles()
{
    makeDir(m_dir);
    for (const char* d : {"etc-up", "etc-work", "bin-up", "bin-work", "run", "realproc", "realdev",
                          "device-tree", "device-tree/stratova", "ids", "status", "run/timesync"}) {
        makeDir(m_dir + "/" + d);
    }
    writeFile(m_dir + "/etc-up/TimeSourceDaemonConfig.xml", m_setup.configFile());
    writeFile(m_dir + "/TimeSourceDaemonConfig.xml", m_setup.configFile());
    // The device tree ends its strings with a NUL byte.
    writeFile(m_dir + "/device-tree/stratova/moduletype", m_setup.type + std::string(1, '\0'));
    writeFile(m_dir + "/scripts.log", "");
    for (const char* s : kScripts) {
        std::string script =
            "#!/bin/sh\n"
            "# Stand-in for a time service: records the call and answers with the\n"
            "# status the simulator set for it.\n"
            "echo \"$(date +%s%3N) " +
            std::string(s) + " $*\" >> '" + m_dir + "/scripts.log'\n" + "st=$(cat '" + m_dir + "/status/" +
            s + "' 2>/dev/null)\n" + "exit ${st:-0}\n";
        writeFile(m_dir + "/bin-up/" + s, script, 0755);
    }
}

void Module::startHolder()
{
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) < 0) {
        throw std::runtime_error("tsdsim: pipe failed");
    }
    pid_t parent = ::getpid();
    pid_t pid = ::fork();
    if (pid < 0) {
        throw std::runtime_error("tsdsim: fork failed");
    }
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) {
            ::_exit(1);
        }
        ::setpgid(0, 0);
        ::close(ready[0]);
        sigset_t all;
        sigemptyset(&all);
        ::sigprocmask(SIG_SETMASK, &all, nullptr);
        ::signal(SIGINT, SIG_DFL);
        ::signal(SIGTERM, SIG_DFL);
        holderMain(m_dir, ready[1]);
        ::_exit(0);
    }
    ::close(ready[1]);
    m_holder = pid;
    char buf[512];
    ssize_t n = ::read(ready[0], buf, sizeof buf);
    ::close(ready[0]);
    std::string answer = n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : "error: holder ended";
    if (answer != "ok") {
        throw std::runtime_error("tsdsim: module " + name() + ": " + answer);
    }
    std::string base = "/proc/" + std::to_string(pid) + "/ns/";
    m_netns = ::open((base + "net").c_str(), O_RDONLY | O_CLOEXEC);
    m_mntns = ::open((base + "mnt").c_str(), O_RDONLY | O_CLOEXEC);
    if (m_netns < 0 || m_mntns < 0) {
        throw std::runtime_error("tsdsim: module " + name() + ": cannot open its namespaces");
    }
}

void Module::openSyslog()
{
    std::string path = m_dir + "/log.sock";
    m_syslogFd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    if (path.size() >= sizeof a.sun_path) {
        throw std::runtime_error("tsdsim: socket path too long: " + path);
    }
    std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    ::unlink(path.c_str());
    if (m_syslogFd < 0 || ::bind(m_syslogFd, reinterpret_cast<sockaddr*>(&a), sizeof a) < 0) {
        throw std::runtime_error("tsdsim: cannot bind " + path + ": " + std::strerror(errno));
    }
    ::chmod(path.c_str(), 0666);
    // A burst of debug logging must not block the daemon on a full socket.
    int size = 4 << 20;
    ::setsockopt(m_syslogFd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
    m_world.io().addFd(m_syslogFd, EPOLLIN, [this](std::uint32_t) { onSyslog(); });
}

void Module::onSyslog()
{
    char buf[8192];
    for (;;) {
        ssize_t n = ::recv(m_syslogFd, buf, sizeof buf - 1, 0);
        if (n <= 0) {
            return;
        }
        std::string msg(buf, static_cast<std::size_t>(n));
        while (!msg.empty() && (msg.back() == '\n' || msg.back() == '\0')) {
            msg.pop_back();
        }
        LogLine line;
        line.time = now();
        // "<PRI>Mmm dd hh:mm:ss ident[pid]: text"
        std::size_t pos = 0;
        if (msg.size() > 2 && msg[0] == '<') {
            std::size_t close = msg.find('>');
            if (close != std::string::npos) {
                line.priority = std::atoi(msg.substr(1, close - 1).c_str()) & 7;
                pos = close + 1;
            }
        }
        constexpr std::size_t kStampLength = 16;  // "Nov 22 04:00:00 "
        if (msg.size() >= pos + kStampLength) {
            pos += kStampLength;
        }
        std::size_t colon = msg.find(": ", pos);
        if (colon != std::string::npos) {
            // The C library writes no host name, other loggers do: the ident
            // is the last word before the colon.
            std::string ident = msg.substr(pos, colon - pos);
            std::size_t space = ident.rfind(' ');
            if (space != std::string::npos) {
                ident.erase(0, space + 1);
            }
            line.ident = ident.substr(0, ident.find('['));
            line.text = msg.substr(colon + 2);
        } else {
            line.text = msg.substr(pos);
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_syslog.push_back(std::move(line));
        m_changed.notify_all();
    }
}

void Module::addInterface(Side side, Bus& bus)
{
    Port& port = m_ports[static_cast<int>(side)];
    if (port.bus) {
        throw std::runtime_error("tsdsim: module " + name() + " has its " + sideName(side) + " port already");
    }
    std::string err;
    std::string ifname = interfaceName(side);
    int fd = nsops::openFirewireTap(m_netns, ifname, err);
    if (fd < 0) {
        throw std::runtime_error("tsdsim: module " + name() + ": " + err);
    }
    std::string address = "169.254." + std::to_string(bus.index()) + "." + std::to_string(m_index);
    if (!nsops::configureInterface(m_netns, ifname, address, 24, err)) {
        ::close(fd);
        throw std::runtime_error("tsdsim: module " + name() + ": " + err);
    }
    // The tun driver shows a 6-byte MAC; the node id the daemon reads is the
    // 8-byte FireWire GUID, put in place over the sysfs attribute.
    std::string idFile = m_dir + "/ids/" + ifname + ".address";
    writeFile(idFile, nodeIdAddress(m_setup.nodeId(side)) + "\n");
    std::string target = "/sys/class/net/" + ifname + "/address";
    int mntns = m_mntns;
    pid_t pid = ::fork();
    if (pid == 0) {
        if (::setns(mntns, CLONE_NEWNS) < 0 ||
            ::mount(idFile.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) < 0) {
            ::_exit(1);
        }
        ::_exit(0);
    }
    int st = -1;
    if (pid > 0) {
        ::waitpid(pid, &st, 0);
    }
    if (pid < 0 || !WIFEXITED(st) || WEXITSTATUS(st) != 0) {
        ::close(fd);
        throw std::runtime_error("tsdsim: module " + name() + ": cannot place the node id of " + ifname);
    }
    port.bus = &bus;
    port.address = address;
    port.portId = bus.attach(fd, name() + "." + sideName(side));
}

bool Module::hasInterface(Side side) const
{
    return m_ports[static_cast<int>(side)].bus != nullptr;
}
Bus* Module::bus(Side side) const
{
    return m_ports[static_cast<int>(side)].bus;
}
int Module::portId(Side side) const
{
    return m_ports[static_cast<int>(side)].portId;
}
std::string Module::address(Side side) const
{
    return m_ports[static_cast<int>(side)].address;
}

ChildProcess::Options Module::options(const std::vector<std::string>& argv, const std::string& log) const
{
    ChildProcess::Options o;
    o.argv = argv;
    o.netnsFd = m_netns;
    o.mntnsFd = m_mntns;
    o.cwd = m_dir;
    o.outputFile = m_dir + "/" + log;
    return o;
}

bool Module::start(const std::vector<std::string>& tsdArgs)
{
    if (!startVelad()) {
        return false;
    }
    if (!startBusClients()) {
        return false;
    }
    if (m_setup.publishParam && !m_paramPublished) {
        setParam(m_param);
    }
    waitPublished(std::chrono::seconds(5));
    return startTsd(tsdArgs);
}

bool Module::startBusClients()
{
    return startPublisher() && startWatcher();
}

void Module::stop()
{
    if (m_tsd) {
        stopTsd(SIGTERM);
    }
    stopWatcher();
    stopPublisher();
    if (m_velad) {
        stopVelad(SIGTERM);
    }
}

bool Module::startVelad()
{
    if (veladRunning()) {
        return true;
    }
    m_velad = std::make_unique<ChildProcess>();
    if (!m_velad->start(options({m_world.binDir() + "/velad"}, "velad.out"))) {
        return false;
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        if (!m_velad->running()) {
            return false;
        }
        if (nsops::tcpReachable(m_netns, kBusPort)) {
            // A watcher that lived through the broker's death would show
            // only what changed across it (its peer hides the break), while
            // the record was cleared with the old broker: watch afresh.
            return !m_watcher || startWatcher();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

void Module::stopVelad(int sig)
{
    if (!m_velad) {
        return;
    }
    if (m_velad->running()) {
        m_velad->signal(sig);
        if (m_velad->wait(std::chrono::seconds(5)) < 0) {
            m_velad->stop(std::chrono::milliseconds(0));
        }
    }
    // Whatever the watcher recorded belonged to that broker.
    std::lock_guard<std::mutex> lock(m_mutex);
    m_states.clear();
}

bool Module::veladRunning()
{
    return m_velad && m_velad->running();
}

bool Module::startTsd(const std::vector<std::string>& args)
{
    if (tsdRunning()) {
        return true;
    }
    std::vector<std::string> argv{m_world.binDir() + "/tsd"};
    argv.insert(argv.end(), args.begin(), args.end());
    ChildProcess::Options o = options(argv, "tsd.out");
    char uuid[16];
    std::snprintf(uuid, sizeof uuid, "%06x", m_setup.uuid & 0xFFFFFFu);
    o.env.push_back(std::string("UUID=") + uuid);
    m_tsd = std::make_unique<ChildProcess>();
    return m_tsd->start(o);
}

int Module::stopTsd(int sig, std::chrono::milliseconds timeout)
{
    if (!m_tsd) {
        return -1;
    }
    if (!m_tsd->running()) {
        return m_tsd->status();
    }
    m_tsd->signal(sig);
    int st = m_tsd->wait(timeout);
    if (st < 0) {
        m_tsd->stop(std::chrono::milliseconds(0));
        return -1;
    }
    return st;
}

bool Module::tsdRunning()
{
    return m_tsd && m_tsd->running();
}

bool Module::startPublisher()
{
    stopPublisher();
    ChildProcess::Options o = options({m_world.binDir() + "/vela", "own"}, "publisher.out");
    o.pipeStdin = true;
    o.pipeStdout = true;
    auto p = std::make_unique<ChildProcess>();
    if (!p->start(o)) {
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_publisherBuffer.clear();
        m_linesSent = 0;
        m_linesAcked = 0;
    }
    m_publisher = std::move(p);
    m_world.io().addFd(m_publisher->stdoutFd(), EPOLLIN, [this](std::uint32_t) { onPublisherOutput(); });
    // A new publisher holds nothing yet: give it everything the module has.
    if (m_paramPublished) {
        publishLine("add sync/param " + compact(m_param.toJson()));
    }
    for (const auto& path : m_reachable) {
        publishLine("add " + path + " {}");
    }
    return true;
}

void Module::stopPublisher()
{
    if (!m_publisher) {
        return;
    }
    m_world.io().removeFd(m_publisher->stdoutFd());
    m_publisher->closeStdin();
    if (m_publisher->wait(std::chrono::milliseconds(2000)) < 0) {
        m_publisher->stop(std::chrono::milliseconds(500));
    }
    m_publisher.reset();
}

void Module::onPublisherOutput()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    bool ended = false;
    const std::vector<std::string> lines = takeLines(m_publisher->stdoutFd(), m_publisherBuffer, ended);
    if (ended) {
        // Stop watching, maintain() restarts it.
        m_world.io().removeFd(m_publisher->stdoutFd());
    }
    for (const std::string& line : lines) {
        if (line == "ok") {
            ++m_linesAcked;
        } else if (line.rfind("error", 0) == 0) {
            ++m_linesAcked;
            m_lastPublishError = line;
        }
    }
    m_changed.notify_all();
}

void Module::publishLine(const std::string& line)
{
    if (!m_publisher) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_linesSent;
    }
    m_publisher->writeLine(line);
}

bool Module::waitPublished(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [this] { return m_linesAcked >= m_linesSent; });
}

std::string Module::lastPublishError() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lastPublishError;
}

void Module::setParam(const SyncParam& param)
{
    m_param = param;
    if (m_paramPublished) {
        publishLine("change sync/param " + compact(m_param.toJson()));
    } else {
        m_paramPublished = true;
        publishLine("add sync/param " + compact(m_param.toJson()));
    }
}

void Module::removeParam()
{
    if (m_paramPublished) {
        m_paramPublished = false;
        publishLine("remove sync/param");
    }
}

void Module::setReachable(const std::set<std::string>& paths)
{
    for (const auto& p : m_reachable) {
        if (!paths.count(p)) {
            publishLine("remove " + p);
        }
    }
    for (const auto& p : paths) {
        if (!m_reachable.count(p)) {
            publishLine("add " + p + " {}");
        }
    }
    m_reachable = paths;
}

bool Module::startWatcher()
{
    stopWatcher();
    ChildProcess::Options o = options({m_world.binDir() + "/vela", "watch", "sync/"}, "watcher.out");
    o.pipeStdout = true;
    auto w = std::make_unique<ChildProcess>();
    if (!w->start(o)) {
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_watcherBuffer.clear();
    }
    m_watcher = std::move(w);
    m_world.io().addFd(m_watcher->stdoutFd(), EPOLLIN, [this](std::uint32_t) { onWatcherOutput(); });
    return true;
}

void Module::stopWatcher()
{
    if (!m_watcher) {
        return;
    }
    m_world.io().removeFd(m_watcher->stdoutFd());
    m_watcher->stop(std::chrono::milliseconds(1000));
    m_watcher.reset();
}

void Module::onWatcherOutput()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    bool ended = false;
    const std::vector<std::string> lines = takeLines(m_watcher->stdoutFd(), m_watcherBuffer, ended);
    if (ended) {
        m_world.io().removeFd(m_watcher->stdoutFd());
    }
    for (const std::string& line : lines) {
        Json::Value v;
        if (!parseJson(line, v) || !v.isObject()) {
            continue;
        }
        BusEvent e;
        e.time = now();
        e.event = v["event"].asString();
        e.path = v["path"].asString();
        e.value = v["value"];
        if (e.event == "remove") {
            m_states.erase(e.path);
        } else {
            m_states[e.path] = e.value;
        }
        m_events.push_back(std::move(e));
    }
    m_changed.notify_all();
}

void Module::maintain()
{
    if (!veladRunning()) {
        return;
    }
    if (m_publisher && !m_publisher->running()) {
        startPublisher();
    }
    if (m_watcher && !m_watcher->running()) {
        startWatcher();
    }
}

Json::Value Module::state(const std::string& path) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_states.find(path);
    return it == m_states.end() ? Json::Value() : it->second;
}

std::map<std::string, Json::Value> Module::states(const std::string& prefix) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::map<std::string, Json::Value> out;
    for (const auto& s : m_states) {
        if (s.first.rfind(prefix, 0) == 0) {
            out.insert(s);
        }
    }
    return out;
}

std::vector<Module::BusEvent> Module::events() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events;
}

std::vector<Module::LogLine> Module::syslog() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_syslog;
}

std::vector<Module::ScriptCall> Module::scriptCalls() const
{
    std::vector<ScriptCall> calls;
    std::istringstream in(readFile(m_dir + "/scripts.log"));
    auto startWall =
        std::chrono::system_clock::now() - std::chrono::duration_cast<std::chrono::system_clock::duration>(
                                               std::chrono::steady_clock::now() - m_world.startTime());
    long long startMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(startWall.time_since_epoch()).count();
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream l(line);
        ScriptCall c;
        l >> c.epochMs >> c.script;
        std::getline(l, c.args);
        if (!c.args.empty() && c.args[0] == ' ') {
            c.args.erase(0, 1);
        }
        c.time = static_cast<double>(c.epochMs - startMs) / 1000.0;
        calls.push_back(c);
    }
    return calls;
}

std::string Module::output(const std::string& program) const
{
    return readFile(m_dir + "/" + program + ".out");
}

std::string Module::runFile(const std::string& relative) const
{
    return readFile(m_dir + "/run/" + relative);
}

void Module::setScriptStatus(const std::string& script, int status)
{
    writeFile(m_dir + "/status/" + script, std::to_string(status) + "\n");
}

int Module::openSocket(int type) const
{
    return nsops::socketIn(m_netns, AF_INET, type, 0);
}

int Module::run(const std::vector<std::string>& argv, std::string* output,
                std::chrono::milliseconds timeout) const
{
    ChildProcess::Options o = options(argv, "run.out");
    return ChildProcess::run(o, output, timeout);
}

}  // namespace tsdsim

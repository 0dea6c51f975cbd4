#include "tsdsim/ModuleSandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

#include "NsOps.h"
#include "tsdsim/ModuleFiles.h"

namespace tsdsim {

namespace {

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

// Every path is computed before the fork; the child only makes system calls.
struct HolderPlan
{
    std::string realProc;
    std::string realDev;
    std::string etcOverlay;
    std::string binOverlay;
    std::string run;
    std::string deviceTree;
    std::string logSocket;
};

void holderMain(const HolderPlan& plan, int readyFd)
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

    if (::mount("proc", plan.realProc.c_str(), "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) < 0) {
        holderFail(readyFd, "mount private procfs");
    }
    if (::mount("/dev", plan.realDev.c_str(), nullptr, MS_BIND | MS_REC, nullptr) < 0) {
        holderFail(readyFd, "bind /dev");
    }
    if (::mount("overlay", "/etc", "overlay", 0, plan.etcOverlay.c_str()) < 0) {
        holderFail(readyFd, "overlay on /etc");
    }
    if (::mount("overlay", "/usr/bin", "overlay", 0, plan.binOverlay.c_str()) < 0) {
        holderFail(readyFd, "overlay on /usr/bin");
    }
    if (::mount(plan.run.c_str(), "/run", nullptr, MS_BIND, nullptr) < 0) {
        holderFail(readyFd, "bind /run");
    }
    // A sysfs mounted from inside the module's network namespace lists the
    // module's interfaces under /sys/class/net.
    if (::mount("sysfs", "/sys", "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) < 0) {
        holderFail(readyFd, "mount sysfs");
    }
    if (!shadowDir("/proc", plan.realProc)) {
        holderFail(readyFd, "shadow /proc");
    }
    if (::symlink(plan.deviceTree.c_str(), "/proc/device-tree") < 0) {
        holderFail(readyFd, "device tree link");
    }
    if (!shadowDir("/dev", plan.realDev)) {
        holderFail(readyFd, "shadow /dev");
    }
    ::unlink("/dev/log");
    if (::symlink(plan.logSocket.c_str(), "/dev/log") < 0) {
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

ModuleSandbox::ModuleSandbox(const std::string& name, ModuleFiles& files) : m_name(name), m_files(files)
{
    try {
        startHolder();
    } catch (...) {
        // No destructor runs for a constructor that throws.
        release();
        throw;
    }
}

ModuleSandbox::~ModuleSandbox()
{
    release();
}

void ModuleSandbox::release()
{
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

void ModuleSandbox::startHolder()
{
    const HolderPlan plan{m_files.procMountPoint(),
                          m_files.devMountPoint(),
                          m_files.overlayOptions("/etc", "etc"),
                          m_files.overlayOptions("/usr/bin", "bin"),
                          m_files.runDir(),
                          m_files.deviceTreeDir(),
                          m_files.logSocket()};
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) < 0) {
        throw std::runtime_error("tsdsim: pipe failed");
    }
    pid_t parent = ::getpid();
    pid_t pid = ::fork();
    if (pid < 0) {
        ::close(ready[0]);
        ::close(ready[1]);
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
        holderMain(plan, ready[1]);
        ::_exit(0);
    }
    ::close(ready[1]);
    m_holder = pid;
    char buf[512];
    ssize_t n = ::read(ready[0], buf, sizeof buf);
    ::close(ready[0]);
    std::string answer = n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : "error: holder ended";
    if (answer != "ok") {
        throw std::runtime_error("tsdsim: module " + m_name + ": " + answer);
    }
    std::string base = "/proc/" + std::to_string(pid) + "/ns/";
    m_netns = ::open((base + "net").c_str(), O_RDONLY | O_CLOEXEC);
    m_mntns = ::open((base + "mnt").c_str(), O_RDONLY | O_CLOEXEC);
    if (m_netns < 0 || m_mntns < 0) {
        throw std::runtime_error("tsdsim: module " + m_name + ": cannot open its namespaces");
    }
}

void ModuleSandbox::addInterface(const std::string& ifname, const std::string& address, std::uint64_t nodeId)
{
    std::string err;
    // Complete checksums: the frames are copied from their bytes by the relay
    // and written into captures, where a checksum left to the device would
    // be wrong.
    if (!nsops::sendCompleteChecksums(m_netns, ifname, err) ||
        !nsops::configureInterface(m_netns, ifname, address, 24, err)) {
        throw std::runtime_error("tsdsim: module " + m_name + ": " + err);
    }
    // The interface is an Ethernet one to the kernel; what the daemon reads
    // is the FireWire identity put in place over the sysfs attributes: link
    // type 24 and the 8-byte node id (GUID) as the address.
    const std::vector<std::pair<std::string, std::string>> binds = {
        {m_files.writeLinkType(ifname), "/sys/class/net/" + ifname + "/type"},
        {m_files.writeNodeId(ifname, nodeId), "/sys/class/net/" + ifname + "/address"},
    };
    int mntns = m_mntns;
    pid_t pid = ::fork();
    if (pid == 0) {
        if (::setns(mntns, CLONE_NEWNS) < 0) {
            ::_exit(1);
        }
        for (const auto& [source, target] : binds) {
            if (::mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) < 0) {
                ::_exit(1);
            }
        }
        ::_exit(0);
    }
    int st = -1;
    if (pid > 0) {
        ::waitpid(pid, &st, 0);
    }
    if (pid < 0 || !WIFEXITED(st) || WEXITSTATUS(st) != 0) {
        throw std::runtime_error("tsdsim: module " + m_name + ": cannot place the FireWire identity of " + ifname);
    }
}

ChildProcess::Options ModuleSandbox::childOptions(const std::vector<std::string>& argv,
                                                  const std::string& program) const
{
    ChildProcess::Options o;
    o.argv = argv;
    o.netnsFd = m_netns;
    o.mntnsFd = m_mntns;
    o.cwd = m_files.dir();
    o.outputFile = m_files.outputFile(program);
    return o;
}

int ModuleSandbox::run(const std::vector<std::string>& argv, std::string* output,
                       std::chrono::milliseconds timeout) const
{
    return ChildProcess::run(childOptions(argv, "run"), output, timeout);
}

int ModuleSandbox::openSocket(int domain, int type, int protocol) const
{
    return nsops::socketIn(m_netns, domain, type, protocol);
}

bool ModuleSandbox::tcpReachable(unsigned port) const
{
    return nsops::tcpReachable(m_netns, port);
}

}  // namespace tsdsim

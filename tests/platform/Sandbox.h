#pragma once

// Test helpers for the suites that need a network of their own. runIsolated()
// forks a child with private network and mount namespaces; everything the test
// builds in there (interfaces, extra namespaces, mounts, scratch files) dies
// with the child, also when the test fails or crashes.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <functional>
#include <string>

#include "testsupport/TimeScale.h"

namespace orvtest {

// Runs a shell command (in the calling thread's namespaces); its exit status.
inline int sh(const std::string& command)
{
    const int status = std::system((command + " >/dev/null 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Like sh() but also prints what failed.
inline bool run(const std::string& command)
{
    const int status = std::system(command.c_str());
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        ADD_FAILURE() << "command failed: " << command;
        return false;
    }
    return true;
}

inline void writeFile(const std::string& path, const std::string& content)
{
    std::ofstream out(path, std::ios::trunc);
    out << content;
}

// Runs body in a forked child that has its own network namespace (loopback
// up), its own mount namespace with a sysfs of that network namespace on /sys,
// a scratch tmpfs on /mnt and an empty tmpfs on /run. The child's GoogleTest
// failures print as usual and make the calling test fail. The time-out grows
// with the build's time scale.
inline void runIsolated(const std::function<void()>& body, unsigned timeoutSeconds = 60)
{
    std::fflush(nullptr);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0) << std::strerror(errno);
    if (child == 0) {
        ::alarm(timeoutSeconds * static_cast<unsigned>(testsupport::timeScale()));
        int code = 0;
        if (::unshare(CLONE_NEWNS | CLONE_NEWNET) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0 ||
            ::mount("tmpfs", "/mnt", "tmpfs", 0, "size=4m") != 0) {
            std::fprintf(stderr, "sandbox: %s\n", std::strerror(errno));
            ::_exit(3);
        }
        // A private /run: `ip -n NAME` finds namespaces under /run/netns, and
        // nothing of it reaches the machine's own /run.
        if (::mount("tmpfs", "/run", "tmpfs", 0, "size=4m") != 0 || ::mkdir("/run/netns", 0755) != 0 ||
            sh("ip link set lo up") != 0) {
            std::fprintf(stderr, "sandbox: cannot prepare /run/netns or loopback\n");
            ::_exit(3);
        }
        try {
            body();
            code = ::testing::Test::HasFailure() ? 1 : 0;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "sandbox: uncaught exception: %s\n", e.what());
            code = 2;
        }
        std::fflush(nullptr);
        ::_exit(code);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    if (WIFSIGNALED(status)) {
        ADD_FAILURE() << "isolated test child died of signal " << WTERMSIG(status)
                      << (WTERMSIG(status) == SIGALRM ? " (timeout)" : "");
    } else {
        EXPECT_EQ(WEXITSTATUS(status), 0) << "isolated test child failed";
    }
}

// A further network namespace inside the sandbox, reachable as `ip -n NAME`
// and by entering it with Netns::Inside. Sockets keep the namespace they were
// created in, so a test can open sockets on both ends of a link.
class Netns
{
public:
    explicit Netns(const std::string& name) : m_name(name)
    {
        m_home = ::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
        const std::string path = "/run/netns/" + name;
        writeFile(path, "");
        if (m_home < 0 || ::unshare(CLONE_NEWNET) != 0 ||
            ::mount("/proc/self/ns/net", path.c_str(), nullptr, MS_BIND, nullptr) != 0) {
            ADD_FAILURE() << "cannot create network namespace " << name << ": " << std::strerror(errno);
        }
        m_fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        sh("ip link set lo up");
        if (::setns(m_home, CLONE_NEWNET) != 0) {
            ADD_FAILURE() << "cannot return to the home namespace";
        }
    }
    ~Netns()
    {
        ::close(m_fd);
        ::close(m_home);
    }
    Netns(const Netns&) = delete;
    Netns& operator=(const Netns&) = delete;

    const std::string& name() const { return m_name; }

    // Puts the calling thread into the namespace for the life of the guard.
    class Inside
    {
    public:
        explicit Inside(const Netns& ns) : m_home(ns.m_home)
        {
            if (::setns(ns.m_fd, CLONE_NEWNET) != 0) {
                ADD_FAILURE() << "cannot enter " << ns.m_name;
            }
        }
        ~Inside() { ::setns(m_home, CLONE_NEWNET); }
        Inside(const Inside&) = delete;
        Inside& operator=(const Inside&) = delete;

    private:
        int m_home;
    };

private:
    std::string m_name;
    int m_home = -1;
    int m_fd = -1;
};

// A TAP device held open by the test; it disappears when the fd closes.
class Tap
{
public:
    // linkType: ARPHRD_* type set with TUNSETLINK before the device comes up
    // (0 leaves Ethernet).
    Tap(const std::string& name, int linkType)
    {
        m_fd = ::open("/dev/net/tun", O_RDWR | O_CLOEXEC);
        if (m_fd < 0) {
            ADD_FAILURE() << "/dev/net/tun: " << std::strerror(errno);
            return;
        }
        ifreq ifr{};
        ifr.ifr_flags = IFF_TAP | IFF_NO_PI;
        std::strncpy(ifr.ifr_name, name.c_str(), IFNAMSIZ - 1);
        if (::ioctl(m_fd, TUNSETIFF, &ifr) != 0) {
            ADD_FAILURE() << "TUNSETIFF " << name << ": " << std::strerror(errno);
        }
        if (linkType != 0 && ::ioctl(m_fd, TUNSETLINK, static_cast<unsigned long>(linkType)) != 0) {
            ADD_FAILURE() << "TUNSETLINK " << name << ": " << std::strerror(errno);
        }
    }
    ~Tap()
    {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    Tap(const Tap&) = delete;
    Tap& operator=(const Tap&) = delete;

    int fd() const { return m_fd; }

private:
    int m_fd = -1;
};

// Output of a shell command (in the calling thread's namespaces).
inline std::string capture(const std::string& command)
{
    std::string out;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return out;
    }
    char chunk[512];
    size_t n = 0;
    while ((n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) {
        out.append(chunk, n);
    }
    ::pclose(pipe);
    return out;
}

// Waits until an interface carries traffic: carrier on and a real queueing
// discipline attached (until then the kernel drops what is sent). ipOptions
// selects the namespace, e.g. "-n peer".
inline bool waitLinkReady(const std::string& device, const std::string& ipOptions = "")
{
    for (int i = 0; i < 500; ++i) {
        const std::string state = capture("ip " + ipOptions + " link show dev " + device + " 2>/dev/null");
        if (state.find("LOWER_UP") != std::string::npos && state.find("qdisc noop") == std::string::npos) {
            return true;
        }
        ::usleep(10 * 1000);
    }
    ADD_FAILURE() << device << " did not come up";
    return false;
}

// Puts a regular file with content over target (a sysfs attribute, say),
// visible only in the sandbox's mount namespace.
inline bool overlayFile(const std::string& target, const std::string& content)
{
    static int serial = 0;
    const std::string source = "/mnt/overlay-" + std::to_string(++serial);
    writeFile(source, content);
    if (::mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        ADD_FAILURE() << "bind mount over " << target << ": " << std::strerror(errno);
        return false;
    }
    return true;
}

// Index of an interface in the calling thread's network namespace; 0 if none.
inline unsigned interfaceIndex(const std::string& name)
{
    return ::if_nametoindex(name.c_str());
}

}  // namespace orvtest

#include "NsOps.h"

#include <arpa/inet.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tsdsim::nsops {

namespace {
std::string sysError(const std::string& what)
{
    return what + ": " + std::strerror(errno);
}
}  // namespace

NetnsSwitch::NetnsSwitch(int netnsFd)
{
    m_home = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (m_home < 0) {
        return;
    }
    m_ok = ::setns(netnsFd, CLONE_NEWNET) == 0;
}

NetnsSwitch::~NetnsSwitch()
{
    if (m_home >= 0) {
        ::setns(m_home, CLONE_NEWNET);
        ::close(m_home);
    }
}

bool setUp(const std::string& name, std::string& error)
{
    int s = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) {
        error = sysError("socket");
        return false;
    }
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, name.c_str(), IFNAMSIZ - 1);
    bool ok = ::ioctl(s, SIOCGIFFLAGS, &ifr) == 0;
    if (ok) {
        ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP | IFF_RUNNING);
        ok = ::ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
    }
    if (!ok) {
        error = sysError("set up " + name);
    }
    ::close(s);
    return ok;
}

bool configureInterface(int netnsFd, const std::string& name, const std::string& address, int prefix,
                        std::string& error)
{
    NetnsSwitch in(netnsFd);
    if (!in.ok()) {
        error = sysError("setns");
        return false;
    }
    int s = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) {
        error = sysError("socket");
        return false;
    }
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, name.c_str(), IFNAMSIZ - 1);
    auto* sin = reinterpret_cast<sockaddr_in*>(&ifr.ifr_addr);
    sin->sin_family = AF_INET;
    bool ok =
        ::inet_pton(AF_INET, address.c_str(), &sin->sin_addr) == 1 && ::ioctl(s, SIOCSIFADDR, &ifr) == 0;
    if (ok) {
        std::uint32_t mask = prefix <= 0 ? 0 : htonl(~0u << (32 - prefix));
        sin->sin_addr.s_addr = mask;
        ok = ::ioctl(s, SIOCSIFNETMASK, &ifr) == 0;
    }
    ::close(s);
    if (!ok) {
        error = sysError("address " + address + " on " + name);
        return false;
    }
    return setUp(name, error);
}

bool sendCompleteChecksums(int netnsFd, const std::string& name, std::string& error)
{
    // The ioctl acts on the namespace the socket was made in.
    const int s = socketIn(netnsFd, AF_INET, SOCK_DGRAM, 0);
    if (s < 0) {
        error = sysError("socket in the module's namespace");
        return false;
    }
    ethtool_value off{};
    off.cmd = ETHTOOL_STXCSUM;
    off.data = 0;
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, name.c_str(), IFNAMSIZ - 1);
    ifr.ifr_data = reinterpret_cast<char*>(&off);
    const bool ok = ::ioctl(s, SIOCETHTOOL, &ifr) == 0;
    if (!ok) {
        error = sysError("checksum offload off on " + name);
    }
    ::close(s);
    return ok;
}

int socketIn(int netnsFd, int domain, int type, int protocol)
{
    NetnsSwitch in(netnsFd);
    if (!in.ok()) {
        return -1;
    }
    return ::socket(domain, type | SOCK_CLOEXEC, protocol);
}

bool tcpReachable(int netnsFd, unsigned port)
{
    int s = socketIn(netnsFd, AF_INET, SOCK_STREAM, 0);
    if (s < 0) {
        return false;
    }
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<std::uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = ::connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    ::close(s);
    return ok;
}

}  // namespace tsdsim::nsops

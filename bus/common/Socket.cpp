#include "Socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace vela::socket {

namespace {

int newSocket(int family)
{
    int fd = ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    return fd < 0 ? -errno : fd;
}

void setNoDelay(int fd)
{
    int one = 1;
    // Bus messages are small and latency matters more than packet count.
    // Fails harmlessly on a Unix socket.
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

bool makeUnixAddress(const std::string& path, sockaddr_un& addr)
{
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr.sun_path) {
        return false;
    }
    std::memcpy(addr.sun_path, path.data(), path.size());
    return true;
}

// Formats a socket address of any family the bus uses.
std::string addressText(const sockaddr_storage& ss, socklen_t len)
{
    char buf[INET6_ADDRSTRLEN] = "?";
    if (ss.ss_family == AF_INET) {
        const auto& a = reinterpret_cast<const sockaddr_in&>(ss);
        ::inet_ntop(AF_INET, &a.sin_addr, buf, sizeof buf);
        return std::string(buf) + ":" + std::to_string(ntohs(a.sin_port));
    }
    if (ss.ss_family == AF_INET6) {
        const auto& a = reinterpret_cast<const sockaddr_in6&>(ss);
        ::inet_ntop(AF_INET6, &a.sin6_addr, buf, sizeof buf);
        return "[" + std::string(buf) + "]:" + std::to_string(ntohs(a.sin6_port));
    }
    if (ss.ss_family == AF_UNIX) {
        const auto& a = reinterpret_cast<const sockaddr_un&>(ss);
        const auto offset = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path));
        if (len > offset && a.sun_path[0] != '\0') {
            return "unix:" + std::string(a.sun_path, strnlen(a.sun_path, len - offset));
        }
        return "unix";
    }
    return "?";
}

// The address of one end of a socket, by getpeername or getsockname.
std::string nameOf(int fd, int (*get)(int, sockaddr*, socklen_t*))
{
    sockaddr_storage addr;
    socklen_t len = sizeof addr;
    if (get(fd, reinterpret_cast<sockaddr*>(&addr), &len) < 0) {
        return "?";
    }
    return addressText(addr, len);
}

}  // namespace

bool makeAddress(const std::string& address, std::uint16_t port, sockaddr_in& addr)
{
    std::memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    return ::inet_pton(AF_INET, address.c_str(), &addr.sin_addr) == 1;
}

int listenTcp(const std::string& address, std::uint16_t port)
{
    sockaddr_in addr;
    if (!makeAddress(address, port, addr)) {
        return -EINVAL;
    }
    int fd = newSocket(AF_INET);
    if (fd < 0) {
        return fd;
    }
    // A restarted broker must get its port back while old connections of
    // the previous instance linger in TIME_WAIT.
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0 || ::listen(fd, SOMAXCONN) < 0) {
        int err = -errno;
        ::close(fd);
        return err;
    }
    return fd;
}

int listenUnix(const std::string& path)
{
    sockaddr_un addr;
    if (!makeUnixAddress(path, addr)) {
        return -ENAMETOOLONG;
    }
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            return -EEXIST;
        }
        ::unlink(path.c_str());
    }
    int fd = newSocket(AF_UNIX);
    if (fd < 0) {
        return fd;
    }
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0 ||
        ::chmod(path.c_str(), 0666) < 0 || ::listen(fd, SOMAXCONN) < 0) {
        int err = -errno;
        ::close(fd);
        return err;
    }
    return fd;
}

int acceptTcp(int listenFd)
{
    int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        return -errno;
    }
    setNoDelay(fd);
    return fd;
}

int adoptFd(int fd)
{
    int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        return -errno;
    }
    int fdFlags = ::fcntl(fd, F_GETFD);
    if (fdFlags < 0 || ::fcntl(fd, F_SETFD, fdFlags | FD_CLOEXEC) < 0) {
        return -errno;
    }
    return 0;
}

std::uint16_t localPort(int fd)
{
    sockaddr_storage addr;
    socklen_t len = sizeof addr;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) < 0) {
        return 0;
    }
    if (addr.ss_family == AF_INET) {
        return ntohs(reinterpret_cast<const sockaddr_in&>(addr).sin_port);
    }
    if (addr.ss_family == AF_INET6) {
        return ntohs(reinterpret_cast<const sockaddr_in6&>(addr).sin6_port);
    }
    return 0;
}

int connectTcp(const std::string& address, std::uint16_t port, bool* inProgress)
{
    sockaddr_in addr;
    if (!makeAddress(address, port, addr)) {
        return -EINVAL;
    }
    int fd = newSocket(AF_INET);
    if (fd < 0) {
        return fd;
    }
    setNoDelay(fd);
    *inProgress = false;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
        if (errno != EINPROGRESS) {
            int err = -errno;
            ::close(fd);
            return err;
        }
        *inProgress = true;
    }
    return fd;
}

int connectUnix(const std::string& path, bool* inProgress)
{
    sockaddr_un addr;
    if (!makeUnixAddress(path, addr)) {
        return -ENAMETOOLONG;
    }
    int fd = newSocket(AF_UNIX);
    if (fd < 0) {
        return fd;
    }
    *inProgress = false;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
        // A full backlog of a Unix listener answers EAGAIN at once; that
        // attempt has failed and the caller's back-off tries again.
        if (errno != EINPROGRESS) {
            int err = -errno;
            ::close(fd);
            return err;
        }
        *inProgress = true;
    }
    return fd;
}

int connectResult(int fd)
{
    int err = 0;
    socklen_t len = sizeof err;
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) < 0) {
        return -errno;
    }
    return -err;
}

std::string peerName(int fd)
{
    return nameOf(fd, ::getpeername);
}

std::string localName(int fd)
{
    return nameOf(fd, ::getsockname);
}

}  // namespace vela::socket

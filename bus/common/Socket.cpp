#include "Socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace vela::socket {

namespace {

int newSocket()
{
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    return fd < 0 ? -errno : fd;
}

void setNoDelay(int fd)
{
    int one = 1;
    // Bus messages are small and latency matters more than packet count.
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
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
    int fd = newSocket();
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

int acceptTcp(int listenFd)
{
    int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        return -errno;
    }
    setNoDelay(fd);
    return fd;
}

std::uint16_t localPort(int fd)
{
    sockaddr_in addr;
    socklen_t len = sizeof addr;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) < 0) {
        return 0;
    }
    return ntohs(addr.sin_port);
}

int connectTcp(const std::string& address, std::uint16_t port, bool* inProgress)
{
    sockaddr_in addr;
    if (!makeAddress(address, port, addr)) {
        return -EINVAL;
    }
    int fd = newSocket();
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
    sockaddr_in addr;
    socklen_t len = sizeof addr;
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&addr), &len) < 0) {
        return "?";
    }
    char buf[INET_ADDRSTRLEN] = "?";
    ::inet_ntop(AF_INET, &addr.sin_addr, buf, sizeof buf);
    return std::string(buf) + ":" + std::to_string(ntohs(addr.sin_port));
}

}  // namespace vela::socket

#include "testsupport/NotifySocket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "testsupport/PrivateMounts.h"

namespace testsupport {

NotifySocket::NotifySocket()
{
    static int serial = 0;
    m_path = PrivateMounts::scratchDir("notify") + "/" + std::to_string(::getpid()) + "-" + std::to_string(++serial);
    m_fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (m_fd < 0 || m_path.size() >= sizeof address.sun_path) {
        throw std::runtime_error("notify socket: " + std::string(std::strerror(errno)));
    }
    std::memcpy(address.sun_path, m_path.c_str(), m_path.size() + 1);
    ::unlink(m_path.c_str());
    if (::bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("bind " + m_path + ": " + std::strerror(errno));
    }
}

NotifySocket::~NotifySocket()
{
    ::close(m_fd);
    ::unlink(m_path.c_str());
}

void NotifySocket::exportPath() const
{
    ::setenv("NOTIFY_SOCKET", m_path.c_str(), 1);
}

std::string NotifySocket::receive(std::chrono::milliseconds timeout)
{
    pollfd p{m_fd, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(timeout.count())) <= 0) {
        return {};
    }
    char buffer[4096];
    const ssize_t n = ::recv(m_fd, buffer, sizeof buffer, MSG_DONTWAIT);
    return n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : std::string();
}

}  // namespace testsupport

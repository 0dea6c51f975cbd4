#include "tsdsim/McastSocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tsdsim/Module.h"

namespace tsdsim {

McastSocket::McastSocket(const Module& module, const std::string& group, unsigned port, Side side)
    : m_group(group), m_port(port)
{
    m_fd = module.openSocket(SOCK_DGRAM);
    if (m_fd < 0) {
        return;
    }
    int one = 1;
    ::setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<std::uint16_t>(port));
    in_addr ifaddr{};
    ip_mreqn m{};
    bool ok = ::inet_pton(AF_INET, group.c_str(), &a.sin_addr) == 1 &&
              ::inet_pton(AF_INET, module.address(side).c_str(), &ifaddr) == 1 &&
              ::bind(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    if (ok) {
        m.imr_multiaddr = a.sin_addr;
        m.imr_address = ifaddr;
        ok = ::setsockopt(m_fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof m) == 0 &&
             ::setsockopt(m_fd, IPPROTO_IP, IP_MULTICAST_IF, &ifaddr, sizeof ifaddr) == 0;
    }
    // Only what crossed the bus counts, not the socket's own sends.
    int loop = 0;
    ::setsockopt(m_fd, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop);
    if (!ok) {
        ::close(m_fd);
        m_fd = -1;
    }
}

McastSocket::~McastSocket()
{
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

bool McastSocket::send(const std::string& text, unsigned port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<std::uint16_t>(port ? port : m_port));
    ::inet_pton(AF_INET, m_group.c_str(), &a.sin_addr);
    return ::sendto(m_fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a) ==
           static_cast<ssize_t>(text.size());
}

std::string McastSocket::receive(std::chrono::milliseconds timeout)
{
    pollfd p{m_fd, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(timeout.count())) <= 0) {
        return {};
    }
    char buf[65536];
    ssize_t n = ::recv(m_fd, buf, sizeof buf, 0);
    return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string();
}

int McastSocket::drain(std::chrono::milliseconds window)
{
    int count = 0;
    auto deadline = std::chrono::steady_clock::now() + window;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                          std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return count;
        }
        if (!receive(left).empty()) {
            ++count;
        }
    }
}

}  // namespace tsdsim

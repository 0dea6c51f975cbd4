#pragma once

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>

#include "tsdsim/Module.h"

namespace simtest {

// A UDP socket inside a module, bound to port and joined to group on one of
// the module's interfaces; closes on destruction.
class McastSocket
{
public:
    McastSocket(const tsdsim::Module& module, const std::string& group, unsigned port, tsdsim::Side side)
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
        ::inet_pton(AF_INET, group.c_str(), &a.sin_addr);
        if (::bind(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a) < 0) {
            close();
            return;
        }
        ip_mreqn m{};
        ::inet_pton(AF_INET, group.c_str(), &m.imr_multiaddr);
        ::inet_pton(AF_INET, module.address(side).c_str(), &m.imr_address);
        if (::setsockopt(m_fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof m) < 0) {
            close();
            return;
        }
        in_addr ifaddr{};
        ::inet_pton(AF_INET, module.address(side).c_str(), &ifaddr);
        ::setsockopt(m_fd, IPPROTO_IP, IP_MULTICAST_IF, &ifaddr, sizeof ifaddr);
        // Only what crossed the bus counts, not the socket's own sends.
        int loop = 0;
        ::setsockopt(m_fd, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop);
        m_group = group;
        m_port = port;
    }
    ~McastSocket() { close(); }
    McastSocket(const McastSocket&) = delete;
    McastSocket& operator=(const McastSocket&) = delete;

    bool ok() const { return m_fd >= 0; }

    bool send(const std::string& text)
    {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<std::uint16_t>(m_port));
        ::inet_pton(AF_INET, m_group.c_str(), &a.sin_addr);
        return ::sendto(m_fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a) ==
               static_cast<ssize_t>(text.size());
    }

    // One datagram, or an empty string after timeout.
    std::string receive(std::chrono::milliseconds timeout)
    {
        pollfd p{m_fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(timeout.count())) <= 0) {
            return {};
        }
        char buf[2048];
        ssize_t n = ::recv(m_fd, buf, sizeof buf, 0);
        return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string();
    }

    // Reads everything that arrives within window; returns the count.
    int drain(std::chrono::milliseconds window)
    {
        int count = 0;
        auto deadline = std::chrono::steady_clock::now() + window;
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return count;
            }
            if (!receive(left).empty()) {
                ++count;
            }
        }
    }

private:
    void close()
    {
        if (m_fd >= 0) {
            ::close(m_fd);
            m_fd = -1;
        }
    }

    int m_fd = -1;
    std::string m_group;
    unsigned m_port = 0;
};

}  // namespace simtest

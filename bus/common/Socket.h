#pragma once

#include <cstdint>
#include <string>

struct sockaddr_in;

// Small wrappers of the socket calls the bus makes. Each returns a new fd or
// a negative errno and never throws; fds are non-blocking and close-on-exec.
namespace vela::socket {

// Fills addr from a dotted IPv4 address and a port; false on a bad address.
bool makeAddress(const std::string& address, std::uint16_t port, sockaddr_in& addr);
// A listening TCP socket bound to address:port (port 0: any free port).
int listenTcp(const std::string& address, std::uint16_t port);
// Accepts one waiting connection, set up like connectTcp's; -EAGAIN when
// none is waiting.
int acceptTcp(int listenFd);
// The local port of a bound socket, or 0.
std::uint16_t localPort(int fd);
// Starts a connection; *inProgress tells whether to wait for EPOLLOUT and
// then check connectResult().
int connectTcp(const std::string& address, std::uint16_t port, bool* inProgress);
// 0 once a pending connect succeeded, or the negative errno it failed with.
int connectResult(int fd);
// "a.b.c.d:port" of the remote end, for log lines.
std::string peerName(int fd);

}  // namespace vela::socket

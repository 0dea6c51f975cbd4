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
// A listening Unix stream socket at path that every local user may connect
// to (what a peer may do is the broker's access policy's business, not the
// file mode's). A socket file left behind by an earlier broker is replaced;
// any other file at path is not touched (-EEXIST).
int listenUnix(const std::string& path);
// Accepts one waiting connection, set up like connectTcp's; -EAGAIN when
// none is waiting. Works on TCP and Unix listeners alike.
int acceptTcp(int listenFd);
// Makes an fd handed over by a service manager non-blocking and
// close-on-exec, like the fds created here. 0 or a negative errno.
int adoptFd(int fd);
// The local port of a bound socket, or 0.
std::uint16_t localPort(int fd);
// Starts a connection; *inProgress tells whether to wait for EPOLLOUT and
// then check connectResult().
int connectTcp(const std::string& address, std::uint16_t port, bool* inProgress);
// The same for a broker's Unix socket at path.
int connectUnix(const std::string& path, bool* inProgress);
// 0 once a pending connect succeeded, or the negative errno it failed with.
int connectResult(int fd);
// "a.b.c.d:port" ("[v6]:port", or "unix" for a Unix socket) of the remote
// end, for log lines.
std::string peerName(int fd);
// The same for the local end ("unix:PATH" for a Unix socket).
std::string localName(int fd);

}  // namespace vela::socket

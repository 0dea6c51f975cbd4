#pragma once

#include <chrono>
#include <string>

namespace testsupport {

// A service manager's notification socket, as a test plays it: a datagram
// socket bound in the scratch directory whose path goes into NOTIFY_SOCKET,
// so that a daemon's sd_notify messages ("READY=1", ...) arrive here.
class NotifySocket
{
public:
    NotifySocket();
    ~NotifySocket();
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    const std::string& path() const { return m_path; }
    // Sets NOTIFY_SOCKET to path() for this process and its children.
    void exportPath() const;
    // One message, or empty when none arrives within timeout (0: only what
    // is there already).
    std::string receive(std::chrono::milliseconds timeout = std::chrono::milliseconds(0));

private:
    int m_fd = -1;
    std::string m_path;
};

}  // namespace testsupport

#pragma once

#include <chrono>
#include <string>

#include "tsdsim/ModuleSetup.h"

namespace tsdsim {

class Module;

// A UDP socket inside a module's network namespace, bound to group:port and
// joined to the group on one of the module's FireWire interfaces, sending
// out of that interface. For tests that speak raw telegrams to the daemons
// over a simulated bus. Its own sends do not loop back to it. Owned fd,
// closed on destruction; use from one thread.
class McastSocket
{
public:
    McastSocket(const Module& module, const std::string& group, unsigned port, Side side);
    ~McastSocket();
    McastSocket(const McastSocket&) = delete;
    McastSocket& operator=(const McastSocket&) = delete;

    bool ok() const { return m_fd >= 0; }
    int fd() const { return m_fd; }

    // Sends text to group:port (to another port when port is not 0).
    bool send(const std::string& text, unsigned port = 0);
    // One datagram, or an empty string after timeout.
    std::string receive(std::chrono::milliseconds timeout);
    // Reads everything that arrives within window; returns the count.
    int drain(std::chrono::milliseconds window);

private:
    int m_fd = -1;
    std::string m_group;
    unsigned m_port = 0;
};

}  // namespace tsdsim

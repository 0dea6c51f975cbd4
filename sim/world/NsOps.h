#pragma once

#include <string>

// Small wrappers around the system calls that build a module's network, all
// of them acting from the calling thread only: setns(CLONE_NEWNET) changes
// the network namespace of one thread, so the world can reach into a module
// while its other threads (the relay and the monitors) stay where they are.
namespace tsdsim::nsops {

// Switches the calling thread into the network namespace netnsFd and back
// on destruction.
class NetnsSwitch
{
public:
    explicit NetnsSwitch(int netnsFd);
    ~NetnsSwitch();
    NetnsSwitch(const NetnsSwitch&) = delete;
    NetnsSwitch& operator=(const NetnsSwitch&) = delete;
    bool ok() const { return m_ok; }

private:
    int m_home = -1;
    bool m_ok = false;
};

// Gives interface name an IPv4 address (prefix length bits) and sets it up.
bool configureInterface(int netnsFd, const std::string& name, const std::string& address, int prefix,
                        std::string& error);

// Makes the stack put complete checksums into what it sends through
// interface name, instead of leaving them to a device (a veth's peer would
// accept the frame unchecked, but a copy made from its bytes is checked).
bool sendCompleteChecksums(int netnsFd, const std::string& name, std::string& error);

// Sets an interface up (used for lo).
bool setUp(const std::string& name, std::string& error);

// A socket created inside the namespace netnsFd (-1 on failure).
int socketIn(int netnsFd, int domain, int type, int protocol);

// True when something accepts TCP connections on 127.0.0.1:port in netnsFd.
bool tcpReachable(int netnsFd, unsigned port);

}  // namespace tsdsim::nsops

#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "tsdsim/ChildProcess.h"

namespace tsdsim {

class ModuleFiles;

// The module's own corner of the machine: a network and a mount namespace,
// held open by a small holder process, in which the module's files appear
// where the daemon looks for them:
//   - /proc/device-tree (a tmpfs over /proc links every entry of a private
//     procfs, so /proc/self still resolves per process, and adds the tree),
//   - /etc and /usr/bin as overlays (configuration, time-service scripts),
//   - /run (= /var/run) bound from the module's directory,
//   - /sys: a sysfs of the module's network namespace (its interfaces only),
//   - /dev/log: a tmpfs over /dev links every device and points log at the
//     socket the simulator reads.
// Everything that runs in the module starts from here (childOptions), and
// its FireWire interfaces get their identity here.
//
// Construction throws std::runtime_error; destruction kills the holder, and
// with the last process inside the namespaces and mounts go. Use from the
// thread that owns the world.
class ModuleSandbox
{
public:
    // name: the module's, for error messages.
    ModuleSandbox(const std::string& name, ModuleFiles& files);
    ~ModuleSandbox();
    ModuleSandbox(const ModuleSandbox&) = delete;
    ModuleSandbox& operator=(const ModuleSandbox&) = delete;

    // Gives interface ifname inside (made there by the bus) what the daemon
    // reads of a FireWire interface: address/24, up, and in sysfs link type 24
    // (IEEE 1394) and nodeId as its address. Throws std::runtime_error.
    void addInterface(const std::string& ifname, const std::string& address, std::uint64_t nodeId);

    // How to start argv inside: namespaces, the module's directory as working
    // directory, stdout and stderr appended to the program's output file.
    ChildProcess::Options childOptions(const std::vector<std::string>& argv,
                                       const std::string& program) const;
    // Runs argv inside and collects stdout in output; returns the wait status
    // (-1 on time-out or failure to start). Its stderr goes to run.out.
    int run(const std::vector<std::string>& argv, std::string* output,
            std::chrono::milliseconds timeout) const;
    // A socket created in the module's network namespace (-1 on failure);
    // the short form makes an AF_INET one.
    int openSocket(int domain, int type, int protocol) const;
    int openSocket(int type) const { return openSocket(AF_INET, type, 0); }
    // True when something accepts TCP connections on 127.0.0.1:port inside.
    bool tcpReachable(unsigned port) const;

    int netnsFd() const { return m_netns; }
    int mntnsFd() const { return m_mntns; }
    pid_t holderPid() const { return m_holder; }

private:
    void startHolder();
    void release();

    std::string m_name;
    ModuleFiles& m_files;
    pid_t m_holder = -1;
    int m_netns = -1;
    int m_mntns = -1;
};

}  // namespace tsdsim

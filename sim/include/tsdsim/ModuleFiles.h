#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tsdsim/ModuleSetup.h"
#include "tsdsim/SimClock.h"

namespace tsdsim {

// The files of one simulated module, kept on the host in the module's
// directory: what its sandbox mounts where the daemon looks, and what the
// simulator reads back. This class alone knows the layout:
//
//   etc-up/ etc-work/          overlay on /etc: TimeSourceDaemonConfig.xml
//   bin-up/ bin-work/          overlay on /usr/bin: the time-service scripts
//                              (recorders: see writeRecorderScripts)
//   run/                       the module's /run (= /var/run), timesync/ in it
//   device-tree/               /proc/device-tree: stratova/moduletype
//   realproc/ realdev/         where the sandbox mounts the module's own
//                              procfs and /dev, which its shadows link to
//   ids/IFNAME.address         node ids, bound over /sys/class/net/IFNAME/address
//   status/SCRIPT              exit status a recorder script gives (0 if absent)
//   scripts.log                "EPOCH-MS SCRIPT ARGS", one line per script call
//   log.sock                   the module's /dev/log
//   PROGRAM.out                stdout and stderr of each of its programs
//   TimeSourceDaemonConfig.xml a copy of the configuration, to look at
//
// The world removes the directory with everything in it. Throws
// std::runtime_error when a file cannot be written.
class ModuleFiles
{
public:
    struct ScriptCall
    {
        double time = 0;        // seconds since the world began
        long long epochMs = 0;  // wall clock as the script saw it
        std::string script;     // "ptp4ladm.sh", "start_ntpd.sh", "stop_ntpd.sh"
        std::string args;
    };

    // The scripts the daemon calls, in /bin (= /usr/bin).
    static const std::vector<std::string>& scriptNames();

    // Creates dir and everything the module starts with.
    ModuleFiles(std::string dir, const ModuleSetup& setup, SimClock clock);
    ModuleFiles(const ModuleFiles&) = delete;
    ModuleFiles& operator=(const ModuleFiles&) = delete;

    const std::string& dir() const { return m_dir; }
    // dir()/relative.
    std::string path(const std::string& relative) const;

    // Mount sources of the sandbox.
    std::string overlayOptions(const std::string& lowerDir, const std::string& name) const;
    std::string runDir() const { return path("run"); }
    std::string deviceTreeDir() const { return path("device-tree"); }
    std::string procMountPoint() const { return path("realproc"); }
    std::string devMountPoint() const { return path("realdev"); }
    std::string logSocket() const { return path("log.sock"); }
    std::string outputFile(const std::string& program) const { return path(program + ".out"); }

    // Writes the sysfs address text of nodeId for interface ifname and
    // returns the file's path, to be bound over the interface's attribute.
    std::string writeNodeId(const std::string& ifname, std::uint64_t nodeId);

    // Exit status the recorder script gives from now on.
    void setScriptStatus(const std::string& script, int status);
    std::vector<ScriptCall> scriptCalls() const;
    // What a program wrote to stdout and stderr so far.
    std::string output(const std::string& program) const;
    // A file under the module's /run; empty when absent.
    std::string runFile(const std::string& relative) const;

private:
    void writeRecorderScripts();

    std::string m_dir;
    SimClock m_clock;
};

}  // namespace tsdsim

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tsdsim/ModuleSetup.h"

namespace tsdsim {

// The files of one simulated module, kept on the host in the module's
// directory: what its sandbox mounts where the daemon looks, and what the
// simulator reads back. This class alone knows the layout:
//
//   etc-up/ etc-work/          overlay on /etc: TimeSourceDaemonConfig.xml
//   bin-up/ bin-work/          overlay on /usr/bin: the time-service scripts
//                              (stand-ins: see ScriptRecorder)
//   run/                       the module's /run (= /var/run), timesync/ in it
//   device-tree/               /proc/device-tree: stratova/moduletype
//   realproc/ realdev/         where the sandbox mounts the module's own
//                              procfs and /dev, which its shadows link to
//   ids/IFNAME.address         node ids, bound over /sys/class/net/IFNAME/address
//   status/SCRIPT              exit status a stand-in script gives (0 if absent)
//   status/SCRIPT.delay        seconds it sleeps before answering (none if absent)
//   scripts.fifo               where the stand-ins hand over their calls
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
    // Creates dir and everything the module starts with.
    ModuleFiles(std::string dir, const ModuleSetup& setup);
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
    // Where a time-service script of the module lies (seen inside as
    // /bin/SCRIPT), its exit status, the stand-ins' FIFO and their log.
    std::string scriptPath(const std::string& script) const { return path("bin-up/" + script); }
    std::string scriptStatusFile(const std::string& script) const { return path("status/" + script); }
    std::string scriptDelayFile(const std::string& script) const { return path("status/" + script + ".delay"); }
    std::string scriptFifo() const { return path("scripts.fifo"); }
    std::string scriptsLog() const { return path("scripts.log"); }

    // Writes the sysfs address text of nodeId for interface ifname and
    // returns the file's path, to be bound over the interface's attribute.
    std::string writeNodeId(const std::string& ifname, std::uint64_t nodeId);

    // What a program wrote to stdout and stderr so far.
    std::string output(const std::string& program) const;
    // A file under the module's /run; empty when absent.
    std::string runFile(const std::string& relative) const;

private:
    std::string m_dir;
};

}  // namespace tsdsim

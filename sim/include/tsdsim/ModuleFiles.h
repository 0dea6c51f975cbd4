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
//   etc-up/ etc-work/          overlay on /etc: TimeSourceDaemonConfig.xml and
//                              tsd/param.json, the parameters the module ships
//                              (tsdparamd's defaults)
//   bin-up/ bin-work/          overlay on /usr/bin: the time-service scripts
//                              (stand-ins: see ScriptRecorder)
//   run/                       the module's /run (= /var/run), timesync/ in it
//   device-tree/               /proc/device-tree: stratova/moduletype
//   realproc/ realdev/         where the sandbox mounts the module's own
//                              procfs and /dev, which its shadows link to
//   ids/IFNAME.address         node ids, bound over /sys/class/net/IFNAME/address
//   ids/IFNAME.type            link type 24, bound over /sys/class/net/IFNAME/type
//   sysfs/                     the FireWire devices as fwdevd reads them (see
//                              ModuleDevices)
//   state/param.json           tsdparamd's state file: parameters set at run time
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
    // The FireWire devices fwdevd reads, the parameters tsdparamd keeps (as
    // seen inside the module, and its state file).
    std::string sysfsDir() const { return path("sysfs"); }
    static std::string paramDefaultsInside() { return "/etc/tsd/param.json"; }
    std::string paramStateFile() const { return path("state/param.json"); }
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
    // The same for the link type of a FireWire interface (24, IEEE 1394).
    std::string writeLinkType(const std::string& ifname);

    // What a program wrote to stdout and stderr so far.
    std::string output(const std::string& program) const;
    // A file under the module's /run; empty when absent.
    std::string runFile(const std::string& relative) const;

private:
    std::string m_dir;
};

}  // namespace tsdsim

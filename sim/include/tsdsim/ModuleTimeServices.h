#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace tsdsim {

class ChildProcess;
class ModuleFiles;
class ModuleSandbox;

// What answers a module's time-service scripts.
enum class Services
{
    Recording,  // stand-ins that record each call (ScriptRecorder)
    Real,       // the reference scripts, real ptp4l and chronyd
};

// Where the real time services of the modules come from, and how their ptp4l
// runs (World::Options::services == Services::Real).
struct RealServices
{
    std::string scriptsDir;  // ptp4ladm.sh, start_ntpd.sh, stop_ntpd.sh (the build tree's)
    std::string ptp4l;       // /usr/sbin/ptp4l
    std::string pmc;         // /usr/sbin/pmc
    std::string chronyd;     // the private copy's chronyd
    // The announce timing of every ptp4l of the chain: the follower's and,
    // unless the chain file says otherwise, the serving one's. Empty: ptp4l's
    // own intervals.
    std::string ptp4lTiming;

    // Software time stamps (the simulated links have no clock of their own)
    // and never a clock adjustment, on the module's rear port.
    static const char* basePtp4lOptions() { return "-4 -S -i firewire0 --free_running 1"; }
    // The documented fast timing: four announce messages a second, a master
    // given up after two missed ones.
    static const char* fastTiming() { return "--logAnnounceInterval -2 --announceReceiptTimeout 2"; }
    // The serving options a module gets when the chain file gives none.
    std::string serverOptions() const;
};

// What a module's ptp4l does, as pmc reads it over the module's own ptp4l
// socket.
struct PtpView
{
    bool answered = false;
    std::string portState;    // "SLAVE", "MASTER", "LISTENING", ...
    std::uint64_t clock = 0;  // its own clock identity
    std::uint64_t grandmaster = 0;
    // It takes its time from grandmaster (a follower that chose it), or it is
    // the grandmaster the others follow.
    bool follows() const;
    bool serves() const;
};

// The real time services of one module: the reference scripts (behind the
// recording stand-ins, so that every call is still on record) with the
// module's own settings file, ptp4l and chronyd. Everything they start runs
// in the module's namespaces; the world reaps it (it is the subreaper of
// everything the scripts leave in the background) and kill() ends it.
//
// Files, in the module's directory:
//   services/tsd.default  the settings the scripts read (TSD_DEFAULTS)
//   services/ptp4l        the module's ptp4l: the simulated FireWire port
//                         has no hardware address for ptp4l to take its
//                         clock identity from, so it gets the one a card's
//                         EUI-64 would give, from the port's node id
class ModuleTimeServices
{
public:
    ModuleTimeServices(const RealServices& real, ModuleFiles& files, const ModuleSandbox& sandbox,
                       std::uint32_t uuid, std::uint64_t rearNodeId);

    // The clock identity of the module's ptp4l.
    std::uint64_t clockIdentity() const { return m_clockIdentity; }
    const std::string& defaultsFile() const { return m_defaults; }

    // Starts pmc inside the module; read() collects its answer.
    std::unique_ptr<ChildProcess> startQuery() const;
    static PtpView read(ChildProcess& query);

    // SIGKILL, by pid, to every process left in the module's network
    // namespace but the holder: the time services the scripts started.
    // Returns how many there were.
    int kill() const;

private:
    const RealServices& m_real;
    const ModuleSandbox& m_sandbox;
    std::uint64_t m_clockIdentity;
    std::string m_defaults;
};

// "00000a.7c31.000101" <-> 0x00000A7C31000101.
std::string clockIdentityText(std::uint64_t identity);
bool parseClockIdentity(const std::string& text, std::uint64_t& identity);

// Collects the services that the scripts started in the background and that
// ended: the world is their subreaper. Reaps only zombies that lead a session
// of their own (what the scripts start with setsid), never a child that a
// ChildProcess waits for.
void reapServices();

}  // namespace tsdsim

#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "tsdsim/Bus.h"
#include "tsdsim/LoopThread.h"
#include "tsdsim/Module.h"
#include "tsdsim/ModuleSetup.h"
#include "tsdsim/SimClock.h"

namespace tsdsim {

// A simulated chain of modules on one Linux machine (needs root): simulated
// FireWire buses, modules with their own namespaces, and the real velad, tsd
// and vela programs running inside them. Everything it makes it also takes
// down: destroying the World stops every process (tsd with SIGTERM first),
// ends the namespaces (the buses' bridges and veth pairs go with them) and
// removes its directory.
// Should the process die without that, the kernel still kills the children
// (parent-death signal) and with them the namespaces and devices.
//
// Typical use, in a test or in the tsdsim program:
//
//   tsdsim::World world;                       // binaries from the own directory
//   tsdsim::Bus& bus = world.addBus("chain");
//   tsdsim::ModuleSetup a; a.name = "a"; a.uuid = 0x000101;
//   tsdsim::Module& ma = world.addModule(a);
//   world.plug(ma, tsdsim::Side::Rear, bus);   // firewire0 of "a" on the bus
//   ...                                        // more modules
//   world.startAll({"-d"});                    // velad, watcher, fwdevd,
//                                              // tsdparamd, then tsd -d
//   bool ok = world.waitFor([&] { return ma.state("sync/master") == "0A7C31000102"; },
//                           std::chrono::seconds(20));
//   world.setCut(ma, tsdsim::Side::Rear, true); // unplug the cable
//   int status = ma.stopTsd(SIGTERM);          // wait status of the daemon
//
// Finer steps for daemon tests: Module::startVelad(), startPlatform(),
// startTsd(args), setParam(); observe with Module::state()/states()/events()
// (what the daemon published), syslog() (with priorities), scriptCalls() (the
// time-service scripts), runFile("timesync/ptp4l.cfg"), output("tsd"); reach
// in with Module::run() (a command inside the module), openSocket() or
// McastSocket (raw telegrams on a module's interface). Bus::setLoss(),
// setDuplicate(), setDelay() impair a bus. All of it needs root.
//
// Reachable devices follow the cabling: after every plug, cut or unplug the
// world rewrites each module's FireWire devices (ModuleDevices: one remote
// node per other uncut port on the buses of the module's uncut ports) and
// has its fwdevd look again, which then publishes one state
// "reachableDevices/<interface>/<node id>" per remote node.
//
// Threads: make the World and call it from one thread, and keep that thread
// alive as long as the World (children die with the thread that forked
// them). The world runs one LoopThread of its own for the relay and monitors.
class World
{
public:
    struct Options
    {
        // Where velad, vela and tsd are; empty: $TSDSIM_BIN_DIR when set,
        // else the directory of the running executable (build/bin).
        std::string binDir;
        // Base of the world's directory; empty: /tmp.
        std::string baseDir;
        // Where the shipped lists are (ptp4l-options, the ptp4l options
        // tsdparamd lets through); empty: the source tree's packaging/config
        // when it exists, else the installed one.
        std::string dataDir;
        // What answers the daemon's time-service scripts: recording
        // stand-ins (fast, the default), or the reference scripts with real
        // ptp4l and chronyd in every module (see ModuleTimeServices).
        Services services = Services::Recording;
        // Real services: the announce timing of every ptp4l.
        std::string ptp4lTiming = RealServices::fastTiming();
    };

    World();
    explicit World(const Options& options);
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    // Unique for this world (process id and a counter), used in names.
    const std::string& prefix() const { return m_prefix; }
    const std::string& dir() const { return m_dir; }
    const std::string& binDir() const { return m_binDir; }
    const std::string& dataDir() const { return m_dataDir; }
    LoopThread& io() { return *m_io; }
    // The time base of every record: seconds since the world began.
    const SimClock& clock() const { return m_clock; }
    std::chrono::steady_clock::time_point startTime() const { return m_clock.start(); }
    double now() const { return m_clock.now(); }

    Bus& addBus(const std::string& name);
    Bus* findBus(const std::string& name);
    // Builds the module (namespaces, files). Throws std::runtime_error.
    Module& addModule(const ModuleSetup& setup);
    Module* findModule(const std::string& name);
    const std::vector<std::unique_ptr<Module>>& modules() const { return m_modules; }
    const std::vector<std::unique_ptr<Bus>>& buses() const { return m_buses; }

    // Cabling. plug() creates the module's port on bus (once per side).
    void plug(Module& module, Side side, Bus& bus);
    // Cuts or restores the cable of one port.
    void setCut(Module& module, Side side, bool cut);
    bool isCut(const Module& module, Side side) const;
    // A whole module off the chain and back: all its cables.
    void unplug(Module& module);
    void replug(Module& module);
    // Moves the cable of one port to another bus (Module::movePort).
    void move(Module& module, Side side, Bus& to);

    // Recomputes every module's reachable devices, and has them published.
    void updateReachable();
    // The reachable-device paths a module should see with the present cabling.
    std::set<std::string> reachableFor(const Module& module) const;

    // Starts velad and what runs beside tsd (Module::startPlatform) in every
    // module, all side by side; false with the module and the reason in
    // error when one did not start.
    bool startPlatforms(std::string* error = nullptr);
    // Starts every module / stops them (in reverse).
    bool startAll(const std::vector<std::string>& tsdArgs = {});
    void stopAll();

    // Real services: what the programs are, and whether the world runs them.
    bool realServices() const { return m_options.services == Services::Real; }
    const RealServices& real() const { return m_real; }
    // Real services, before the daemons start: every module follows, and
    // serves no NTP, as tsd.service's preparation makes it on a module (tsd
    // starts believing it runs no time service). All modules side by side.
    void prepareTimeServices();
    // Asks every module's ptp4l (pmc, all side by side) what it follows and
    // keeps the answer in the module (Module::ptp()).
    void pollFollowed();
    // The module whose ptp4l the module's ptp4l takes its time from, itself
    // when it serves; nullptr when it follows none (or runs no real services).
    const Module* followed(const Module& module) const;

    // Keeps the programs beside tsd alive across velad restarts.
    void maintain();
    // Evaluates condition whenever a module recorded something new (a bus
    // event, a syslog line) and at least every 50 ms, calling maintain() in
    // between, until it holds or timeout passes.
    bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout);
    // Called from any thread (the modules' observers, on the loop thread)
    // when something was recorded: wakes waitFor().
    void notifyChange();

    // For programs: SIGINT/SIGTERM set a flag instead of killing the process,
    // so that the world's destructor still cleans up.
    static void installStopSignals();
    static bool stopRequested();

private:
    struct UncutPort
    {
        const Module* module;
        std::uint64_t nodeId;
    };
    using UncutPorts = std::map<const Bus*, std::vector<UncutPort>>;

    UncutPorts uncutPorts() const;
    ModuleDevices::Remote remoteFor(const Module& module, const UncutPorts& ports) const;

    Options m_options;
    RealServices m_real;
    std::string m_prefix;
    std::string m_dir;
    std::string m_binDir;
    std::string m_dataDir;
    SimClock m_clock;
    std::unique_ptr<LoopThread> m_io;
    std::vector<std::unique_ptr<Bus>> m_buses;
    std::vector<std::unique_ptr<Module>> m_modules;
    std::mutex m_changeMutex;  // guards m_changes
    std::condition_variable m_changed;
    std::uint64_t m_changes = 0;
};

}  // namespace tsdsim

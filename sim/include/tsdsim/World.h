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
// ends the namespaces, deletes the TAP devices and removes its directory.
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
//   world.startAll({"-d"});                    // velad, publisher, watcher,
//                                              // "sync/param", then tsd -d
//   bool ok = world.waitFor([&] { return ma.state("sync/master") == "0A7C31000102"; },
//                           std::chrono::seconds(20));
//   world.setCut(ma, tsdsim::Side::Rear, true); // unplug the cable
//   int status = ma.stopTsd(SIGTERM);          // wait status of the daemon
//
// Finer steps for daemon tests: Module::startVelad(), startBusClients(),
// setParam(), startTsd(args); observe with Module::state()/states()/events()
// (what the daemon published), syslog() (with priorities), scriptCalls() (the
// time-service scripts), runFile("timesync/ptp4l.cfg"), output("tsd"); reach
// in with Module::run() (a command inside the module), openSocket() or
// McastSocket (raw telegrams on a module's interface). Bus::setLoss(),
// setDuplicate(), setDelay() impair a bus. All of it needs root.
//
// Reachable devices follow the cabling: after every plug, cut or unplug the
// world republishes, on each module's bus, one state
// "reachableDevices/<interface>/<node id>" per other uncut port on the buses
// of the module's uncut ports.
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

    // Recomputes and republishes every module's reachable devices.
    void updateReachable();
    // The reachable-device paths a module should see with the present cabling.
    std::set<std::string> reachableFor(const Module& module) const;

    // Starts every module (in order) / stops them (in reverse).
    bool startAll(const std::vector<std::string>& tsdArgs = {});
    void stopAll();

    // Keeps publishers and watchers alive across velad restarts.
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
        std::string nodeId;  // as in reachable-device paths
    };
    using UncutPorts = std::map<const Bus*, std::vector<UncutPort>>;

    UncutPorts uncutPorts() const;
    std::set<std::string> reachableFor(const Module& module, const UncutPorts& ports) const;

    Options m_options;
    std::string m_prefix;
    std::string m_dir;
    std::string m_binDir;
    SimClock m_clock;
    std::unique_ptr<LoopThread> m_io;
    std::vector<std::unique_ptr<Bus>> m_buses;
    std::vector<std::unique_ptr<Module>> m_modules;
    std::mutex m_changeMutex;  // guards m_changes
    std::condition_variable m_changed;
    std::uint64_t m_changes = 0;
};

}  // namespace tsdsim

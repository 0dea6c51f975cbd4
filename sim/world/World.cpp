#include "tsdsim/World.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>

namespace tsdsim {

namespace {

std::atomic<bool> g_stopRequested{false};
std::atomic<int> g_worldCounter{0};

void onStopSignal(int)
{
    g_stopRequested = true;
}

std::string ownDirectory()
{
    char buf[4096];
    ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) {
        return ".";
    }
    std::string path(buf, static_cast<std::size_t>(n));
    return path.substr(0, path.rfind('/'));
}

}  // namespace

World::World() : World(Options{}) {}

World::World(const Options& options) : m_options(options)
{
    // A publisher that died leaves a pipe without reader; writing to it must
    // fail with EPIPE, not end the simulator.
    ::signal(SIGPIPE, SIG_IGN);
    m_prefix = "tsdsim-" + std::to_string(::getpid()) + "-" + std::to_string(g_worldCounter++);
    std::string base = options.baseDir.empty() ? "/tmp" : options.baseDir;
    m_dir = base + "/" + m_prefix;
    std::error_code ec;
    std::filesystem::remove_all(m_dir, ec);
    if (!std::filesystem::create_directories(m_dir, ec)) {
        throw std::runtime_error("tsdsim: cannot create " + m_dir + ": " + ec.message());
    }
    m_binDir = options.binDir;
    if (m_binDir.empty()) {
        const char* env = std::getenv("TSDSIM_BIN_DIR");
        m_binDir = env && *env ? env : ownDirectory();
    }
    m_io = std::make_unique<LoopThread>();
}

World::~World()
{
    stopAll();
    m_modules.clear();
    m_buses.clear();
    m_io.reset();
    std::error_code ec;
    std::filesystem::remove_all(m_dir, ec);
}

Bus& World::addBus(const std::string& name)
{
    if (findBus(name)) {
        throw std::runtime_error("tsdsim: bus " + name + " exists already");
    }
    // Bus numbers go into 169.254.<bus>.<module>: keep them in a byte.
    if (m_buses.size() >= 250) {
        throw std::runtime_error("tsdsim: too many buses");
    }
    m_buses.push_back(std::make_unique<Bus>(*m_io, name, static_cast<int>(m_buses.size()) + 1));
    return *m_buses.back();
}

Bus* World::findBus(const std::string& name)
{
    for (auto& b : m_buses) {
        if (b->name() == name) {
            return b.get();
        }
    }
    return nullptr;
}

Module& World::addModule(const ModuleSetup& setup)
{
    if (setup.name.empty() || setup.name.find('/') != std::string::npos || findModule(setup.name)) {
        throw std::runtime_error("tsdsim: bad or duplicate module name '" + setup.name + "'");
    }
    if (m_modules.size() >= 250) {
        throw std::runtime_error("tsdsim: too many modules");
    }
    m_modules.push_back(std::make_unique<Module>(*this, setup, static_cast<int>(m_modules.size()) + 1));
    return *m_modules.back();
}

Module* World::findModule(const std::string& name)
{
    for (auto& m : m_modules) {
        if (m->name() == name) {
            return m.get();
        }
    }
    return nullptr;
}

void World::plug(Module& module, Side side, Bus& bus)
{
    module.addInterface(side, bus);
    updateReachable();
}

void World::setCut(Module& module, Side side, bool cut)
{
    if (Bus* bus = module.bus(side)) {
        bus->setCut(module.portId(side), cut);
        updateReachable();
    }
}

bool World::isCut(const Module& module, Side side) const
{
    Bus* bus = module.bus(side);
    return !bus || bus->isCut(module.portId(side));
}

void World::unplug(Module& module)
{
    for (Side s : {Side::Rear, Side::Front}) {
        if (Bus* bus = module.bus(s)) {
            bus->setCut(module.portId(s), true);
        }
    }
    updateReachable();
}

void World::replug(Module& module)
{
    for (Side s : {Side::Rear, Side::Front}) {
        if (Bus* bus = module.bus(s)) {
            bus->setCut(module.portId(s), false);
        }
    }
    updateReachable();
}

void World::move(Module& module, Side side, Bus& to)
{
    module.movePort(side, to);
    updateReachable();
}

World::UncutPorts World::uncutPorts() const
{
    UncutPorts ports;
    for (const auto& m : m_modules) {
        for (Side side : {Side::Rear, Side::Front}) {
            if (Bus* bus = m->bus(side); bus && !bus->isCut(m->portId(side))) {
                ports[bus].push_back({m.get(), nodeIdText(m->setup().nodeId(side))});
            }
        }
    }
    return ports;
}

std::set<std::string> World::reachableFor(const Module& module, const UncutPorts& ports) const
{
    std::set<std::string> paths;
    for (Side side : {Side::Rear, Side::Front}) {
        Bus* bus = module.bus(side);
        const auto onBus = ports.find(bus);
        if (!bus || onBus == ports.end() || isCut(module, side)) {
            continue;
        }
        const std::string prefix = std::string("reachableDevices/") + interfaceName(side) + "/";
        for (const auto& port : onBus->second) {
            if (port.module != &module) {
                paths.insert(prefix + port.nodeId);
            }
        }
    }
    return paths;
}

std::set<std::string> World::reachableFor(const Module& module) const
{
    return reachableFor(module, uncutPorts());
}

void World::updateReachable()
{
    // The ports of each bus once, not once per module: with many modules a
    // cabling change would otherwise reach the last module's daemon late.
    const UncutPorts ports = uncutPorts();
    for (auto& m : m_modules) {
        m->setReachable(reachableFor(*m, ports));
    }
}

bool World::startAll(const std::vector<std::string>& tsdArgs)
{
    for (auto& m : m_modules) {
        if (!m->start(tsdArgs)) {
            return false;
        }
    }
    return true;
}

void World::stopAll()
{
    // SIGTERM to every daemon first, so that they wind down in parallel.
    for (auto& m : m_modules) {
        if (m->tsdRunning()) {
            ::kill(m->tsdPid(), SIGTERM);
        }
    }
    for (auto it = m_modules.rbegin(); it != m_modules.rend(); ++it) {
        (*it)->stop();
    }
}

void World::maintain()
{
    for (auto& m : m_modules) {
        m->maintain();
    }
}

void World::notifyChange()
{
    {
        std::lock_guard<std::mutex> lock(m_changeMutex);
        ++m_changes;
    }
    m_changed.notify_all();
}

bool World::waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
{
    // Files (scripts.log, /run) and processes change without a notice: look
    // at least this often.
    constexpr std::chrono::milliseconds kLookAgain{50};
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        // Counted before the look, so that a change during it is not slept over.
        std::uint64_t seen;
        {
            std::lock_guard<std::mutex> lock(m_changeMutex);
            seen = m_changes;
        }
        if (condition()) {
            return true;
        }
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline || g_stopRequested) {
            return false;
        }
        maintain();
        std::unique_lock<std::mutex> lock(m_changeMutex);
        m_changed.wait_until(lock, std::min(deadline, now + kLookAgain), [&] { return m_changes != seen; });
    }
}

void World::installStopSignals()
{
    struct sigaction sa
    {
    };
    sa.sa_handler = onStopSignal;
    sigemptyset(&sa.sa_mask);
    ::sigaction(SIGINT, &sa, nullptr);
    ::sigaction(SIGTERM, &sa, nullptr);
    ::sigaction(SIGHUP, &sa, nullptr);
}

bool World::stopRequested()
{
    return g_stopRequested;
}

}  // namespace tsdsim

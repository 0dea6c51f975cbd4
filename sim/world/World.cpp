#include "tsdsim/World.h"

#include <linux/capability.h>
#include <signal.h>
#include <sys/prctl.h>
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

// Collects ended time services on the loop, for as long as the loop runs.
void reapEvery(LoopThread& io)
{
    io.after(std::chrono::milliseconds(250), [&io] {
        reapServices();
        reapEvery(io);
    });
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
    m_dataDir = options.dataDir;
    if (m_dataDir.empty()) {
        m_dataDir = std::filesystem::exists(TSDSIM_SOURCE_DATA_DIR) ? TSDSIM_SOURCE_DATA_DIR
                                                                    : TSDSIM_INSTALLED_DATA_DIR;
    }

    m_io = std::make_unique<LoopThread>();

    if (realServices()) {
        m_real.scriptsDir = TSDSIM_SCRIPTS_DIR;
        m_real.ptp4l = "/usr/sbin/ptp4l";
        m_real.pmc = "/usr/sbin/pmc";
        const char* privateRoot = std::getenv("TSD_PRIVATE_ROOT");
        m_real.chronyd = std::string(privateRoot && *privateRoot ? privateRoot : TSDSIM_PRIVATE_ROOT) +
                         "/usr/sbin/chronyd";
        m_real.ptp4lTiming = options.ptp4lTiming;
        for (const std::string& program : {m_real.scriptsDir + "/ptp4ladm.sh", m_real.ptp4l, m_real.pmc,
                                           m_real.chronyd}) {
            if (::access(program.c_str(), X_OK) != 0) {
                throw std::runtime_error("tsdsim: real services need " + program);
            }
        }
        // No simulated module may ever set this machine's clock: nothing
        // started from here on can gain the right to, whatever it is asked.
        if (::prctl(PR_CAPBSET_DROP, CAP_SYS_TIME, 0, 0, 0) != 0) {
            throw std::runtime_error("tsdsim: cannot give up the right to set the clock");
        }
        // The scripts start ptp4l and chronyd in the background and leave
        // them; they come back to the simulator, which collects them.
        ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
        reapEvery(*m_io);
    }
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
    ModuleSetup own = setup;
    // The shipped serving options need hardware time stamps, which the
    // simulated links do not have.
    if (realServices() && own.param.ptp4l == SyncParam{}.ptp4l) {
        own.param.ptp4l = m_real.serverOptions();
    }
    m_modules.push_back(std::make_unique<Module>(*this, own, static_cast<int>(m_modules.size()) + 1));
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
                ports[bus].push_back({m.get(), m->setup().nodeId(side)});
            }
        }
    }
    return ports;
}

ModuleDevices::Remote World::remoteFor(const Module& module, const UncutPorts& ports) const
{
    ModuleDevices::Remote remote;
    for (Side side : {Side::Rear, Side::Front}) {
        Bus* bus = module.bus(side);
        const auto onBus = ports.find(bus);
        if (!bus || onBus == ports.end() || isCut(module, side)) {
            continue;
        }
        for (const auto& port : onBus->second) {
            if (port.module != &module) {
                remote[side].insert(port.nodeId);
            }
        }
    }
    return remote;
}

std::set<std::string> World::reachableFor(const Module& module) const
{
    std::set<std::string> paths;
    for (const auto& [side, nodes] : remoteFor(module, uncutPorts())) {
        for (std::uint64_t node : nodes) {
            paths.insert(reachablePath(side, node));
        }
    }
    return paths;
}

void World::updateReachable()
{
    // The ports of each bus once, not once per module: with many modules a
    // cabling change would otherwise reach the last module's daemon late.
    const UncutPorts ports = uncutPorts();
    for (auto& m : m_modules) {
        m->setReachable(remoteFor(*m, ports));
    }
}

bool World::startPlatforms(std::string* error)
{
    // Each step in every module before the next: the programs start and get
    // ready side by side, not one module after the other.
    const auto failed = [&](const Module& m) {
        if (error) {
            *error = m.name() + ": " + m.startError();
        }
        return false;
    };
    for (auto& m : m_modules) {
        if (!m->launchVelad()) {
            return failed(*m);
        }
    }
    for (auto& m : m_modules) {
        if (!m->startVelad() || !m->launchPlatform()) {
            return failed(*m);
        }
    }
    for (auto& m : m_modules) {
        if (!m->awaitPlatform()) {
            return failed(*m);
        }
    }
    return true;
}

bool World::startAll(const std::vector<std::string>& tsdArgs)
{
    if (!startPlatforms()) {
        return false;
    }
    prepareTimeServices();
    for (auto& m : m_modules) {
        if (!m->startTsd(tsdArgs)) {
            return false;
        }
    }
    return true;
}

void World::prepareTimeServices()
{
    if (!realServices()) {
        return;
    }
    std::vector<std::unique_ptr<ChildProcess>> running;
    for (auto& m : m_modules) {
        running.push_back(m->launchServicePreparation());
    }
    for (std::size_t i = 0; i < running.size(); ++i) {
        m_modules[i]->finishServicePreparation(running[i].get());
    }
}

void World::pollFollowed()
{
    if (!realServices()) {
        return;
    }
    std::vector<std::unique_ptr<ChildProcess>> queries;
    for (auto& m : m_modules) {
        queries.push_back(m->timeServices()->startQuery());
    }
    for (std::size_t i = 0; i < queries.size(); ++i) {
        m_modules[i]->setPtp(queries[i] ? ModuleTimeServices::read(*queries[i]) : PtpView{});
    }
}

const Module* World::followed(const Module& module) const
{
    const PtpView& view = module.ptp();
    if (view.serves()) {
        return &module;
    }
    if (!view.follows()) {
        return nullptr;
    }
    for (const auto& m : m_modules) {
        if (m->timeServices() && m->timeServices()->clockIdentity() == view.grandmaster) {
            return m.get();
        }
    }
    return nullptr;
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

#include "tsdsim/Module.h"

#include <cstdio>
#include <stdexcept>

#include "tsdsim/Bus.h"
#include "tsdsim/World.h"

namespace tsdsim {

namespace {
// Where every module's velad listens, inside the module's namespace.
constexpr unsigned kBusPort = 11122;
}  // namespace

Module::Module(World& world, const ModuleSetup& setup, int index)
    : m_world(world),
      m_setup(setup),
      m_index(index),
      m_files(world.dir() + "/" + setup.name, setup),
      m_scripts(world.io(), world.clock(), m_files, [&world] { world.notifyChange(); }),
      m_syslog(world.io(), world.clock(), m_files.logSocket(), [&world] { world.notifyChange(); }),
      m_sandbox(setup.name, m_files),
      m_observer(world.io(), world.clock(), [&world] { world.notifyChange(); }),
      m_publisher(world.io(), setup.param),
      m_processes(m_sandbox)
{
    declarePrograms();
}

Module::~Module()
{
    stop();
    detachPorts();
}

// The module's programs, in the order they start; they stop in reverse.
void Module::declarePrograms()
{
    const std::string& bin = m_world.binDir();

    ModuleProcesses::Program velad;
    velad.name = "velad";
    velad.argv = {bin + "/velad"};
    velad.ready = [this] { return m_sandbox.tcpReachable(kBusPort); };
    m_processes.declare(velad);

    ModuleProcesses::Program publisher;
    publisher.name = "publisher";
    publisher.argv = {bin + "/vela", "own"};
    publisher.pipeStdin = true;
    publisher.pipeStdout = true;
    // Closing its stdin (in detach) ends `vela own`; its states go with it.
    publisher.stopSignal = 0;
    publisher.stopTimeout = std::chrono::milliseconds(2000);
    publisher.keepAlive = true;
    publisher.needs = "velad";
    publisher.started = [this](ChildProcess& p) { m_publisher.attach(p); };
    publisher.stopping = [this](ChildProcess&) { m_publisher.detach(); };
    m_processes.declare(publisher);

    ModuleProcesses::Program watcher;
    watcher.name = "watcher";
    watcher.argv = {bin + "/vela", "watch", "sync/"};
    watcher.pipeStdout = true;
    watcher.stopTimeout = std::chrono::milliseconds(1000);
    watcher.keepAlive = true;
    watcher.needs = "velad";
    watcher.started = [this](ChildProcess& p) { m_observer.attach(p.stdoutFd()); };
    watcher.stopping = [this](ChildProcess&) { m_observer.detach(); };
    m_processes.declare(watcher);

    ModuleProcesses::Program tsd;
    tsd.name = "tsd";
    tsd.argv = {bin + "/tsd"};
    char uuid[16];
    std::snprintf(uuid, sizeof uuid, "%06x", m_setup.uuid & 0xFFFFFFu);
    tsd.env = {std::string("UUID=") + uuid};
    m_processes.declare(tsd);
}

void Module::detachPorts()
{
    for (auto& p : m_ports) {
        if (p.bus) {
            p.bus->detach(p.portId);
            p.bus = nullptr;
        }
    }
}

void Module::addInterface(Side side, Bus& bus)
{
    Port& port = m_ports[static_cast<int>(side)];
    if (port.bus) {
        throw std::runtime_error("tsdsim: module " + name() + " has its " + sideName(side) + " port already");
    }
    std::string address = "169.254." + std::to_string(bus.index()) + "." + std::to_string(m_index);
    int fd = m_sandbox.addInterface(interfaceName(side), address, m_setup.nodeId(side));
    port.bus = &bus;
    port.address = address;
    port.portId = bus.attach(fd, name() + "." + sideName(side));
}

void Module::movePort(Side side, Bus& to)
{
    Port& port = m_ports[static_cast<int>(side)];
    if (!port.bus) {
        throw std::runtime_error("tsdsim: module " + name() + " has no " + sideName(side) + " port");
    }
    if (port.bus == &to) {
        return;
    }
    const bool cut = port.bus->isCut(port.portId);
    const int fd = port.bus->release(port.portId);
    port.bus = &to;
    port.portId = to.attach(fd, name() + "." + sideName(side));
    to.setCut(port.portId, cut);
}

bool Module::hasInterface(Side side) const
{
    return m_ports[static_cast<int>(side)].bus != nullptr;
}
Bus* Module::bus(Side side) const
{
    return m_ports[static_cast<int>(side)].bus;
}
int Module::portId(Side side) const
{
    return m_ports[static_cast<int>(side)].portId;
}
std::string Module::address(Side side) const
{
    return m_ports[static_cast<int>(side)].address;
}

bool Module::start(const std::vector<std::string>& tsdArgs)
{
    if (!startVelad() || !startBusClients()) {
        return false;
    }
    if (m_setup.publishParam && !m_publisher.paramPublished()) {
        m_publisher.setParam(m_publisher.param());
    }
    waitPublished(std::chrono::seconds(5));
    return startTsd(tsdArgs);
}

void Module::stop()
{
    m_processes.stopAll();
    // Whatever the watcher recorded belonged to that broker.
    m_observer.forgetStates();
}

bool Module::startVelad()
{
    if (veladRunning()) {
        return true;
    }
    if (!m_processes.start("velad")) {
        return false;
    }
    // A watcher that lived through the broker's death would show only what
    // changed across it (its peer hides the break), while the record was
    // cleared with the old broker: watch afresh.
    return !m_processes.wanted("watcher") || m_processes.restart("watcher");
}

bool Module::startBusClients()
{
    return m_processes.restart("publisher") && m_processes.restart("watcher");
}

void Module::stopVelad(int sig)
{
    m_processes.stop("velad", sig, std::chrono::seconds(5));
    // Whatever the watcher recorded belonged to that broker.
    m_observer.forgetStates();
}

bool Module::veladRunning()
{
    return m_processes.running("velad");
}

bool Module::startTsd(const std::vector<std::string>& args)
{
    return m_processes.start("tsd", args);
}

int Module::stopTsd(int sig, std::chrono::milliseconds timeout)
{
    return m_processes.stop("tsd", sig, timeout);
}

bool Module::tsdRunning()
{
    return m_processes.running("tsd");
}

void Module::maintain()
{
    m_processes.maintain();
}

}  // namespace tsdsim

#include "tsdsim/Module.h"

#include <json/reader.h>
#include <json/writer.h>
#include <sys/wait.h>
#include <syslog.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

#include "tsdsim/Bus.h"
#include "tsdsim/World.h"

namespace tsdsim {

namespace {
// Where every module's velad listens, inside the module's namespace.
constexpr unsigned kBusPort = 11122;
// An operator's set request gets its answer long before this.
constexpr std::chrono::milliseconds kSetTimeout{5000};

std::string compact(const Json::Value& v)
{
    Json::StreamWriterBuilder b;
    b["indentation"] = "";
    return Json::writeString(b, v);
}

std::string trimmed(std::string text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

// The keys of "sync/param" that the simulator knows, as tsdparamd answered them.
void takeParam(const Json::Value& value, SyncParam& param)
{
    if (!value.isObject()) {
        return;
    }
    if (value["timesource"].isString()) {
        param.timesource = value["timesource"].asString();
    }
    if (value["threshold"].isNumeric()) {
        param.threshold = value["threshold"].asDouble();
    }
    if (value["ptp4l"].isString()) {
        param.ptp4l = value["ptp4l"].asString();
    }
    if (value["ntpserver"].isString()) {
        param.ntpserver = value["ntpserver"].asString();
    }
}

}  // namespace

Module::Module(World& world, const ModuleSetup& setup, int index)
    : m_world(world),
      m_setup(setup),
      m_index(index),
      m_files(world.dir() + "/" + setup.name, setup),
      m_scripts(world.io(), world.clock(), m_files, [&world] { world.notifyChange(); }),
      m_syslog(world.io(), world.clock(), m_files.logSocket(), [&world] { world.notifyChange(); }),
      m_sandbox(setup.name, m_files),
      m_devices(m_files.sysfsDir()),
      m_observer(world.io(), world.clock(), [&world] { world.notifyChange(); }),
      m_param(setup.param),
      m_processes(m_sandbox)
{
    if (world.realServices()) {
        m_timeServices = std::make_unique<ModuleTimeServices>(world.real(), m_files, m_sandbox, setup.uuid,
                                                              setup.nodeId(Side::Rear));
        m_scripts.passTo(world.real().scriptsDir, m_timeServices->defaultsFile());
    }
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

    // Every state of the bus: what the daemon publishes and what it follows.
    ModuleProcesses::Program watcher;
    watcher.name = "watcher";
    watcher.argv = {bin + "/vela", "watch"};
    watcher.pipeStdout = true;
    watcher.stopTimeout = std::chrono::milliseconds(1000);
    watcher.keepAlive = true;
    watcher.needs = "velad";
    watcher.started = [this](ChildProcess& p) { m_observer.attach(p.stdoutFd()); };
    watcher.stopping = [this](ChildProcess&) { m_observer.detach(); };
    m_processes.declare(watcher);

    ModuleProcesses::Program fwdevd;
    fwdevd.name = "fwdevd";
    fwdevd.argv = {bin + "/fwdevd", "--sysfs", m_devices.root()};
    // Ready once its first picture is on the bus; afterwards it may be told
    // (SIGHUP) to look again, which its signal handling is then in place for.
    fwdevd.ready = [this] { return devicesShown(); };
    fwdevd.keepAlive = true;
    fwdevd.needs = "velad";
    m_processes.declare(fwdevd);

    ModuleProcesses::Program tsdparamd;
    tsdparamd.name = "tsdparamd";
    tsdparamd.argv = {bin + "/tsdparamd",
                      "--state-file",
                      m_files.paramStateFile(),
                      "--defaults",
                      ModuleFiles::paramDefaultsInside(),
                      "--config",
                      "/etc/TimeSourceDaemonConfig.xml",
                      "--ptp4l-options",
                      m_world.dataDir() + "/ptp4l-options"};
    tsdparamd.ready = [this] { return !m_observer.state("sync/param").isNull(); };
    tsdparamd.keepAlive = true;
    tsdparamd.needs = "velad";
    m_processes.declare(tsdparamd);

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
    const int portId = bus.attach(m_sandbox.netnsFd(), interfaceName(side), name() + "." + sideName(side));
    try {
        m_sandbox.addInterface(interfaceName(side), address, m_setup.nodeId(side));
        m_devices.addCard(side, m_setup.nodeId(side));
    } catch (...) {
        bus.detach(portId);
        throw;
    }
    port.bus = &bus;
    port.address = address;
    port.portId = portId;
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
    port.portId = port.bus->moveTo(port.portId, to, name() + "." + sideName(side));
    port.bus = &to;
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
    return startVelad() && startPlatform() && startTsd(tsdArgs);
}

void Module::stop()
{
    m_processes.stopAll();
    if (m_timeServices) {
        // A script killed halfway may have forked its service just before:
        // look again until a pass finds nothing left in the module.
        for (int pass = 0; pass < 10 && m_timeServices->kill() > 0; ++pass) {
        }
        m_servicesPrepared = false;
    }
    // Whatever the watcher recorded belonged to that broker.
    m_observer.forgetStates();
}

bool Module::startVelad()
{
    if (m_processes.ready("velad")) {
        return true;
    }
    if (!m_processes.start("velad")) {
        m_startError = "velad: " + m_processes.error("velad");
        return false;
    }
    // A watcher that lived through the broker's death would show only what
    // changed across it (its peer hides the break), while the record was
    // cleared with the old broker: watch afresh.
    return !m_processes.wanted("watcher") || m_processes.restart("watcher");
}

bool Module::startPlatform()
{
    return launchPlatform() && awaitPlatform();
}

bool Module::launchPlatform()
{
    m_startError.clear();
    // The watcher first and afresh: the others are ready once it has seen
    // their states.
    std::vector<std::string> programs{"fwdevd"};
    if (m_setup.publishParam) {
        programs.push_back("tsdparamd");
    }
    if (!m_processes.restart("watcher")) {
        m_startError = "watcher: " + m_processes.error("watcher");
        return false;
    }
    for (const std::string& program : programs) {
        if (!m_processes.launch(program)) {
            m_startError = program + ": " + m_processes.error(program);
            return false;
        }
    }
    return true;
}

bool Module::awaitPlatform()
{
    for (const char* program : {"fwdevd", "tsdparamd"}) {
        if (!m_processes.wanted(program)) {
            continue;
        }
        if (!m_processes.awaitReady(program)) {
            m_startError = std::string(program) + ": " + m_processes.error(program);
            return false;
        }
    }
    // tsdparamd shows its built-in values when the module's own do not pass
    // its checks: the module would not be what its setup says.
    if (m_setup.publishParam && m_observer.state("sync/param") != m_param.toJson()) {
        m_startError = "tsdparamd did not take the module's parameters " + compact(m_param.toJson());
        for (const auto& line : m_syslog.lines()) {
            if (line.ident == "tsdparamd" && line.priority <= LOG_ERR) {
                m_startError += ": " + line.text;
            }
        }
        return false;
    }
    return true;
}

bool Module::launchVelad()
{
    return m_processes.launch("velad");
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

Module::ParamAnswer Module::setParam(const Json::Value& keys)
{
    ChildProcess::Options o =
        m_sandbox.childOptions({m_world.binDir() + "/vela", "set", "sync/param", compact(keys)}, "vela");
    // vela tells why a request failed on its standard error.
    o.stderrToStdout = true;
    std::string out;
    const int status = ChildProcess::run(o, &out, kSetTimeout);
    ParamAnswer answer;
    if (status < 0) {
        answer.message = "no answer within " + std::to_string(kSetTimeout.count() / 1000) + " s";
        return answer;
    }
    out = trimmed(out);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        const std::string prefix = "vela: ";
        answer.message = out.rfind(prefix, 0) == 0 ? out.substr(prefix.size()) : out;
        return answer;
    }
    // The answer is the value tsdparamd now shows.
    Json::Value value;
    Json::CharReaderBuilder b;
    std::unique_ptr<Json::CharReader> r(b.newCharReader());
    std::string errors;
    if (r->parse(out.data(), out.data() + out.size(), &value, &errors)) {
        takeParam(value, m_param);
    }
    answer.accepted = true;
    return answer;
}

void Module::setReachable(const ModuleDevices::Remote& remote)
{
    m_devices.setRemote(remote);
    // fwdevd reads the tree at its start; a running one is told to look again,
    // as the kernel's device events would tell it on a module.
    if (m_processes.running("fwdevd")) {
        m_processes.signal("fwdevd", SIGHUP);
    }
}

bool Module::devicesShown() const
{
    const auto shown = m_observer.states("reachableDevices/");
    const auto& wanted = m_devices.paths();
    if (shown.size() != wanted.size()) {
        return false;
    }
    for (const auto& s : shown) {
        if (!wanted.count(s.first)) {
            return false;
        }
    }
    return true;
}

std::string Module::unpublished() const
{
    std::string why;
    if (!devicesShown()) {
        std::string shown;
        for (const auto& s : m_observer.states("reachableDevices/")) {
            shown += " " + s.first;
        }
        std::string wanted;
        for (const auto& p : m_devices.paths()) {
            wanted += " " + p;
        }
        why = "the bus shows devices [" + shown + " ], the cabling gives [" + wanted + " ]";
    }
    if (m_setup.publishParam && m_observer.state("sync/param").isNull()) {
        why += std::string(why.empty() ? "" : "; ") + "no sync/param on the bus";
    }
    return why;
}

bool Module::waitPublished(std::chrono::milliseconds timeout)
{
    return m_world.waitFor([this] { return unpublished().empty(); }, timeout);
}

std::unique_ptr<ChildProcess> Module::launchServicePreparation()
{
    if (!m_timeServices) {
        return nullptr;
    }
    auto preparation = std::make_unique<ChildProcess>();
    // Both lines may fail (as "-" lines of the unit may): tsd starts anyway.
    if (!preparation->start(m_sandbox.childOptions(
            {"/bin/sh", "-c", "/bin/ptp4ladm.sh stop; /bin/stop_ntpd.sh"}, "preparation"))) {
        return nullptr;
    }
    return preparation;
}

void Module::finishServicePreparation(ChildProcess* preparation)
{
    if (preparation) {
        // Every script call ends within 5 s.
        preparation->wait(std::chrono::milliseconds(11000));
    }
    m_servicesPrepared = true;
}

bool Module::startTsd(const std::vector<std::string>& args)
{
    if (m_timeServices && !m_servicesPrepared) {
        finishServicePreparation(launchServicePreparation().get());
    }
    m_servicesPrepared = false;
    if (!m_processes.start("tsd", args)) {
        m_startError = "tsd: " + m_processes.error("tsd");
        return false;
    }
    return true;
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

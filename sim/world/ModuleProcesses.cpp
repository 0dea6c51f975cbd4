#include "tsdsim/ModuleProcesses.h"

#include <algorithm>
#include <stdexcept>
#include <thread>

#include "tsdsim/ModuleSandbox.h"

namespace tsdsim {

ModuleProcesses::ModuleProcesses(const ModuleSandbox& sandbox) : m_sandbox(sandbox) {}

ModuleProcesses::~ModuleProcesses()
{
    stopAll();
}

void ModuleProcesses::declare(Program program)
{
    for (const auto& e : m_entries) {
        if (e.program.name == program.name) {
            throw std::logic_error("tsdsim: program " + program.name + " declared twice");
        }
    }
    Entry e;
    e.program = std::move(program);
    m_entries.push_back(std::move(e));
}

ModuleProcesses::Entry& ModuleProcesses::entry(const std::string& name)
{
    auto it = std::find_if(m_entries.begin(), m_entries.end(),
                           [&](const Entry& e) { return e.program.name == name; });
    if (it == m_entries.end()) {
        throw std::logic_error("tsdsim: no program " + name);
    }
    return *it;
}

const ModuleProcesses::Entry& ModuleProcesses::entry(const std::string& name) const
{
    return const_cast<ModuleProcesses*>(this)->entry(name);
}

void ModuleProcesses::letGo(Entry& e)
{
    if (e.attached) {
        e.attached = false;
        if (e.program.stopping) {
            e.program.stopping(*e.process);
        }
    }
}

bool ModuleProcesses::start(const std::string& name, const std::vector<std::string>& extraArgs)
{
    return launch(name, extraArgs) && awaitReady(name);
}

bool ModuleProcesses::launch(const std::string& name, const std::vector<std::string>& extraArgs)
{
    Entry& e = entry(name);
    if (e.process && e.process->running()) {
        return true;
    }
    letGo(e);
    const Program& p = e.program;
    std::vector<std::string> argv = p.argv;
    argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
    ChildProcess::Options o = m_sandbox.childOptions(argv, p.name);
    o.env = p.env;
    o.pipeStdin = p.pipeStdin;
    o.pipeStdout = p.pipeStdout;
    e.process = std::make_unique<ChildProcess>();
    e.error.clear();
    if (!e.process->start(o)) {
        e.error = e.process->error();
        return false;
    }
    e.wanted = true;
    e.launched = std::chrono::steady_clock::now();
    return true;
}

bool ModuleProcesses::awaitReady(const std::string& name)
{
    Entry& e = entry(name);
    if (!e.process || !e.wanted) {
        if (e.error.empty()) {
            e.error = "not started";
        }
        return false;
    }
    if (e.attached) {
        return true;
    }
    const Program& p = e.program;
    if (p.ready) {
        const auto deadline = e.launched + p.readyTimeout;
        while (!p.ready()) {
            if (!e.process->running()) {
                e.error = "ended before it was ready";
                return false;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                e.error = "not ready in time";
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    if (p.started) {
        p.started(*e.process);
    }
    e.attached = true;
    return true;
}

bool ModuleProcesses::restart(const std::string& name, const std::vector<std::string>& extraArgs)
{
    stop(name);
    return start(name, extraArgs);
}

int ModuleProcesses::stop(const std::string& name, int sig, std::chrono::milliseconds timeout)
{
    Entry& e = entry(name);
    e.wanted = false;
    if (!e.process) {
        return -1;
    }
    letGo(e);
    if (!e.process->running()) {
        return e.process->status();
    }
    if (sig != 0) {
        e.process->signal(sig);
    }
    const int status = e.process->wait(timeout);
    if (status < 0) {
        e.process->stop(std::chrono::milliseconds(0));
        return -1;
    }
    return status;
}

int ModuleProcesses::stop(const std::string& name)
{
    const Program& p = entry(name).program;
    return stop(name, p.stopSignal, p.stopTimeout);
}

void ModuleProcesses::stopAll()
{
    for (auto it = m_entries.rbegin(); it != m_entries.rend(); ++it) {
        stop(it->program.name);
    }
}

bool ModuleProcesses::signal(const std::string& name, int sig)
{
    Entry& e = entry(name);
    return e.process && e.process->signal(sig);
}

bool ModuleProcesses::running(const std::string& name)
{
    Entry& e = entry(name);
    return e.process && e.process->running();
}

bool ModuleProcesses::ready(const std::string& name)
{
    return running(name) && entry(name).attached;
}

bool ModuleProcesses::wanted(const std::string& name) const
{
    return entry(name).wanted;
}

pid_t ModuleProcesses::pid(const std::string& name) const
{
    const Entry& e = entry(name);
    return e.process ? e.process->pid() : -1;
}

std::string ModuleProcesses::error(const std::string& name) const
{
    return entry(name).error;
}

void ModuleProcesses::maintain()
{
    for (auto& e : m_entries) {
        const Program& p = e.program;
        if (p.keepAlive && e.wanted && e.process && !e.process->running() &&
            (p.needs.empty() || running(p.needs))) {
            restart(p.name);
        }
    }
}

}  // namespace tsdsim

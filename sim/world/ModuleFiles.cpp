#include "tsdsim/ModuleFiles.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tsdsim {

namespace {

void writeFile(const std::string& path, const std::string& content, mode_t mode = 0644)
{
    std::ofstream out(path, std::ios::trunc | std::ios::binary);
    out << content;
    out.close();
    if (!out) {
        throw std::runtime_error("tsdsim: cannot write " + path);
    }
    ::chmod(path.c_str(), mode);
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void makeDir(const std::string& path)
{
    if (::mkdir(path.c_str(), 0755) < 0 && errno != EEXIST) {
        throw std::runtime_error("tsdsim: cannot create " + path + ": " + std::strerror(errno));
    }
}

}  // namespace

const std::vector<std::string>& ModuleFiles::scriptNames()
{
    static const std::vector<std::string> names{"ptp4ladm.sh", "start_ntpd.sh", "stop_ntpd.sh"};
    return names;
}

ModuleFiles::ModuleFiles(std::string dir, const ModuleSetup& setup, SimClock clock)
    : m_dir(std::move(dir)), m_clock(clock)
{
    makeDir(m_dir);
    for (const char* d : {"etc-up", "etc-work", "bin-up", "bin-work", "run", "realproc", "realdev",
                          "device-tree", "device-tree/stratova", "ids", "status", "run/timesync"}) {
        makeDir(path(d));
    }
    writeFile(path("etc-up/TimeSourceDaemonConfig.xml"), setup.configFile());
    writeFile(path("TimeSourceDaemonConfig.xml"), setup.configFile());
    // The device tree ends its strings with a NUL byte.
    writeFile(path("device-tree/stratova/moduletype"), setup.type + std::string(1, '\0'));
    writeRecorderScripts();
}

std::string ModuleFiles::path(const std::string& relative) const
{
    return m_dir + "/" + relative;
}

std::string ModuleFiles::overlayOptions(const std::string& lowerDir, const std::string& name) const
{
    return "lowerdir=" + lowerDir + ",upperdir=" + path(name + "-up") + ",workdir=" + path(name + "-work");
}

void ModuleFiles::writeRecorderScripts()
{
    writeFile(path("scripts.log"), "");
    for (const std::string& s : scriptNames()) {
        const std::string script =
            "#!/bin/sh\n"
            "# Stand-in for a time service: records the call and answers with the\n"
            "# status the simulator set for it.\n"
            "echo \"$(date +%s%3N) " +
            s + " $*\" >> '" + path("scripts.log") + "'\n" + "st=$(cat '" + path("status/" + s) +
            "' 2>/dev/null)\n" + "exit ${st:-0}\n";
        writeFile(path("bin-up/" + s), script, 0755);
    }
}

std::string ModuleFiles::writeNodeId(const std::string& ifname, std::uint64_t nodeId)
{
    const std::string file = path("ids/" + ifname + ".address");
    writeFile(file, nodeIdAddress(nodeId) + "\n");
    return file;
}

void ModuleFiles::setScriptStatus(const std::string& script, int status)
{
    writeFile(path("status/" + script), std::to_string(status) + "\n");
}

std::vector<ModuleFiles::ScriptCall> ModuleFiles::scriptCalls() const
{
    std::vector<ScriptCall> calls;
    std::istringstream in(readFile(path("scripts.log")));
    const long long startMs = m_clock.startEpochMs();
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream l(line);
        ScriptCall c;
        l >> c.epochMs >> c.script;
        std::getline(l, c.args);
        if (!c.args.empty() && c.args[0] == ' ') {
            c.args.erase(0, 1);
        }
        c.time = static_cast<double>(c.epochMs - startMs) / 1000.0;
        calls.push_back(c);
    }
    return calls;
}

std::string ModuleFiles::output(const std::string& program) const
{
    return readFile(outputFile(program));
}

std::string ModuleFiles::runFile(const std::string& relative) const
{
    return readFile(path("run/" + relative));
}

}  // namespace tsdsim

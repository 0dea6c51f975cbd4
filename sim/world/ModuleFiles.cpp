#include "tsdsim/ModuleFiles.h"

#include <json/writer.h>
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

// Indented, as an operator would write the file.
std::string paramText(const Json::Value& value)
{
    Json::StreamWriterBuilder b;
    b["indentation"] = "  ";
    return Json::writeString(b, value) + "\n";
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

ModuleFiles::ModuleFiles(std::string dir, const ModuleSetup& setup) : m_dir(std::move(dir))
{
    makeDir(m_dir);
    for (const char* d :
         {"etc-up", "etc-work", "bin-up", "bin-work", "run", "realproc", "realdev", "device-tree",
          "device-tree/stratova", "ids", "status", "run/timesync", "etc-up/tsd", "state"}) {
        makeDir(path(d));
    }
    writeFile(path("etc-up/TimeSourceDaemonConfig.xml"), setup.configFile());
    writeFile(path("TimeSourceDaemonConfig.xml"), setup.configFile());
    writeFile(path("etc-up/tsd/param.json"), paramText(setup.param.toJson()));
    // The device tree ends its strings with a NUL byte.
    writeFile(path("device-tree/stratova/moduletype"), setup.type + std::string(1, '\0'));
}

std::string ModuleFiles::path(const std::string& relative) const
{
    return m_dir + "/" + relative;
}

std::string ModuleFiles::overlayOptions(const std::string& lowerDir, const std::string& name) const
{
    return "lowerdir=" + lowerDir + ",upperdir=" + path(name + "-up") + ",workdir=" + path(name + "-work");
}

std::string ModuleFiles::writeNodeId(const std::string& ifname, std::uint64_t nodeId)
{
    const std::string file = path("ids/" + ifname + ".address");
    writeFile(file, nodeIdAddress(nodeId) + "\n");
    return file;
}

std::string ModuleFiles::writeLinkType(const std::string& ifname)
{
    const std::string file = path("ids/" + ifname + ".type");
    writeFile(file, "24\n");
    return file;
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

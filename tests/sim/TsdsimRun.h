#pragma once

#include <gtest/gtest.h>
#include <json/reader.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "testsupport/ChildProcess.h"
#include "tsdsim/ChildProcess.h"

// Helpers for the tests that run the tsdsim program as a user does.
namespace simtest {

// World directories of the simulator process pid (other simulators may run
// beside the test).
inline std::set<std::string> worldDirs(pid_t pid)
{
    std::set<std::string> dirs;
    const std::string prefix = "tsdsim-" + std::to_string(pid) + "-";
    for (const auto& e : std::filesystem::directory_iterator("/tmp")) {
        if (e.path().filename().string().rfind(prefix, 0) == 0) {
            dirs.insert(e.path().string());
        }
    }
    return dirs;
}

// Runs tsdsim with args; stdout collected, stderr into errFile; pid tells
// the caller which directories were the simulator's.
inline int runTsdsim(const std::vector<std::string>& args, std::string* out, const std::string& errFile,
                     pid_t* pid = nullptr, std::chrono::milliseconds timeout = std::chrono::seconds(120))
{
    tsdsim::ChildProcess::Options o;
    o.argv = {testsupport::binDir() + "/tsdsim"};
    o.argv.insert(o.argv.end(), args.begin(), args.end());
    o.outputFile = errFile;
    o.pipeStdout = true;
    tsdsim::ChildProcess sim;
    if (!sim.start(o)) {
        return -1;
    }
    if (pid) {
        *pid = sim.pid();
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    char buf[4096];
    for (;;) {
        ssize_t n;
        while ((n = ::read(sim.stdoutFd(), buf, sizeof buf)) > 0) {
            out->append(buf, static_cast<std::size_t>(n));
        }
        if (!sim.running()) {
            while ((n = ::read(sim.stdoutFd(), buf, sizeof buf)) > 0) {
                out->append(buf, static_cast<std::size_t>(n));
            }
            return sim.status();
        }
        if (std::chrono::steady_clock::now() > deadline) {
            return sim.stop();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

inline std::string readAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline bool parseJson(const std::string& text, Json::Value& value, std::string& errors)
{
    Json::CharReaderBuilder b;
    std::unique_ptr<Json::CharReader> r(b.newCharReader());
    return r->parse(text.data(), text.data() + text.size(), &value, &errors);
}

// A path under /tmp, removed (with everything below it) when the test ends.
class TempPath
{
public:
    explicit TempPath(const std::string& tag)
        : m_path("/tmp/simcli-test-" + std::to_string(::getpid()) + "-" + tag)
    {
    }
    ~TempPath()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempPath(const TempPath&) = delete;
    TempPath& operator=(const TempPath&) = delete;
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

}  // namespace simtest

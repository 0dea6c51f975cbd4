#include "tsdsim/ScriptRecorder.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "tsdsim/LoopThread.h"
#include "tsdsim/ModuleFiles.h"

namespace tsdsim {

namespace {

// A stand-in for one script: one line into the FIFO, then the status. The
// FIFO is always open for reading in the simulator, so opening it to write
// never blocks, and a line this short is written in one piece. Only when the
// simulator set a delay (a time service that hangs or starts slowly) does it
// run one program, sleep, before it answers.
std::string standIn(const std::string& script, const std::string& fifo, const std::string& statusFile,
                    const std::string& delayFile)
{
    return "#!/bin/sh\n"
           "# Stand-in for a time service: hands the call to the simulator and answers\n"
           "# with the status the simulator set for it, with shell built-ins only.\n"
           "printf '%s\\n' \"" +
           script + " $*\" > '" + fifo +
           "'\n"
           "st=0\n"
           "{ read -r st < '" +
           statusFile +
           "'; } 2>/dev/null\n"
           "d=\n"
           "{ read -r d < '" +
           delayFile +
           "'; } 2>/dev/null\n"
           "case \"$d\" in ''|0|*[!0-9.]*) ;; *) sleep \"$d\" ;; esac\n"
           "exit \"${st:-0}\"\n";
}

// The same hand-over, then the module's real script in its place. The
// module's /proc lists only the processes that existed when the module was
// made (its device tree lives beside them), while the scripts follow the
// services they start by pid there: they run with the module's full procfs
// on /proc, in a mount namespace of their own that shares everything else.
std::string passingOn(const std::string& script, const std::string& fifo, const std::string& real,
                      const std::string& defaults, const std::string& procfs)
{
    return "#!/bin/sh\n"
           "# Hands the call to the simulator, then runs the module's own script.\n"
           "printf '%s\\n' \"" +
           script + " $*\" > '" + fifo +
           "'\n"
           "TSD_DEFAULTS='" +
           defaults +
           "'\n"
           "export TSD_DEFAULTS\n"
           "exec unshare --mount --propagation private /bin/sh -c "
           "'mount --bind \"$0\" /proc && exec \"$@\"' '" +
           procfs + "' '" + real + "' \"$@\"\n";
}

void writeExecutable(const std::string& path, const std::string& content)
{
    std::ofstream out(path, std::ios::trunc | std::ios::binary);
    out << content;
    out.close();
    if (!out || ::chmod(path.c_str(), 0755) != 0) {
        throw std::runtime_error("tsdsim: cannot write " + path);
    }
}

}  // namespace

const std::vector<std::string>& ScriptRecorder::scriptNames()
{
    static const std::vector<std::string> names{"ptp4ladm.sh", "start_ntpd.sh", "stop_ntpd.sh"};
    return names;
}

ScriptRecorder::ScriptRecorder(LoopThread& io, SimClock clock, const ModuleFiles& files,
                               std::function<void()> onCall)
    : m_io(io), m_clock(clock), m_files(files), m_onCall(std::move(onCall))
{
    const std::string fifo = m_files.scriptFifo();
    ::unlink(fifo.c_str());
    if (::mkfifo(fifo.c_str(), 0622) != 0) {
        throw std::runtime_error("tsdsim: cannot make " + fifo + ": " + std::strerror(errno));
    }
    // Read and write: the FIFO never reports an end while the simulator holds it.
    m_fd = ::open(fifo.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (m_fd < 0) {
        throw std::runtime_error("tsdsim: cannot open " + fifo + ": " + std::strerror(errno));
    }
    try {
        std::ofstream(m_files.scriptsLog(), std::ios::trunc);
        for (const std::string& s : scriptNames()) {
            writeExecutable(m_files.scriptPath(s), standIn(s, fifo, m_files.scriptStatusFile(s), m_files.scriptDelayFile(s)));
        }
        if (m_io.addFd(m_fd, EPOLLIN, [this](std::uint32_t) { onReadable(); }) < 0) {
            throw std::runtime_error("tsdsim: cannot watch " + fifo);
        }
    } catch (...) {
        ::close(m_fd);
        throw;
    }
}

ScriptRecorder::~ScriptRecorder()
{
    m_io.removeFd(m_fd);
    ::close(m_fd);
}

void ScriptRecorder::passTo(const std::string& scriptsDir, const std::string& defaults)
{
    for (const std::string& s : scriptNames()) {
        writeExecutable(m_files.scriptPath(s),
                        passingOn(s, m_files.scriptFifo(), scriptsDir + "/" + s, defaults,
                                  m_files.procMountPoint()));
    }
}

void ScriptRecorder::setStatus(const std::string& script, int status)
{
    const std::string path = m_files.scriptStatusFile(script);
    std::ofstream out(path, std::ios::trunc);
    out << status << "\n";
    out.close();
    if (!out) {
        throw std::runtime_error("tsdsim: cannot write " + path);
    }
}

void ScriptRecorder::setDelay(const std::string& script, double seconds)
{
    const std::string path = m_files.scriptDelayFile(script);
    std::ofstream out(path, std::ios::trunc);
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", seconds > 0 ? seconds : 0.0);
    out << (seconds > 0 ? text : "0") << "\n";
    out.close();
    if (!out) {
        throw std::runtime_error("tsdsim: cannot write " + path);
    }
}

std::vector<ScriptRecorder::Call> ScriptRecorder::calls() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    drain();
    return m_calls;
}

void ScriptRecorder::onReadable()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        drain();
    }
    if (m_onCall) {
        m_onCall();
    }
}

void ScriptRecorder::drain() const
{
    char buf[4096];
    ssize_t n;
    while ((n = ::read(m_fd, buf, sizeof buf)) > 0) {
        m_partial.append(buf, static_cast<std::size_t>(n));
    }
    std::size_t nl;
    std::ofstream log;
    while ((nl = m_partial.find('\n')) != std::string::npos) {
        const std::string line = m_partial.substr(0, nl);
        m_partial.erase(0, nl + 1);
        Call c;
        c.time = m_clock.now();
        c.epochMs = m_clock.startEpochMs() + static_cast<long long>(c.time * 1000.0);
        const std::size_t space = line.find(' ');
        c.script = line.substr(0, space);
        c.args = space == std::string::npos ? "" : line.substr(space + 1);
        if (!log.is_open()) {
            log.open(m_files.scriptsLog(), std::ios::app);
        }
        log << c.epochMs << " " << line << "\n";
        m_calls.push_back(std::move(c));
    }
}

}  // namespace tsdsim

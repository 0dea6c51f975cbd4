#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "tsdsim/SimClock.h"

namespace tsdsim {

class LoopThread;
class ModuleFiles;

// The module's time-service scripts as recording stand-ins. /bin/ptp4ladm.sh,
// /bin/start_ntpd.sh and /bin/stop_ntpd.sh (in the overlay on /usr/bin) each
// hand one line, "SCRIPT ARGS", to a FIFO in the module's directory and exit
// with the status the simulator set for that script (0 until set). They use
// shell built-ins only: the daemon runs its scripts synchronously and waits
// for them, so a stand-in that started processes of its own would add its
// own start-up to every election. The simulator reads the FIFO on its loop
// thread and stamps each call as it arrives; it also keeps the calls, with
// wall-clock milliseconds, in scripts.log for a person looking around.
//
// Threads: constructed, set and destroyed by the world's thread; calls() may
// be called from any thread.
class ScriptRecorder
{
public:
    struct Call
    {
        double time = 0;        // seconds since the world began
        long long epochMs = 0;  // the same on the wall clock
        std::string script;     // "ptp4ladm.sh", "start_ntpd.sh", "stop_ntpd.sh"
        std::string args;
    };

    // The scripts the daemon calls, in /bin (= /usr/bin).
    static const std::vector<std::string>& scriptNames();

    // Writes the stand-ins and opens their FIFO. onCall runs on the loop
    // thread after each batch of calls (the world wakes its waiters with it).
    // Throws std::runtime_error.
    ScriptRecorder(LoopThread& io, SimClock clock, const ModuleFiles& files,
                   std::function<void()> onCall = {});
    ~ScriptRecorder();
    ScriptRecorder(const ScriptRecorder&) = delete;
    ScriptRecorder& operator=(const ScriptRecorder&) = delete;

    // From now on every call, once on record, runs the real script of that
    // name in scriptsDir, with the settings file defaults (TSD_DEFAULTS);
    // the statuses set no longer apply.
    void passTo(const std::string& scriptsDir, const std::string& defaults);
    // Exit status the stand-in gives from now on.
    void setStatus(const std::string& script, int status);
    // Seconds the stand-in sleeps before it answers, from now on (0: none);
    // a time service that hangs or is slow to start.
    void setDelay(const std::string& script, double seconds);
    // Every call so far, also one whose line has just been written.
    std::vector<Call> calls() const;

private:
    void onReadable();
    // Reads what the FIFO holds; m_mutex must be held.
    void drain() const;

    LoopThread& m_io;
    SimClock m_clock;
    const ModuleFiles& m_files;
    std::function<void()> m_onCall;
    int m_fd = -1;
    mutable std::mutex m_mutex;  // guards everything below, and reading m_fd
    mutable std::string m_partial;
    mutable std::vector<Call> m_calls;
};

}  // namespace tsdsim

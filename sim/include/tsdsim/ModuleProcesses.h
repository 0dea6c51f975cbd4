#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tsdsim/ChildProcess.h"

namespace tsdsim {

class ModuleSandbox;

// The programs of one module and their processes. Each program is declared
// once, in a small table: its command line, how to tell it is ready, how to
// stop it, whether to keep it alive, and what the module does when it has
// started or is about to be stopped. Then it is started, signalled and
// stopped by name, always inside the module's sandbox, with its stdout and
// stderr in the module's NAME.out.
//
// Supervision: a program declared keepAlive that was started and not stopped
// on purpose is started again by maintain() once it has ended, provided the
// program it needs is running (a bus client needs its broker).
//
// Only the thread that owns the world uses this (children die with the thread
// that forked them).
class ModuleProcesses
{
public:
    struct Program
    {
        std::string name;               // "velad", "tsd", ...; names its output file
        std::vector<std::string> argv;  // argv[0] is the path; start() may add more
        std::vector<std::string> env;   // "NAME=value" added to the environment
        bool pipeStdin = false;
        bool pipeStdout = false;
        // Polled every 10 ms after the start until it holds; the start fails
        // when the process ends first or readyTimeout passes. Empty: ready at once.
        std::function<bool()> ready;
        std::chrono::milliseconds readyTimeout{10000};
        // stop() by default: this signal (0: none, the stopping hook ends the
        // program), then SIGKILL once stopTimeout has passed.
        int stopSignal = SIGTERM;
        std::chrono::milliseconds stopTimeout{5000};
        bool keepAlive = false;
        std::string needs;  // with keepAlive: restarted only while this runs
        // Called once the process is ready, and before it is stopped or
        // replaced (also when it has ended by itself), with its process.
        std::function<void(ChildProcess&)> started;
        std::function<void(ChildProcess&)> stopping;
    };

    explicit ModuleProcesses(const ModuleSandbox& sandbox);
    // Stops whatever still runs, in reverse order of declaration.
    ~ModuleProcesses();
    ModuleProcesses(const ModuleProcesses&) = delete;
    ModuleProcesses& operator=(const ModuleProcesses&) = delete;

    // Declares a program; stopAll() goes through them in reverse order, so
    // declare a program after the ones it needs.
    void declare(Program program);

    // Starts the program with extraArgs appended, unless it runs already.
    // False when it could not be started or did not get ready (error() says why).
    bool start(const std::string& name, const std::vector<std::string>& extraArgs = {});
    // start() in two halves, so that many programs get ready side by side:
    // launch() starts the process without waiting, awaitReady() waits until
    // it is ready (readyTimeout counted from the launch) and runs its
    // started hook.
    bool launch(const std::string& name, const std::vector<std::string>& extraArgs = {});
    bool awaitReady(const std::string& name);
    // Stops it (if it runs) and starts it afresh.
    bool restart(const std::string& name, const std::vector<std::string>& extraArgs = {});
    // Sends sig and waits up to timeout; after that SIGKILL. Returns the wait
    // status, -1 when it had to be killed or never ran; the last status when
    // it had ended already.
    int stop(const std::string& name, int sig, std::chrono::milliseconds timeout);
    // With the program's own stop signal and time-out.
    int stop(const std::string& name);
    void stopAll();
    // Sends sig to a running program (SIGHUP to reread, for instance).
    bool signal(const std::string& name, int sig);

    bool running(const std::string& name);
    // Running, and found ready since its launch.
    bool ready(const std::string& name);
    // Started and not stopped on purpose since (it may have ended by itself).
    bool wanted(const std::string& name) const;
    pid_t pid(const std::string& name) const;  // -1 before the first start
    std::string error(const std::string& name) const;

    // Restarts the keepAlive programs that ended (see above).
    void maintain();

private:
    struct Entry
    {
        Program program;
        std::unique_ptr<ChildProcess> process;
        bool wanted = false;
        bool attached = false;  // started() ran, stopping() not yet
        std::chrono::steady_clock::time_point launched;
        std::string error;
    };

    Entry& entry(const std::string& name);
    const Entry& entry(const std::string& name) const;
    void letGo(Entry& e);

    const ModuleSandbox& m_sandbox;
    std::vector<Entry> m_entries;
};

}  // namespace tsdsim

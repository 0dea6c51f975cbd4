#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace tsdsim {

// One child process started with fork + exec, optionally inside a module's
// network and mount namespaces. The child runs in a process group of its own
// (a Ctrl-C at the terminal reaches only tsdsim, which then stops its children
// in order) and is killed by the kernel should tsdsim die first
// (PR_SET_PDEATHSIG; note that this fires when the *thread* that started the
// child ends, so start children from a long-lived thread).
//
// Destruction stops a child that still runs: SIGTERM, then SIGKILL after a
// grace period, and reaps it. Only the thread that owns the object uses it.
class ChildProcess
{
public:
    struct Options
    {
        std::vector<std::string> argv;  // argv[0] is the program path
        std::vector<std::string> env;   // "NAME=value" added to (or replacing in) the environment
        std::string cwd;                // empty: unchanged
        int netnsFd = -1;               // setns() into these before exec, when >= 0
        int mntnsFd = -1;
        bool pipeStdin = false;       // writeLine() feeds the child's stdin
        bool pipeStdout = false;      // stdoutFd() reads the child's stdout
        bool stderrToStdout = false;  // stderr goes where stdout goes
        std::string outputFile;       // stdout (unless piped) and stderr are appended here
    };

    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Starts the child. Returns false, with the reason in error(), when fork,
    // the namespace switch or exec fails.
    bool start(const Options& options);
    const std::string& error() const { return m_error; }

    pid_t pid() const { return m_pid; }
    // True while the child has not been reaped.
    bool running();
    // Sends a signal to the child (only while it runs).
    bool signal(int sig);
    // Waits up to timeout for the child to end. Returns its wait status
    // (WIFEXITED etc.) or -1 on time-out.
    int wait(std::chrono::milliseconds timeout);
    // SIGTERM, wait up to grace, then SIGKILL; returns the wait status.
    int stop(std::chrono::milliseconds grace = std::chrono::milliseconds(3000));
    // Wait status once reaped, -1 before.
    int status() const { return m_status; }

    // Appends a line and a newline to the child's stdin. False when it is closed.
    bool writeLine(const std::string& line);
    void closeStdin();
    // The read end of the child's stdout (non-blocking), -1 when not piped.
    int stdoutFd() const { return m_stdout; }

    // Runs argv in the given namespaces and collects stdout; returns the wait
    // status, -1 when it does not end within timeout (it is then killed).
    static int run(const Options& options, std::string* output, std::chrono::milliseconds timeout);

private:
    pid_t m_pid = -1;
    int m_status = -1;
    int m_stdin = -1;
    int m_stdout = -1;
    std::string m_error;
};

}  // namespace tsdsim

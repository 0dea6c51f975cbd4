#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace testsupport {

// A program started by a test, with pipes to its stdin, stdout and stderr.
// The destructor kills it by pid (SIGKILL) and reaps it, so a failing test
// leaves nothing behind; the child also dies with the test program should that
// crash first.
class ChildProcess
{
public:
    // argv[0] is the program's full path. Throws std::runtime_error when the
    // pipes or the fork fail.
    explicit ChildProcess(const std::vector<std::string>& argv);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return m_pid; }
    // One line of stdout without its newline; false on timeout or EOF.
    bool readLine(std::string& line, std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // All of stdout until EOF (or timeout).
    std::string readAll(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    std::string readAllStderr(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    bool write(const std::string& text);
    void closeStdin();
    // Sends sig and waits for the exit; returns the exit status, 128+signal
    // for a signal death, or -1 on timeout.
    int signalAndWait(int sig, std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Waits for the exit (status as above, -1 on timeout).
    int wait(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Waits until the program catches sig with a handler of its own, that is
    // until it has come far enough in its start to react to sig as it means
    // to; false on timeout or exit.
    bool waitForHandler(int sig, std::chrono::milliseconds timeout = std::chrono::seconds(10));
    bool running();

private:
    pid_t m_pid = -1;
    int m_in = -1;
    int m_out = -1;
    int m_err = -1;
    std::string m_outBuf;
    int m_status = -1;
    bool m_reaped = false;
};

// Directory of the running test program: velad, vela, tsd and tsdsim are
// built next to it.
std::string binDir();

}  // namespace testsupport

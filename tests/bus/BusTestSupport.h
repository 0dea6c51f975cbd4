#pragma once

#include <orv/sys/EventLoop.h>

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace bustest {

// Runs loop until pred() holds (checked every few ms) or timeout passes.
// Returns pred() at the end.
bool runUntil(orv::sys::EventLoop& loop, const std::function<bool()>& pred,
              std::chrono::milliseconds timeout = std::chrono::seconds(10));
// Runs loop for a fixed time (to show that something does NOT happen).
void runFor(orv::sys::EventLoop& loop, std::chrono::milliseconds duration);

// A program started by a test, with pipes to its stdin, stdout and stderr.
// The destructor kills it by pid (SIGKILL) and reaps it, so a failing test
// leaves nothing behind.
class ChildProcess
{
public:
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

std::string veladPath();
std::string velaPath();

// velad on a free loopback port (it reports the port it got).
class VeladProcess
{
public:
    explicit VeladProcess(std::vector<std::string> extraArgs = {}, std::uint16_t port = 0);
    std::uint16_t port() const { return m_port; }
    ChildProcess& process() { return *m_process; }

private:
    std::unique_ptr<ChildProcess> m_process;
    std::uint16_t m_port = 0;
};

// Runs vela with the given arguments against port; returns the exit status
// and fills out/err.
int runVela(std::uint16_t port, const std::vector<std::string>& args, std::string* out = nullptr,
            std::string* err = nullptr, std::chrono::milliseconds timeout = std::chrono::seconds(20));

}  // namespace bustest

#include "testsupport/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace testsupport {

using Clock = std::chrono::steady_clock;

ChildProcess::ChildProcess(const std::vector<std::string>& argv)
{
    int in[2], out[2], err[2];
    if (::pipe2(in, O_CLOEXEC) < 0 || ::pipe2(out, O_CLOEXEC) < 0 || ::pipe2(err, O_CLOEXEC) < 0) {
        throw std::runtime_error("pipe failed");
    }
    m_pid = ::fork();
    if (m_pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (m_pid == 0) {
        // A broker or client must not outlive a test program that crashes.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        std::vector<char*> args;
        for (const std::string& a : argv) {
            args.push_back(const_cast<char*>(a.c_str()));
        }
        args.push_back(nullptr);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    m_in = in[1];
    m_out = out[0];
    m_err = err[0];
}

ChildProcess::~ChildProcess()
{
    if (!m_reaped && m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
    for (int fd : {m_in, m_out, m_err}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

namespace {

// Reads what is available from fd into buf within the time left; false at
// EOF or timeout.
bool readSome(int fd, std::string& buf, Clock::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
        return false;
    }
    pollfd p{fd, POLLIN, 0};
    int rc = ::poll(&p, 1, static_cast<int>(left));
    if (rc <= 0) {
        return false;
    }
    char chunk[4096];
    ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n <= 0) {
        return false;
    }
    buf.append(chunk, static_cast<std::size_t>(n));
    return true;
}

}  // namespace

bool ChildProcess::readLine(std::string& line, std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        std::size_t nl = m_outBuf.find('\n');
        if (nl != std::string::npos) {
            line = m_outBuf.substr(0, nl);
            m_outBuf.erase(0, nl + 1);
            return true;
        }
        if (!readSome(m_out, m_outBuf, deadline)) {
            return false;
        }
    }
}

std::string ChildProcess::readAll(std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    while (readSome(m_out, m_outBuf, deadline)) {
    }
    std::string all = std::move(m_outBuf);
    m_outBuf.clear();
    return all;
}

std::string ChildProcess::readAllStderr(std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    std::string all;
    while (readSome(m_err, all, deadline)) {
    }
    return all;
}

bool ChildProcess::write(const std::string& text)
{
    std::size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(m_in, text.data() + done, text.size() - done);
        if (n <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

void ChildProcess::closeStdin()
{
    if (m_in >= 0) {
        ::close(m_in);
        m_in = -1;
    }
}

bool ChildProcess::running()
{
    if (m_reaped) {
        return false;
    }
    int status = 0;
    pid_t r = ::waitpid(m_pid, &status, WNOHANG);
    if (r == m_pid) {
        m_reaped = true;
        m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return false;
    }
    return true;
}

int ChildProcess::wait(std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    while (running()) {
        if (Clock::now() >= deadline) {
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return m_status;
}

namespace {

// Whether /proc/PID/status lists sig among the caught signals (SigCgt, a hex
// mask with bit sig - 1).
bool catches(pid_t pid, int sig)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 7, "SigCgt:") == 0) {
            const unsigned long long mask = std::strtoull(line.c_str() + 7, nullptr, 16);
            return ((mask >> (sig - 1)) & 1ULL) != 0;
        }
    }
    return false;
}

}  // namespace

bool ChildProcess::waitForHandler(int sig, std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    while (running()) {
        if (catches(m_pid, sig)) {
            return true;
        }
        if (Clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

int ChildProcess::signalAndWait(int sig, std::chrono::milliseconds timeout)
{
    if (running()) {
        ::kill(m_pid, sig);
    }
    return wait(timeout);
}

std::string binDir()
{
    char path[4096];
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) {
        return ".";
    }
    const std::string exe(path, static_cast<std::size_t>(n));
    return exe.substr(0, exe.rfind('/'));
}

}  // namespace testsupport

#include "tsdsim/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

extern char** environ;

namespace tsdsim {

namespace {

// Everything the child needs is prepared before fork: after it, the child of a
// multi-threaded parent should allocate as little as possible.
struct Prepared
{
    std::vector<std::string> argvStore;
    std::vector<std::string> envStore;
    std::vector<char*> argv;
    std::vector<char*> env;
};

void prepare(const ChildProcess::Options& o, Prepared& p)
{
    p.argvStore = o.argv;
    for (char** e = environ; *e; ++e) {
        std::string entry(*e);
        std::string name = entry.substr(0, entry.find('='));
        bool replaced = false;
        for (const auto& add : o.env) {
            if (add.substr(0, add.find('=')) == name) {
                replaced = true;
            }
        }
        if (!replaced) {
            p.envStore.push_back(entry);
        }
    }
    for (const auto& add : o.env) {
        p.envStore.push_back(add);
    }
    for (auto& s : p.argvStore) {
        p.argv.push_back(s.data());
    }
    p.argv.push_back(nullptr);
    for (auto& s : p.envStore) {
        p.env.push_back(s.data());
    }
    p.env.push_back(nullptr);
}

[[noreturn]] void childFail(int errFd, int err)
{
    ssize_t n = ::write(errFd, &err, sizeof err);
    (void)n;
    ::_exit(127);
}

}  // namespace

ChildProcess::~ChildProcess()
{
    if (m_pid > 0 && m_status < 0) {
        stop();
    }
    closeStdin();
    if (m_stdout >= 0) {
        ::close(m_stdout);
    }
}

bool ChildProcess::start(const Options& o)
{
    if (o.argv.empty()) {
        m_error = "no program given";
        return false;
    }
    Prepared p;
    prepare(o, p);

    int errPipe[2];
    int inPipe[2] = {-1, -1};
    int outPipe[2] = {-1, -1};
    if (::pipe2(errPipe, O_CLOEXEC) < 0 || (o.pipeStdin && ::pipe2(inPipe, O_CLOEXEC) < 0) ||
        (o.pipeStdout && ::pipe2(outPipe, O_CLOEXEC) < 0)) {
        m_error = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    int outFile = -1;
    if (!o.outputFile.empty()) {
        outFile = ::open(o.outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    }
    pid_t parent = ::getpid();

    pid_t pid = ::fork();
    if (pid < 0) {
        m_error = std::string("fork: ") + std::strerror(errno);
        return false;
    }
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) {
            ::_exit(127);
        }
        ::setpgid(0, 0);
        sigset_t all;
        sigemptyset(&all);
        ::sigprocmask(SIG_SETMASK, &all, nullptr);
        for (int sig = 1; sig < NSIG; ++sig) {
            ::signal(sig, SIG_DFL);
        }
        // The mount namespace first: after joining the network namespace the
        // /proc paths the fds came from would no longer matter, but the order
        // keeps the child's view consistent as early as possible.
        if (o.mntnsFd >= 0 && ::setns(o.mntnsFd, CLONE_NEWNS) < 0) {
            childFail(errPipe[1], errno);
        }
        if (o.netnsFd >= 0 && ::setns(o.netnsFd, CLONE_NEWNET) < 0) {
            childFail(errPipe[1], errno);
        }
        if (!o.cwd.empty() && ::chdir(o.cwd.c_str()) < 0) {
            childFail(errPipe[1], errno);
        }
        int devNull = ::open("/dev/null", O_RDWR);
        ::dup2(o.pipeStdin ? inPipe[0] : devNull, 0);
        if (o.pipeStdout) {
            ::dup2(outPipe[1], 1);
        } else {
            ::dup2(outFile >= 0 ? outFile : devNull, 1);
        }
        if (o.stderrToStdout) {
            ::dup2(1, 2);
        } else {
            ::dup2(outFile >= 0 ? outFile : devNull, 2);
        }
        ::execve(p.argv[0], p.argv.data(), p.env.data());
        childFail(errPipe[1], errno);
    }

    ::close(errPipe[1]);
    if (outFile >= 0) {
        ::close(outFile);
    }
    if (o.pipeStdin) {
        ::close(inPipe[0]);
        m_stdin = inPipe[1];
    }
    if (o.pipeStdout) {
        ::close(outPipe[1]);
        m_stdout = outPipe[0];
        ::fcntl(m_stdout, F_SETFL, ::fcntl(m_stdout, F_GETFL) | O_NONBLOCK);
    }
    int childErr = 0;
    ssize_t n = ::read(errPipe[0], &childErr, sizeof childErr);
    ::close(errPipe[0]);
    m_pid = pid;
    m_status = -1;
    if (n == static_cast<ssize_t>(sizeof childErr)) {
        m_error = o.argv[0] + ": " + std::strerror(childErr);
        ::waitpid(pid, &m_status, 0);
        return false;
    }
    return true;
}

bool ChildProcess::running()
{
    if (m_pid <= 0 || m_status >= 0) {
        return false;
    }
    int st = 0;
    pid_t r = ::waitpid(m_pid, &st, WNOHANG);
    if (r == m_pid) {
        m_status = st;
        return false;
    }
    return true;
}

bool ChildProcess::signal(int sig)
{
    if (!running()) {
        return false;
    }
    return ::kill(m_pid, sig) == 0;
}

int ChildProcess::wait(std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (running()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return m_status;
}

int ChildProcess::stop(std::chrono::milliseconds grace)
{
    if (!running()) {
        return m_status;
    }
    ::kill(m_pid, SIGTERM);
    if (wait(grace) >= 0) {
        return m_status;
    }
    ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, &m_status, 0);
    return m_status;
}

bool ChildProcess::writeLine(const std::string& line)
{
    if (m_stdin < 0) {
        return false;
    }
    std::string data = line + "\n";
    const char* p = data.data();
    std::size_t left = data.size();
    while (left > 0) {
        ssize_t n = ::write(m_stdin, p, left);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    return true;
}

void ChildProcess::closeStdin()
{
    if (m_stdin >= 0) {
        ::close(m_stdin);
        m_stdin = -1;
    }
}

int ChildProcess::run(const Options& options, std::string* output, std::chrono::milliseconds timeout)
{
    Options o = options;
    o.pipeStdout = output != nullptr;
    ChildProcess child;
    if (!child.start(o)) {
        return -1;
    }
    const auto collect = [&child, output] {
        if (!output) {
            return;
        }
        char buf[4096];
        ssize_t n;
        while ((n = ::read(child.stdoutFd(), buf, sizeof buf)) > 0) {
            output->append(buf, static_cast<std::size_t>(n));
        }
    };
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        collect();
        if (!child.running()) {
            break;
        }
        auto now = std::chrono::steady_clock::now();
        if (now >= deadline) {
            child.stop(std::chrono::milliseconds(200));
            return -1;
        }
        if (output) {
            pollfd pfd{child.stdoutFd(), POLLIN, 0};
            ::poll(&pfd, 1, 10);
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    // What the child wrote between the last read and its end.
    collect();
    return child.status();
}

}  // namespace tsdsim

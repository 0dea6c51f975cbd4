#include "tsdsim/ModuleSyslog.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "tsdsim/LoopThread.h"

namespace tsdsim {

ModuleSyslog::ModuleSyslog(LoopThread& io, SimClock clock, const std::string& socketPath,
                           std::function<void()> onLine)
    : m_io(io), m_clock(clock), m_onLine(std::move(onLine))
{
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof a.sun_path) {
        throw std::runtime_error("tsdsim: socket path too long: " + socketPath);
    }
    std::strncpy(a.sun_path, socketPath.c_str(), sizeof a.sun_path - 1);
    ::unlink(socketPath.c_str());
    m_fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (m_fd < 0 || ::bind(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a) < 0) {
        const std::string reason = std::strerror(errno);
        close();
        throw std::runtime_error("tsdsim: cannot bind " + socketPath + ": " + reason);
    }
    ::chmod(socketPath.c_str(), 0666);
    // A burst of debug logging must not block the daemon on a full socket.
    int size = 4 << 20;
    ::setsockopt(m_fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
    if (m_io.addFd(m_fd, EPOLLIN, [this](std::uint32_t) { onReadable(); }) < 0) {
        close();
        throw std::runtime_error("tsdsim: cannot watch " + socketPath);
    }
}

ModuleSyslog::~ModuleSyslog()
{
    m_io.removeFd(m_fd);
    close();
}

void ModuleSyslog::close()
{
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

std::vector<ModuleSyslog::Line> ModuleSyslog::lines() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
}

ModuleSyslog::Line ModuleSyslog::parse(std::string msg)
{
    while (!msg.empty() && (msg.back() == '\n' || msg.back() == '\0')) {
        msg.pop_back();
    }
    Line line;
    std::size_t pos = 0;
    if (msg.size() > 2 && msg[0] == '<') {
        std::size_t close = msg.find('>');
        if (close != std::string::npos) {
            line.priority = std::atoi(msg.substr(1, close - 1).c_str()) & 7;
            pos = close + 1;
        }
    }
    constexpr std::size_t kStampLength = 16;  // "Nov 22 04:00:00 "
    if (msg.size() >= pos + kStampLength) {
        pos += kStampLength;
    }
    std::size_t colon = msg.find(": ", pos);
    if (colon != std::string::npos) {
        // The C library writes no host name, other loggers do: the ident
        // is the last word before the colon.
        std::string ident = msg.substr(pos, colon - pos);
        std::size_t space = ident.rfind(' ');
        if (space != std::string::npos) {
            ident.erase(0, space + 1);
        }
        line.ident = ident.substr(0, ident.find('['));
        line.text = msg.substr(colon + 2);
    } else {
        line.text = msg.substr(pos);
    }
    return line;
}

void ModuleSyslog::onReadable()
{
    char buf[8192];
    for (;;) {
        ssize_t n = ::recv(m_fd, buf, sizeof buf - 1, 0);
        if (n <= 0) {
            break;
        }
        Line line = parse(std::string(buf, static_cast<std::size_t>(n)));
        line.time = m_clock.now();
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(std::move(line));
    }
    if (m_onLine) {
        m_onLine();
    }
}

}  // namespace tsdsim

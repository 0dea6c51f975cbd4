#include "testsupport/SyslogCapture.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "testsupport/PrivateMounts.h"

namespace testsupport {
namespace {

const char kDevLog[] = "/dev/log";

// glibc writes "<PRI>Mmm dd hh:mm:ss ident: message" to /dev/log; the ident is
// the program name when openlog was never called.
bool parse(const std::string& raw, SyslogCapture::Line& line)
{
    if (raw.size() < 3 || raw[0] != '<')
        return false;
    auto close = raw.find('>');
    if (close == std::string::npos)
        return false;
    int pri = std::atoi(raw.substr(1, close - 1).c_str());
    line.priority = LOG_PRI(pri);
    line.facility = pri & LOG_FACMASK;
    std::size_t pos = close + 1 + 16;  // timestamp and its blank
    auto colon = raw.find(": ", pos);
    line.text = colon == std::string::npos ? raw.substr(std::min(pos, raw.size())) : raw.substr(colon + 2);
    return true;
}

}  // namespace

SyslogCapture::SyslogCapture()
{
    if (!PrivateMounts::enter() || !PrivateMounts::shadow("/dev"))
        throw std::runtime_error("SyslogCapture needs a private mount namespace");
    ::closelog();
    PrivateMounts::removeEntry(kDevLog);
    m_fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, kDevLog, sizeof(addr.sun_path) - 1);
    if (m_fd < 0 || ::bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0)
        throw std::runtime_error(std::string("SyslogCapture: bind /dev/log: ") + std::strerror(errno));
    // syslog(3) blocks once a handful of datagrams wait unread
    // (net.unix.max_dgram_qlen), and the code under test logs from the test's
    // own thread, so a reader thread must keep the socket drained.
    m_stop = ::eventfd(0, EFD_CLOEXEC);
    m_reader = std::thread([this] { readLoop(); });
}

SyslogCapture::~SyslogCapture()
{
    std::uint64_t one = 1;
    if (::write(m_stop, &one, sizeof(one)) < 0) {
        // The reader then ends at its next wake-up; nothing else to do.
    }
    m_reader.join();
    ::close(m_stop);
    ::closelog();
    if (m_fd >= 0)
        ::close(m_fd);
    ::unlink(kDevLog);
}

void SyslogCapture::readLoop()
{
    pollfd fds[2] = {{m_fd, POLLIN, 0}, {m_stop, POLLIN, 0}};
    char buf[65536];
    for (;;) {
        if (::poll(fds, 2, -1) < 0 && errno != EINTR)
            return;
        for (;;) {
            // recv and store under one lock, so that drain() never sees a
            // datagram that has left the socket but not yet been stored.
            std::lock_guard<std::mutex> lock(m_mutex);
            ssize_t n = ::recv(m_fd, buf, sizeof(buf), 0);
            if (n < 0)
                break;
            Line line;
            if (parse(std::string(buf, static_cast<std::size_t>(n)), line))
                m_received.push_back(line);
        }
        if (fds[1].revents & POLLIN)
            return;
    }
}

void SyslogCapture::drain()
{
    // Lines written by this thread are in the socket before syslog() returns;
    // wait until the reader has taken all of them out.
    for (int i = 0; i < 2000; ++i) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            int queued = 0;
            if (::ioctl(m_fd, FIONREAD, &queued) != 0 || queued == 0) {
                m_lines.insert(m_lines.end(), m_received.begin(), m_received.end());
                m_received.clear();
                return;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

const std::vector<SyslogCapture::Line>& SyslogCapture::lines()
{
    drain();
    return m_lines;
}

void SyslogCapture::clear()
{
    drain();
    m_lines.clear();
}

std::size_t SyslogCapture::count(int priority, const std::string& text)
{
    std::size_t n = 0;
    for (const auto& l : lines())
        if (l.priority == priority && l.text == text)
            ++n;
    return n;
}

std::size_t SyslogCapture::countText(const std::string& text)
{
    std::size_t n = 0;
    for (const auto& l : lines())
        if (l.text == text)
            ++n;
    return n;
}

std::string SyslogCapture::dump()
{
    std::ostringstream out;
    for (const auto& l : lines())
        out << "<" << l.priority << "> " << l.text << "\n";
    return out.str();
}

}  // namespace testsupport

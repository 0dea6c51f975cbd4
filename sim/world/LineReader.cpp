#include "LineReader.h"

#include <sys/epoll.h>
#include <unistd.h>

#include "tsdsim/LoopThread.h"

namespace tsdsim {

LineReader::LineReader(LoopThread& io) : m_io(io) {}

LineReader::~LineReader()
{
    stop();
}

void LineReader::start(int fd, OnLines onLines)
{
    stop();
    m_buffer.clear();
    m_fd = fd;
    m_onLines = std::move(onLines);
    m_io.addFd(fd, EPOLLIN, [this](std::uint32_t) { onReadable(); });
}

void LineReader::stop()
{
    if (m_fd >= 0) {
        m_io.removeFd(m_fd);
        m_fd = -1;
    }
}

void LineReader::onReadable()
{
    char chunk[8192];
    bool ended = false;
    for (;;) {
        const ssize_t n = ::read(m_fd, chunk, sizeof chunk);
        if (n <= 0) {
            ended = n == 0;
            break;
        }
        m_buffer.append(chunk, static_cast<std::size_t>(n));
    }
    std::vector<std::string> lines;
    std::size_t nl;
    while ((nl = m_buffer.find('\n')) != std::string::npos) {
        lines.push_back(m_buffer.substr(0, nl));
        m_buffer.erase(0, nl + 1);
    }
    if (ended) {
        // A pipe whose writer has gone stays readable: stop watching it. The
        // fd stays set, so that stop() from the world's thread is still
        // harmless.
        m_io.removeFd(m_fd);
    }
    if (!lines.empty()) {
        m_onLines(lines);
    }
}

}  // namespace tsdsim

#include "testsupport/StreamCapture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "testsupport/PrivateMounts.h"

namespace testsupport {

StreamCapture::StreamCapture(int fd) : m_fd(fd)
{
    // Whatever stdio still buffers belongs to the stream as it was.
    std::fflush(nullptr);
    m_saved = ::dup(m_fd);
    m_path = PrivateMounts::scratchDir("stream" + std::to_string(m_fd)) + "/captured.txt";
    const int file = ::open(m_path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
    ::dup2(file, m_fd);
    ::close(file);
}

StreamCapture::~StreamCapture()
{
    restore();
}

std::string StreamCapture::text()
{
    restore();
    std::ifstream in(m_path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

void StreamCapture::restore()
{
    if (m_saved < 0) {
        return;
    }
    std::fflush(nullptr);
    ::dup2(m_saved, m_fd);
    ::close(m_saved);
    m_saved = -1;
}

}  // namespace testsupport

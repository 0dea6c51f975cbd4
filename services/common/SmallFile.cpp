#include "SmallFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace orv::services {

int readSmallFile(const std::string& path, std::size_t maxBytes, std::string& text)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        return -errno;
    }
    std::string content;
    char buffer[4096];
    int rc = 0;
    while (content.size() <= maxBytes) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            rc = -errno;
            break;
        }
        if (n == 0) {
            break;
        }
        content.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
    if (rc == 0 && content.size() > maxBytes) {
        rc = -EFBIG;
    }
    if (rc == 0) {
        text.swap(content);
    }
    return rc;
}

}  // namespace orv::services

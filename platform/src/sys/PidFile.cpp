// Exclusion rests on flock(2), not on the file's existence: the kernel drops
// the lock when its holder dies, however it dies, so a file left behind by a
// crash is simply taken over by the next start.
#include "orv/sys/PidFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "orv/exception/exception.h"

namespace orv::sys {

namespace {

// A holder that lost a race with our open() may be between unlink and close;
// each retry reopens whatever file now carries the name.
constexpr int kOpenAttempts = 10;
// A new holder writes its pid right after taking the lock; give it a moment
// before reporting an unknown holder.
constexpr int kHolderReadAttempts = 20;
constexpr useconds_t kHolderReadPauseUs = 5000;

std::string systemError(const std::string& path, const char* what, int err)
{
    return "pid file " + path + ": " + what + ": " + std::strerror(err);
}

// The pid the current holder wrote, or 0 while the file is still empty.
long readHolderPid(int fd)
{
    char text[32] = {};
    const ssize_t n = ::pread(fd, text, sizeof text - 1, 0);
    if (n <= 0) {
        return 0;
    }
    return std::strtol(text, nullptr, 10);
}

}  // namespace

std::string PidFile::pathFor(const std::string& argv0)
{
    std::string base = argv0;
    while (!base.empty() && base.back() == '/') {
        base.pop_back();
    }
    const std::string::size_type slash = base.rfind('/');
    if (slash != std::string::npos) {
        base.erase(0, slash + 1);
    }
    return "/run/" + base + ".pid";
}

PidFile::PidFile(const std::string& argv0) : m_path(pathFor(argv0))
{
    if (m_path == "/run/.pid") {
        throw orv::exception::exception("pid file: no program name in '" + argv0 + "'");
    }
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
        const int fd = ::open(m_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
        if (fd < 0) {
            throw orv::exception::exception(systemError(m_path, "cannot open", errno));
        }
        if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
            const int err = errno;
            if (err != EWOULDBLOCK) {
                ::close(fd);
                throw orv::exception::exception(systemError(m_path, "cannot lock", err));
            }
            long holder = readHolderPid(fd);
            for (int i = 0; holder == 0 && i < kHolderReadAttempts; ++i) {
                ::usleep(kHolderReadPauseUs);
                holder = readHolderPid(fd);
            }
            ::close(fd);
            throw orv::exception::exception(
                "pid file " + m_path + " is held by running process " +
                (holder > 0 ? std::to_string(holder) : std::string("(pid not yet written)")) +
                ": another instance is running");
        }
        // The lock is only worth something if it is on the file that still
        // carries the name; a previous holder may have unlinked it meanwhile.
        struct stat opened
        {
        };
        struct stat named
        {
        };
        if (::fstat(fd, &opened) != 0 || ::stat(m_path.c_str(), &named) != 0 ||
            opened.st_ino != named.st_ino || opened.st_dev != named.st_dev) {
            ::close(fd);
            continue;
        }
        const std::string text = std::to_string(::getpid()) + "\n";
        if (::ftruncate(fd, 0) != 0 ||
            ::pwrite(fd, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
            const int err = errno;
            ::unlink(m_path.c_str());
            ::close(fd);
            throw orv::exception::exception(systemError(m_path, "cannot write", err));
        }
        m_fd = fd;
        m_owner = ::getpid();
        return;
    }
    throw orv::exception::exception("pid file " + m_path + ": replaced repeatedly while locking it");
}

PidFile::~PidFile()
{
    if (m_fd < 0) {
        return;
    }
    // A forked child shares the lock but must not remove its parent's file.
    if (::getpid() == m_owner) {
        // Unlink before unlocking, so that nobody locks a file about to vanish.
        ::unlink(m_path.c_str());
    }
    ::close(m_fd);
}

}  // namespace orv::sys

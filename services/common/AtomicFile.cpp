#include "AtomicFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace orv::services {

int FileSystem::openFile(const std::string& path, int flags, mode_t mode)
{
    return ::open(path.c_str(), flags, mode);
}

ssize_t FileSystem::writeSome(int fd, const char* data, std::size_t size)
{
    return ::write(fd, data, size);
}

int FileSystem::syncFile(int fd)
{
    return ::fsync(fd);
}

int FileSystem::closeFile(int fd)
{
    return ::close(fd);
}

int FileSystem::renameFile(const std::string& from, const std::string& to)
{
    return std::rename(from.c_str(), to.c_str());
}

int FileSystem::removeFile(const std::string& path)
{
    return ::unlink(path.c_str());
}

FileSystem& systemFileSystem()
{
    static FileSystem fs;
    return fs;
}

namespace {

std::string directoryOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

AtomicWrite failed(const char* step, int error, bool replaced = false)
{
    AtomicWrite result;
    result.replaced = replaced;
    result.error = error != 0 ? error : EIO;
    result.step = step;
    return result;
}

// Until the rename, a failure must leave no half-written temporary behind.
AtomicWrite abandon(FileSystem& fs, const std::string& temporary, int fd, const char* step)
{
    const int error = errno;
    if (fd >= 0) {
        fs.closeFile(fd);
    }
    fs.removeFile(temporary);
    return failed(step, error);
}

}  // namespace

AtomicWrite writeFileAtomically(FileSystem& fs, const std::string& path, const std::string& content,
                                mode_t mode)
{
    const std::string temporary = path + ".tmp";
    // O_NOFOLLOW: a link planted at the temporary name must not redirect the
    // write elsewhere. O_TRUNC: a temporary left by a crash is simply reused.
    const int fd = fs.openFile(temporary, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0) {
        return failed("open", errno);
    }
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t n = fs.writeSome(fd, content.data() + done, content.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (n == 0) {
                errno = EIO;
            }
            return abandon(fs, temporary, fd, "write");
        }
        done += static_cast<std::size_t>(n);
    }
    if (fs.syncFile(fd) != 0) {
        return abandon(fs, temporary, fd, "fsync");
    }
    if (fs.closeFile(fd) != 0) {
        return abandon(fs, temporary, -1, "close");
    }
    if (fs.renameFile(temporary, path) != 0) {
        return abandon(fs, temporary, -1, "rename");
    }
    const int dir = fs.openFile(directoryOf(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
    if (dir < 0) {
        return failed("open of the directory", errno, true);
    }
    if (fs.syncFile(dir) != 0) {
        const int error = errno;
        fs.closeFile(dir);
        return failed("fsync of the directory", error, true);
    }
    fs.closeFile(dir);
    return AtomicWrite{true, 0, {}};
}

}  // namespace orv::services

#include "TimeServices.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace tsdctl {

namespace {

// A pid file holds a number and a line feed; anything longer is not one.
constexpr std::size_t kMaxPidFile = 64;
// /proc/PID/stat: a few hundred bytes, the state right after the name.
constexpr std::size_t kMaxProcStat = 1024;
// The kernel's largest pid (PID_MAX_LIMIT on 64-bit systems).
constexpr long kMaxPid = 4194304;

// The first line of a regular file of at most limit bytes, or false. Never
// follows a link at the last component and never blocks on a fifo.
bool readFirstLine(const std::string& path, std::size_t limit, std::string& line, struct stat* st)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    char buffer[kMaxProcStat + 1];
    limit = std::min(limit, kMaxProcStat);
    struct stat info;
    ssize_t n = -1;
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
        n = ::read(fd, buffer, limit + 1);
    }
    ::close(fd);
    if (n < 0 || static_cast<std::size_t>(n) > limit) {
        return false;
    }
    line.assign(buffer, static_cast<std::size_t>(n));
    line = line.substr(0, line.find('\n'));
    if (st != nullptr) {
        *st = info;
    }
    return true;
}

long parsePid(const std::string& text)
{
    if (text.empty() || text.size() > 7) {
        return 0;
    }
    for (char c : text) {
        if (c < '0' || c > '9') {
            return 0;
        }
    }
    const long pid = std::strtol(text.c_str(), nullptr, 10);
    return pid > 0 && pid <= kMaxPid ? pid : 0;
}

// Alive, not merely waiting to be collected. An operator may not signal a
// root process (EPERM), which still proves that it exists.
bool alive(long pid)
{
    if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno != EPERM) {
        return false;
    }
    std::string stat;
    if (!readFirstLine("/proc/" + std::to_string(pid) + "/stat", kMaxProcStat, stat, nullptr)) {
        // /proc hidden from us: kill said it exists.
        return true;
    }
    const std::size_t close = stat.rfind(')');
    return close == std::string::npos || close + 2 >= stat.size() || stat[close + 2] != 'Z';
}

}  // namespace

std::vector<TimeService> readTimeServices(const std::string& dir)
{
    std::vector<TimeService> services;
    for (const char* name : {"ptp4l", "chronyd", "ntpd"}) {
        std::string text;
        struct stat st;
        if (!readFirstLine(dir + "/" + name + ".pid", kMaxPidFile, text, &st)) {
            continue;
        }
        TimeService service;
        service.name = name;
        service.pid = parsePid(text);
        if (service.pid == 0 || !alive(service.pid)) {
            continue;
        }
        service.since = st.st_mtime;
        std::string role;
        if (service.name == "ptp4l" && readFirstLine(dir + "/ptp4l.role", kMaxPidFile, role, nullptr) &&
            (role == "server" || role == "follower")) {
            service.role = role;
        }
        services.push_back(service);
    }
    return services;
}

}  // namespace tsdctl

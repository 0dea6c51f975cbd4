#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "tsdsim/SimClock.h"

namespace tsdsim {

class LoopThread;

// The module's /dev/log: a unix datagram socket that every program of the
// module logs to (the sandbox links /dev/log to it) and the simulator reads
// on its loop thread, keeping each line with its priority and the program's
// name. Lines are read as they come, so a daemon logging in bursts never
// blocks on a full socket.
//
// Threads: constructed and destroyed by the world's thread; lines() may be
// called from any thread.
class ModuleSyslog
{
public:
    struct Line
    {
        double time = 0;    // seconds since the world began
        int priority = 0;   // LOG_ERR ... LOG_DEBUG
        std::string ident;  // program name
        std::string text;
    };

    // Binds socketPath (world-writable) and starts reading. Throws
    // std::runtime_error.
    // onLine runs on the loop thread after each batch of lines (the world
    // wakes its waiters with it).
    ModuleSyslog(LoopThread& io, SimClock clock, const std::string& socketPath,
                 std::function<void()> onLine = {});
    ~ModuleSyslog();
    ModuleSyslog(const ModuleSyslog&) = delete;
    ModuleSyslog& operator=(const ModuleSyslog&) = delete;

    std::vector<Line> lines() const;

    // One datagram as a syslog(3) client writes it: "<PRI>Mmm dd hh:mm:ss
    // ident[pid]: text"; other loggers may put a host name before the ident.
    static Line parse(std::string datagram);

private:
    void onReadable();
    void close();

    LoopThread& m_io;
    SimClock m_clock;
    std::function<void()> m_onLine;
    int m_fd = -1;
    mutable std::mutex m_mutex;  // guards m_lines
    std::vector<Line> m_lines;
};

}  // namespace tsdsim

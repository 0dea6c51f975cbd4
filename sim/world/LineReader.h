#pragma once

#include <functional>
#include <string>
#include <vector>

namespace tsdsim {

class LoopThread;

// Reads a bus client's stdout (a non-blocking pipe) on the loop thread and
// hands over complete lines, keeping an incomplete last line until the rest
// arrives. When the client closes its end the reader stops watching; the
// module notices the ended client and starts another.
//
// start() and stop() come from the world's thread; onLines runs on the loop
// thread.
class LineReader
{
public:
    using OnLines = std::function<void(const std::vector<std::string>& lines)>;

    explicit LineReader(LoopThread& io);
    ~LineReader();
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    // Watches fd (not owned) instead of whatever it watched before.
    void start(int fd, OnLines onLines);
    // Once this returns, onLines is not running and will not run again.
    void stop();

private:
    void onReadable();

    LoopThread& m_io;
    int m_fd = -1;
    OnLines m_onLines;
    std::string m_buffer;  // loop thread while watching
};

}  // namespace tsdsim

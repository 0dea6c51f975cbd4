#pragma once

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace testsupport {

// Captures what this process writes with syslog(3): binds a unix datagram
// socket over /dev/log inside the test's private mount namespace (see
// PrivateMounts) and reads the lines back with their priority. One capture at
// a time per process.
class SyslogCapture
{
public:
    struct Line
    {
        int priority = 0;  // LOG_ERR, LOG_WARNING, ... (the facility stripped)
        int facility = 0;  // LOG_USER, ...
        std::string text;  // the message as logged, trailing blanks kept
    };

    SyslogCapture();
    ~SyslogCapture();
    SyslogCapture(const SyslogCapture&) = delete;
    SyslogCapture& operator=(const SyslogCapture&) = delete;

    // Everything logged since construction or the last clear().
    const std::vector<Line>& lines();
    void clear();

    // Number of lines with exactly this text and priority.
    std::size_t count(int priority, const std::string& text);
    bool contains(int priority, const std::string& text) { return count(priority, text) > 0; }
    // Number of lines with exactly this text at any priority.
    std::size_t countText(const std::string& text);
    // All lines joined with newlines, "<priority> text", for failure messages.
    std::string dump();

private:
    void readLoop();
    void drain();

    int m_fd = -1;
    int m_stop = -1;
    std::thread m_reader;
    std::mutex m_mutex;
    std::vector<Line> m_received;  // filled by the reader thread
    std::vector<Line> m_lines;     // owned by the test's thread
};

}  // namespace testsupport

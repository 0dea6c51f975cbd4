#pragma once

#include <string>

namespace testsupport {

// What the test process writes to one of its standard streams (STDOUT_FILENO
// or STDERR_FILENO) goes to a file under the private scratch directory (see
// PrivateMounts) while the guard lives; text() gives the stream back and
// returns what was written.
class StreamCapture
{
public:
    explicit StreamCapture(int fd);
    ~StreamCapture();
    StreamCapture(const StreamCapture&) = delete;
    StreamCapture& operator=(const StreamCapture&) = delete;

    std::string text();

private:
    void restore();

    int m_fd;
    int m_saved = -1;
    std::string m_path;
};

}  // namespace testsupport

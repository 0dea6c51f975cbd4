#pragma once

#include <string>

namespace orv::tsd {

// Runs one shell command line for the time-service managers and returns its
// status as system() reports it (0 is success, anything else a failure).
// Production uses systemRunner(); tests hand the managers a recorder instead.
class CommandRunner
{
public:
    virtual ~CommandRunner() = default;
    virtual int run(const std::string& command) = 0;
};

// The process-wide runner that passes each command to system(). It blocks
// the calling thread until the command returns.
CommandRunner& systemRunner();

// Writes the one-line file a time service reads: text and a line feed, the
// file created or truncated. False when it cannot be opened; the caller logs
// that in its own words and starts the service anyway.
bool writeServiceFile(const char* path, const std::string& text);

}  // namespace orv::tsd

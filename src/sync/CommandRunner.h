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

}  // namespace orv::tsd

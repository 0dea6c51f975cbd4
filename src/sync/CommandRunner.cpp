#include "sync/CommandRunner.h"

#include <cstdlib>

namespace orv::tsd {

namespace {

class SystemRunner : public CommandRunner
{
public:
    int run(const std::string& command) override { return std::system(command.c_str()); }
};

}  // namespace

CommandRunner& systemRunner()
{
    static SystemRunner runner;
    return runner;
}

}  // namespace orv::tsd

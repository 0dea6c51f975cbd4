#include "sync/CommandRunner.h"

#include <cstdlib>
#include <fstream>

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

bool writeServiceFile(const char* path, const std::string& text)
{
    std::ofstream file(path, std::ios::out | std::ios::trunc);
    if (!file.is_open()) {
        return false;
    }
    file << text << '\n';
    file.flush();
    return true;
}

}  // namespace orv::tsd

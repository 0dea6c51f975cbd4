#include "testsupport/LocalVelad.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>

namespace testsupport {

LocalVelad::LocalVelad(const std::vector<std::string>& extraArgs, std::uint16_t port)
{
    std::vector<std::string> argv{binDir() + "/velad", "--port", std::to_string(port)};
    argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
    m_process = std::make_unique<ChildProcess>(argv);
    std::string line;
    const std::string announce = "velad listening on ";
    if (!m_process->readLine(line) || line.rfind(announce, 0) != 0) {
        ADD_FAILURE() << "velad did not start (" << argv[0] << "): '" << line << "' "
                      << m_process->readAllStderr(std::chrono::milliseconds(500));
        return;
    }
    m_port = static_cast<std::uint16_t>(std::stoul(line.substr(line.rfind(':') + 1)));
}

LocalVelad::~LocalVelad()
{
    m_process->signalAndWait(SIGTERM, std::chrono::seconds(5));
}

}  // namespace testsupport

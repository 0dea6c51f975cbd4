#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "testsupport/ChildProcess.h"

namespace testsupport {

// A velad of the test's own on 127.0.0.1, by default on a port the kernel
// picked (it reports the port it got on its first line). A broker that does
// not start is a failure of the running test, and port() stays 0. The
// destructor stops it with SIGTERM by pid and reaps it (SIGKILL when it does
// not end within a few seconds).
class LocalVelad
{
public:
    explicit LocalVelad(const std::vector<std::string>& extraArgs = {}, std::uint16_t port = 0);
    ~LocalVelad();
    LocalVelad(const LocalVelad&) = delete;
    LocalVelad& operator=(const LocalVelad&) = delete;

    std::uint16_t port() const { return m_port; }
    ChildProcess& process() { return *m_process; }

private:
    std::unique_ptr<ChildProcess> m_process;
    std::uint16_t m_port = 0;
};

}  // namespace testsupport

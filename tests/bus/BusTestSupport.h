#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "testsupport/ChildProcess.h"
#include "testsupport/LocalVelad.h"
#include "testsupport/LoopRun.h"

namespace bustest {

std::string veladPath();
std::string velaPath();

// Runs vela with the given arguments against port; returns the exit status
// and fills out/err.
int runVela(std::uint16_t port, const std::vector<std::string>& args, std::string* out = nullptr,
            std::string* err = nullptr, std::chrono::milliseconds timeout = std::chrono::seconds(20));

}  // namespace bustest

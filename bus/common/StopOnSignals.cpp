#include "StopOnSignals.h"

#include <orv/sys/EventLoop.h>

#include <signal.h>

#include <cstring>

namespace vela {
namespace {

orv::sys::EventLoop* g_loop = nullptr;

void onStopSignal(int)
{
    if (g_loop) {
        g_loop->stop();  // async-signal-safe
    }
}

}  // namespace

StopOnSignals::StopOnSignals(orv::sys::EventLoop& loop)
{
    g_loop = &loop;
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = onStopSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

StopOnSignals::~StopOnSignals()
{
    g_loop = nullptr;
}

}  // namespace vela

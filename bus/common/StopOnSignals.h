#pragma once

namespace orv::sys {
class EventLoop;
}

namespace vela {

// SIGINT and SIGTERM end a bus program in order: the handler only stops the
// loop, and the program then leaves execute() and exits 0. Installed for the
// life of the object; one at a time per process.
class StopOnSignals
{
public:
    explicit StopOnSignals(orv::sys::EventLoop& loop);
    ~StopOnSignals();
    StopOnSignals(const StopOnSignals&) = delete;
    StopOnSignals& operator=(const StopOnSignals&) = delete;
};

}  // namespace vela

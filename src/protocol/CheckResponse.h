#pragma once

#include <string>

#include <orv/sys/Timer.h>

#include "config/InterfaceType.h"

namespace orv::communication {
class MulticastServer;
}
namespace orv::sys {
class EventLoop;
}

namespace orv::tsd {

class TsdErrors;

// Supervises one side's election: after a start or resync every module of
// the side must announce itself within 3000 ms. On time-out it sends a resync
// and raises -1 (rear) or -2 (front); completion cancels the timer, which
// withdraws that error.
class CheckResponse
{
public:
    static constexpr int kWaitPeriodMs = 3000;

    CheckResponse(interface_t side, orv::sys::EventLoop& loop, orv::communication::MulticastServer& server,
                  TsdErrors& errors);
    CheckResponse(const CheckResponse&) = delete;
    CheckResponse& operator=(const CheckResponse&) = delete;

    void startWaitPeriod();
    void notify();
    void setError(int code, const std::string& text);
    void timerCb(bool fired);

private:
    interface_t m_side;
    orv::sys::Timer m_timer;
    orv::communication::MulticastServer& m_server;
    std::string m_errorText;
    TsdErrors& m_errors;
};

}  // namespace orv::tsd

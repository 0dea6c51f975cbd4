#include "protocol/CheckResponse.h"

#include <chrono>

#include "errors/TsdErrors.h"
#include "protocol/CommandProcessor.h"

namespace orv::tsd {
namespace {

// The missing-answer error of each side.
int missingAnswerCode(interface_t side)
{
    return side == REAR_FW ? -1 : -2;
}

}  // namespace

CheckResponse::CheckResponse(interface_t side, orv::sys::EventLoop& loop,
                             orv::communication::MulticastServer& server, TsdErrors& errors)
    : m_side(side), m_timer(loop), m_server(server), m_errors(errors)
{
}

void CheckResponse::startWaitPeriod()
{
    // Every start or resync of the side gives the modules a fresh period.
    m_timer.set(std::chrono::milliseconds(kWaitPeriodMs), false, [this](bool fired) { timerCb(fired); });
}

void CheckResponse::notify()
{
    m_timer.cancel();
}

void CheckResponse::setError(int code, const std::string& text)
{
    m_errors.add(code, text);
}

void CheckResponse::timerCb(bool fired)
{
    const int code = missingAnswerCode(m_side);
    if (fired) {
        // Ask the side again before reporting, so that a module that only
        // missed the first request gets its chance.
        CommandProcessor::sendResync(m_side, m_server);
        m_errors.add(code, "");
    } else {
        m_errors.remove(code);
    }
}

}  // namespace orv::tsd

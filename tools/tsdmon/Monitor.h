#pragma once

#include <string>
#include <vector>

#include <orv/sys/Timer.h>

#include "ElectionTracker.h"
#include "LiveView.h"
#include "MonitorOptions.h"
#include "TelegramListener.h"

namespace orv::sys {
class EventLoop;
}

namespace tsdmon {

// tsdmon's body on one event loop: the listener hands every datagram to the
// tracker, a timer closes the rounds whose window ended, and each event goes
// out in the chosen form (live view, lines, JSON). Owns its timers, so that
// destroying it cancels them.
class Monitor
{
public:
    // Exit statuses of run().
    static constexpr int kExitOk = 0;
    static constexpr int kExitFailure = 1;  // cannot listen, or the output failed
    static constexpr int kExitUsage = 2;    // no usable group or port

    Monitor(const MonitorOptions& options, orv::sys::EventLoop& loop, int outputFd);
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;

    // Listens until the loop is stopped (signal, --for, or a failed output);
    // messages about failures go to standard error.
    int run();

private:
    MonitorOptions m_options;
    orv::sys::EventLoop& m_loop;
    int m_outputFd;
    MonitorOptions::Output m_output;
    TelegramListener m_listener;
    ElectionTracker m_tracker;
    LiveView m_view;
    orv::sys::Timer m_roundTimer;
    orv::sys::Timer m_redrawTimer;
    orv::sys::Timer m_stopTimer;
    bool m_outputFailed = false;
    bool m_outputClosed = false;  // the reader went away (EPIPE): a normal end
    bool m_drawn = false;

    void onObservation(const Observation& observation);
    void onRoundTimer();
    void emit(const std::vector<MonitorEvent>& events);
    void armRoundTimer();
    void redraw();
    void write(const std::string& text);
};

}  // namespace tsdmon

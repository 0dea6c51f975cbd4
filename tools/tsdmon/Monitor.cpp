#include "Monitor.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>

#include <orv/sys/EventLoop.h>

#include "EventWriter.h"

namespace tsdmon {

namespace {

// The live view's countdowns and clock move on even without telegrams.
constexpr std::chrono::milliseconds kRedrawPeriod(1000);

}  // namespace

Monitor::Monitor(const MonitorOptions& options, orv::sys::EventLoop& loop, int outputFd)
    : m_options(options),
      m_loop(loop),
      m_outputFd(outputFd),
      m_output(options.output),
      m_listener(loop),
      m_roundTimer(loop),
      m_redrawTimer(loop),
      m_stopTimer(loop)
{
    if (m_output == MonitorOptions::Output::Auto)
        m_output = ::isatty(outputFd) == 1 ? MonitorOptions::Output::Live : MonitorOptions::Output::Lines;
}

int Monitor::run()
{
    std::string group;
    unsigned port = 0;
    const std::string problem = resolveGroup(m_options, group, port);
    if (!problem.empty()) {
        std::fprintf(stderr, "tsdmon: %s\n", escapeBytes(problem).c_str());
        return kExitUsage;
    }

    const std::string interfaces[2] = {m_options.watchRear ? m_options.rearInterface : std::string(),
                                       m_options.watchFront ? m_options.frontInterface : std::string()};
    m_view.setTarget(group, port, m_options.rearInterface, m_options.frontInterface, m_options.watchRear,
                     m_options.watchFront);
    const std::string failure = m_listener.start(
        group, port, interfaces, [this](const Observation& observation) { onObservation(observation); },
        [this](const MonitorEvent& event) { emit({event}); });
    if (!failure.empty()) {
        std::fprintf(stderr, "tsdmon: %s\n", escapeBytes(failure).c_str());
        return kExitFailure;
    }

    if (m_options.seconds) {
        const auto period = std::chrono::milliseconds(static_cast<long long>(std::ceil(*m_options.seconds * 1000)));
        m_stopTimer.set(period, false, [this](bool fired) {
            if (fired)
                m_loop.stop();
        });
    }
    if (m_output == MonitorOptions::Output::Live) {
        redraw();
        m_redrawTimer.set(kRedrawPeriod, true, [this](bool fired) {
            if (fired)
                redraw();
        });
    }

    m_loop.execute();

    // What was heard of a round still open is not lost.
    if (!m_outputFailed && !m_outputClosed)
        emit(m_tracker.finish(TelegramListener::wallMs()));
    if (m_output == MonitorOptions::Output::Live && !m_outputFailed && !m_outputClosed)
        write("\n");
    if (m_outputFailed) {
        std::fprintf(stderr, "tsdmon: cannot write the output\n");
        return kExitFailure;
    }
    return kExitOk;
}

void Monitor::onObservation(const Observation& observation)
{
    // A round whose window ended while the loop was busy closes before the
    // new telegram is counted.
    emit(m_tracker.expire(observation.monotonicMs));
    emit(m_tracker.observe(observation));
    armRoundTimer();
}

void Monitor::onRoundTimer()
{
    emit(m_tracker.expire(TelegramListener::monotonicMs()));
    armRoundTimer();
}

void Monitor::armRoundTimer()
{
    const std::optional<std::int64_t> deadline = m_tracker.nextDeadline();
    if (!deadline)
        return;
    // At least 1 ms: a zero period would disarm the timer instead of firing it.
    const std::int64_t wait = std::max<std::int64_t>(*deadline - TelegramListener::monotonicMs(), 1);
    m_roundTimer.set(std::chrono::milliseconds(wait), false, [this](bool fired) {
        if (fired)
            onRoundTimer();
    });
}

void Monitor::emit(const std::vector<MonitorEvent>& events)
{
    if (events.empty())
        return;
    for (const MonitorEvent& event : events) {
        switch (m_output) {
            case MonitorOptions::Output::Json:
                write(toJson(event) + "\n");
                break;
            case MonitorOptions::Output::Live:
                m_view.record(event);
                break;
            default:
                write(toText(event) + "\n");
                break;
        }
    }
    if (m_output == MonitorOptions::Output::Live)
        redraw();
}

void Monitor::redraw()
{
    winsize size{};
    unsigned width = 0;
    unsigned height = 0;
    if (::ioctl(m_outputFd, TIOCGWINSZ, &size) == 0) {
        width = size.ws_col;
        // One row stays free so that the last line's newline does not scroll.
        height = size.ws_row > 1 ? size.ws_row - 1u : 0u;
    }
    const std::string screen = m_view.render(m_tracker, TelegramListener::wallMs(), width, height);
    // Home, then every line overwritten and its rest cleared, then whatever
    // the last frame had below: the view refreshes in place without flicker.
    std::string frame = m_drawn ? "\x1b[H" : "\x1b[H\x1b[2J";
    std::string::size_type begin = 0;
    for (std::string::size_type end; (end = screen.find('\n', begin)) != std::string::npos; begin = end + 1)
        frame += screen.substr(begin, end - begin) + "\x1b[K\n";
    frame += "\x1b[J";
    m_drawn = true;
    write(frame);
}

void Monitor::write(const std::string& text)
{
    if (m_outputFailed || m_outputClosed)
        return;
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(m_outputFd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            // A reader that stopped reading (tsdmon --json | head) ends the
            // watch as it would end any pipe; anything else is a failure.
            (errno == EPIPE ? m_outputClosed : m_outputFailed) = true;
            m_loop.stop();
            return;
        }
        done += static_cast<std::size_t>(n);
    }
}

}  // namespace tsdmon

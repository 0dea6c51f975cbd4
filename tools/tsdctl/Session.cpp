#include "Session.h"

#include <orv/sys/EventLoop.h>

#include <JsonText.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "TimeServices.h"

namespace tsdctl {

namespace {

const char kStatePrefix[] = "sync/";
// How often watch looks at the pid files and the bus connection. The bus
// states themselves arrive as they change.
constexpr std::chrono::milliseconds kPollPeriod(1000);

std::chrono::milliseconds toMs(double seconds)
{
    return std::chrono::milliseconds(static_cast<long long>(std::ceil(seconds * 1000)));
}

// The wall clock with milliseconds, "2026-11-22T23:10:01.123Z".
std::string nowText()
{
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::string text = isoTime(seconds);
    char fraction[8];
    std::snprintf(fraction, sizeof fraction, ".%03lld", static_cast<long long>(ms));
    return text.insert(text.size() - 1, fraction);
}

}  // namespace

Session::Session(orv::sys::EventLoop& loop, const Options& options)
    : m_loop(loop),
      m_options(options),
      m_peer(loop, options.address, options.port, "tsdctl"),
      m_busDeadline(loop),
      m_runDeadline(loop),
      m_poll(loop)
{
}

int Session::exitStatus() const
{
    if (!m_done) {
        return m_watching ? 0 : 3;
    }
    return m_status;
}

std::string Session::where() const
{
    return m_options.address + ":" + std::to_string(m_options.port);
}

ModuleState Session::current() const
{
    ModuleState state;
    if (m_answered) {
        state = fromBusStates(m_states);
        state.busReachable = m_peer.isConnected();
    }
    state.services = readTimeServices();
    return state;
}

void Session::print(const std::string& text)
{
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

void Session::finish(int status)
{
    if (m_done) {
        return;
    }
    m_done = true;
    m_status = status;
    m_loop.stop();
}

void Session::status()
{
    vela::matcher_t matcher;
    matcher.startsWith = kStatePrefix;
    m_peer.addFetchAsync(
        matcher, [this](const Json::Value& notification, int) { onNotify(notification); },
        [this](const Json::Value& response) { onFetchAnswered(response); });
    m_busDeadline.set(toMs(m_options.timeout), false, [this](bool fired) {
        if (fired) {
            onBusTimeout();
        }
    });
}

void Session::watch()
{
    m_watching = true;
    status();
    if (m_options.forSeconds >= 0) {
        m_runDeadline.set(std::max(toMs(m_options.forSeconds), std::chrono::milliseconds(1)), false,
                          [this](bool fired) {
                              if (fired) {
                                  finish(0);
                              }
                          });
    }
}

void Session::onNotify(const Json::Value& notification)
{
    const Json::Value& path = notification["path"];
    if (!path.isString()) {
        return;
    }
    if (notification["event"].asString() == "remove") {
        m_states.erase(path.asString());
    } else {
        m_states[path.asString()] = notification["value"];
    }
    if (m_watching && m_answered) {
        showChanges(false);
    }
}

void Session::onFetchAnswered(const Json::Value& response)
{
    if (m_answered || m_done) {
        return;
    }
    if (!response.isMember("result")) {
        // The broker refused the fetch: the bus is there but unusable.
        std::fprintf(stderr, "tsdctl: the broker at %s refused to list the states: %s\n", where().c_str(),
                     printable(vela::toCompact(response["error"])).c_str());
        finish(3);
        return;
    }
    m_answered = true;
    m_busDeadline.cancel();
    if (!m_watching) {
        const ModuleState state = current();
        std::string reason;
        const int code = verdict(state, reason);
        print(m_options.json ? vela::toCompact(renderJson(state, m_options.address, m_options.port)) + "\n"
                             : renderText(state, where(), std::time(nullptr)));
        finish(code);
        return;
    }
    showChanges(true);
    m_poll.set(kPollPeriod, true, [this](bool fired) {
        if (fired) {
            showChanges(false);
        }
    });
}

void Session::onBusTimeout()
{
    if (m_answered || m_done) {
        return;
    }
    if (m_watching) {
        std::fprintf(stderr, "tsdctl: cannot reach the bus at %s\n", where().c_str());
        finish(3);
        return;
    }
    // What can be told without the bus is still told: the time service.
    const ModuleState state = current();
    print(m_options.json ? vela::toCompact(renderJson(state, m_options.address, m_options.port)) + "\n"
                         : renderText(state, where(), std::time(nullptr)));
    finish(3);
}

void Session::showChanges(bool first)
{
    const ModuleState now = current();
    for (const std::string& line : describeChanges(m_shown, now, nowText(), m_options.json, first)) {
        print(line + "\n");
        if (m_options.count > 0 && ++m_changes >= m_options.count) {
            finish(0);
            break;
        }
    }
    m_shown = now;
}

}  // namespace tsdctl

#pragma once

// Test helpers for the daemon's bus traffic: a real velad of the test's own
// on a free loopback port (ended by its pid), a watcher that records what the
// daemon's objects publish, and a way to run an event loop until something
// happened. Header-only: each test program includes what it needs.

#include <gtest/gtest.h>
#include <json/value.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <orv/sys/EventLoop.h>
#include <orv/sys/Timer.h>
#include <vela/PeerAsync.h>

namespace tsdtest {

// Directory of the running test executable: velad, vela and tsd are built
// next to it.
inline std::string binDir()
{
    char path[4096];
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0)
        return ".";
    std::string exe(path, static_cast<std::size_t>(n));
    return exe.substr(0, exe.rfind('/'));
}

// A velad on 127.0.0.1, by default with a port the kernel picked.
class LocalBroker
{
public:
    explicit LocalBroker(unsigned port = 0)
    {
        const std::string portText = std::to_string(port);
        int out[2];
        if (::pipe(out) != 0) {
            ADD_FAILURE() << "pipe";
            return;
        }
        const std::string velad = binDir() + "/velad";
        m_pid = ::fork();
        if (m_pid == 0) {
            ::dup2(out[1], STDOUT_FILENO);
            ::close(out[0]);
            ::close(out[1]);
            ::execl(velad.c_str(), "velad", "--port", portText.c_str(), "--quiet",
                    static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(out[1]);
        // The broker announces its port once it listens.
        FILE* in = ::fdopen(out[0], "r");
        char line[256] = {};
        if (in == nullptr || std::fgets(line, sizeof line, in) == nullptr) {
            ADD_FAILURE() << "velad did not start (" << velad << ")";
        } else {
            const std::string text(line);
            const auto colon = text.rfind(':');
            m_port =
                colon == std::string::npos ? 0 : static_cast<unsigned>(std::stoul(text.substr(colon + 1)));
        }
        if (in != nullptr)
            std::fclose(in);
        else
            ::close(out[0]);
    }
    ~LocalBroker()
    {
        if (m_pid > 0) {
            ::kill(m_pid, SIGTERM);
            int status = 0;
            ::waitpid(m_pid, &status, 0);
        }
    }
    LocalBroker(const LocalBroker&) = delete;
    LocalBroker& operator=(const LocalBroker&) = delete;

    unsigned port() const { return m_port; }
    pid_t pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
    unsigned m_port = 0;
};

// Runs loop until condition holds (checked every 5 ms) or timeout passes.
inline bool runUntil(orv::sys::EventLoop& loop, const std::function<bool()>& condition,
                     std::chrono::milliseconds timeout)
{
    if (condition())
        return true;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    bool met = false;
    orv::sys::Timer poll(loop);
    poll.set(std::chrono::milliseconds(5), true, [&](bool fired) {
        if (!fired)
            return;
        if (condition()) {
            met = true;
            loop.stop();
        } else if (std::chrono::steady_clock::now() >= deadline) {
            loop.stop();
        }
    });
    loop.execute();
    poll.cancel();
    return met;
}

// Runs loop for a while, for checks that something does NOT happen.
inline void runFor(orv::sys::EventLoop& loop, std::chrono::milliseconds period)
{
    const auto deadline = std::chrono::steady_clock::now() + period;
    runUntil(
        loop, [&] { return std::chrono::steady_clock::now() >= deadline; }, period * 2);
}

// Records every notification of the states under a prefix.
class BusWatcher
{
public:
    struct Event
    {
        std::string event;
        std::string path;
        Json::Value value;
    };

    BusWatcher(orv::sys::EventLoop& loop, unsigned port, const std::string& prefix)
        : m_peer(loop, "127.0.0.1", port, "watcher")
    {
        vela::matcher_t matcher;
        matcher.startsWith = prefix;
        m_peer.addFetchAsync(
            matcher,
            [this](const Json::Value& notification, int) {
                Event e{notification["event"].asString(), notification["path"].asString(),
                        notification["value"]};
                if (e.event == "remove")
                    m_states.erase(e.path);
                else
                    m_states[e.path] = e.value;
                m_events.push_back(e);
            },
            [this](const Json::Value&) { m_ready = true; });
    }

    bool ready() const { return m_ready; }
    const std::map<std::string, Json::Value>& states() const { return m_states; }
    bool has(const std::string& path) const { return m_states.count(path) != 0; }
    Json::Value state(const std::string& path) const
    {
        const auto it = m_states.find(path);
        return it == m_states.end() ? Json::Value() : it->second;
    }
    const std::vector<Event>& events() const { return m_events; }
    std::vector<Event> eventsFor(const std::string& path) const
    {
        std::vector<Event> out;
        for (const Event& e : m_events) {
            if (e.path == path)
                out.push_back(e);
        }
        return out;
    }

private:
    vela::PeerAsync m_peer;
    bool m_ready = false;
    std::map<std::string, Json::Value> m_states;
    std::vector<Event> m_events;
};

}  // namespace tsdtest

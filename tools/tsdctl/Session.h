#pragma once

#include <orv/sys/Timer.h>
#include <vela/PeerAsync.h>

#include <json/value.h>

#include <map>
#include <string>

#include "ModuleState.h"
#include "Options.h"

namespace orv::sys {
class EventLoop;
}

namespace tsdctl {

// One run of tsdctl on the caller's EventLoop: a read-only bus peer that
// fetches the daemon's states under "sync/", the pid files of the time
// services, and the output of the command. Lines go to stdout, flushed one at
// a time; the loop is stopped when the command is done.
class Session
{
public:
    Session(orv::sys::EventLoop& loop, const Options& options);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Each starts its command; the loop then runs until the command ends it.
    void status();
    void watch();

    // The exit status; for a run ended by a signal before the command was
    // done: 0 for watch, 3 (unknown) for status.
    int exitStatus() const;

private:
    ModuleState current() const;
    void onNotify(const Json::Value& notification);
    void onFetchAnswered(const Json::Value& response);
    void onBusTimeout();
    void showChanges(bool first);
    void print(const std::string& text);
    void finish(int status);
    std::string where() const;

    orv::sys::EventLoop& m_loop;
    const Options& m_options;
    vela::PeerAsync m_peer;
    orv::sys::Timer m_busDeadline;  // reaching the bus and reading the states
    orv::sys::Timer m_runDeadline;  // watch --for
    orv::sys::Timer m_poll;         // watch: pid files and the bus connection
    bool m_watching = false;
    bool m_answered = false;  // the fetch has delivered every state present
    bool m_done = false;
    int m_status = 3;
    long m_changes = 0;
    std::map<std::string, Json::Value> m_states;  // path -> value, under "sync/"
    ModuleState m_shown;                          // watch: what the last lines told
};

}  // namespace tsdctl

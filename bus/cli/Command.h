#pragma once

#include "CliOptions.h"

#include <orv/sys/Timer.h>
#include <vela/PeerAsync.h>

#include <json/value.h>

#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <string>

namespace orv::sys {
class EventLoop;
}

namespace vela::cli {

// One run of the client: a PeerAsync on the caller's EventLoop, the command's
// state and its exit status. Output goes to stdout, one flushed line at a
// time; errors to stderr. Times are in the seconds of CliOptions.
class Command
{
public:
    Command(orv::sys::EventLoop& loop, const CliOptions& options);
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    // Each starts its command; the loop then runs until the command ends it.
    void get(const std::string& path);
    void list(const std::string& prefix);
    void set(const std::string& path, const Json::Value& value);
    void watch(const std::string& prefix);
    // 0, or -1 (with a message) when stdin cannot be read.
    int own();

    int status() const { return m_status; }

private:
    orv::sys::EventLoop& m_loop;
    const CliOptions& m_options;
    PeerAsync m_peer;
    orv::sys::Timer m_deadline;
    orv::sys::Timer m_reachCheck;
    int m_status = 0;

    std::optional<Json::Value> m_value;         // get
    std::map<std::string, std::string> m_list;  // list: path -> compact JSON, sorted
    long m_lines = 0;                           // watch
    bool m_stopped = false;

    // own
    std::string m_partial;
    bool m_eof = false;
    bool m_watchingStdin = false;
    // Answers in input order: a slot per line, printed once all earlier
    // slots are.
    std::deque<std::optional<std::string>> m_answers;
    std::size_t m_firstSlot = 0;

    void finish(int status);
    void fail(const std::string& message);
    // get, list and set give up when the broker cannot be reached or does
    // not answer, instead of waiting forever.
    void armTimeout();
    std::string where() const;

    void readStdin();
    void handleLine(const std::string& line);
    void flushAnswers();
    void maybeDone();
};

}  // namespace vela::cli

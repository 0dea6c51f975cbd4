#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "tsdsim/ModuleSetup.h"

namespace tsdsim {

class ChildProcess;
class LineReader;
class LoopThread;

// What the platform would publish on a module's bus, published through a
// `vela own` client that reads one request per line on stdin ("add PATH
// JSON", "change PATH JSON", "remove PATH") and answers each with "ok" or
// "error ...": the state "sync/param" and one "reachableDevices/IFNAME/NODE"
// (value {}) per reachable device.
//
// The publisher keeps what the module publishes also while no client runs,
// and gives all of it to each new client, which holds nothing yet.
//
// Threads: everything but the acknowledgements, which are read on the loop
// thread, belongs to the world's thread.
class Publisher
{
public:
    Publisher(LoopThread& io, const SyncParam& param);
    ~Publisher();
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;

    // A new client (stdin and stdout piped, not owned) takes over and gets
    // everything published so far; detach() lets it go (closes its stdin, so
    // that it ends).
    void attach(ChildProcess& client);
    void detach();

    void setParam(const SyncParam& param);
    void removeParam();
    const SyncParam& param() const { return m_param; }
    bool paramPublished() const { return m_paramPublished; }
    // Replaces the set of reachable-device paths (full paths).
    void setReachable(const std::set<std::string>& paths);
    const std::set<std::string>& reachable() const { return m_reachable; }

    // Waits until the client has answered every line; false on time-out.
    bool waitPublished(std::chrono::milliseconds timeout);
    std::string lastError() const;

private:
    void send(const std::string& line);
    // On the loop thread, for each batch of the client's answers.
    void countAnswers(const std::vector<std::string>& lines);

    ChildProcess* m_client = nullptr;
    SyncParam m_param;
    bool m_paramPublished = false;
    std::set<std::string> m_reachable;

    std::unique_ptr<LineReader> m_reader;
    mutable std::mutex m_mutex;  // guards the four below
    std::condition_variable m_answered;
    unsigned long m_linesSent = 0;
    unsigned long m_linesAnswered = 0;
    std::string m_lastError;
};

}  // namespace tsdsim

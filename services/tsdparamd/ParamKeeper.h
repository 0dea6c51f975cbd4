#pragma once

#include <json/value.h>

#include <chrono>
#include <functional>
#include <string>

namespace vela {
class PeerAsync;
}

namespace orv::services {

class FileSystem;
class ParamRules;

// The owner of "sync/param" on the bus. Starts from the state file when it
// holds a valid value, else from the shipped defaults file, else from the
// built-in value; a state file that does not hold a valid value is moved
// aside as "<state file>.bad", so a module always starts with a valid value
// and the evidence is kept. Answers set requests: the keys given replace
// those of the current value, the result is checked as a whole, stored in
// the state file (crash-safe) and only then shown on the bus; a refused or
// unstorable value changes nothing. Runs on the loop of its peer.
class ParamKeeper
{
public:
    static constexpr const char* kPath = "sync/param";
    // Refusals logged per window; more are counted and summed up later, so
    // that a client hammering the keeper cannot flood the log.
    static constexpr unsigned kMaxLoggedRefusals = 10;
    static constexpr std::chrono::seconds kRefusalWindow{60};

    struct Files
    {
        std::string state;     // written on every accepted set
        std::string defaults;  // read only
    };

    ParamKeeper(vela::PeerAsync& peer, const ParamRules& rules, Files files, FileSystem& fs);
    ParamKeeper(const ParamKeeper&) = delete;
    ParamKeeper& operator=(const ParamKeeper&) = delete;

    // Chooses the starting value and adds the state; added runs with the
    // broker's answer: an empty text on success, else its error message.
    void start(std::function<void(const std::string& error)> added);
    // Takes the state off the bus; removed runs with the broker's answer.
    void stop(std::function<void()> removed);

    const Json::Value& value() const { return m_value; }

private:
    vela::PeerAsync& m_peer;
    const ParamRules& m_rules;
    const Files m_files;
    FileSystem& m_fs;
    Json::Value m_value;
    std::chrono::steady_clock::time_point m_windowStart{};
    unsigned m_refusalsInWindow = 0;
    unsigned m_refusalsUnlogged = 0;

    Json::Value startingValue();
    // The file's value over the built-ins when it is valid; null otherwise,
    // with why.
    Json::Value validFrom(const std::string& path, bool& present, std::string& why);
    Json::Value cbSet(const Json::Value& request);
    void logRefusal(const std::string& fault);
};

}  // namespace orv::services

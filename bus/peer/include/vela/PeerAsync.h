#pragma once

#include <json/value.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

namespace orv::sys {
class EventLoop;
}

namespace vela {

// Selects state paths for a fetch. Each criterion applies when it is not
// empty; a path matches when it passes every applied criterion. An all-empty
// matcher matches every path.
struct matcher_t
{
    std::string equals;      // the path is exactly this
    std::string startsWith;  // the path begins with this
    std::string endsWith;    // the path ends with this
    std::string contains;    // the path contains this
    std::string equalsNot;   // the path is anything but this
};

// Answer of the broker to a request: an object with "result" on success or
// "error" ({"code": int, "message": string}) on failure.
using ResponseCallback = std::function<void(const Json::Value& response)>;
// A fetch notification {"path": ..., "event": "add"|"change"|"remove",
// "value": ...} and the id of the fetch that matched it.
using FetchCallback = std::function<void(const Json::Value& notification, int fetchId)>;
// A set request on an own state: the requested value and the state's path.
// The returned value (null allowed) is the answer to the requester.
using SetCallback = std::function<Json::Value(const Json::Value& value, const std::string& path)>;

// Thrown by a set callback that checked the requested value and will not take
// it: the requester gets error -32012 with what() as the message, and the
// owner's log gets no error line (a refusal is the callback doing its job).
// Any other exception is a failure of the callback (-32011, logged).
class SetRefused : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// A participant of the vela bus, driven by an orv::sys::EventLoop. Every call
// returns at once; the request goes out when the connection is up (calls made
// before that are queued) and the optional callbacks run later on the loop.
//
// When the broker goes away the peer reconnects with a bounded back-off and
// restores, by itself, all its states (with their current values) and fetches;
// the owner of the peer notices nothing but a log line. Its fetch callbacks
// see only what really changed across the break: "change" for a state whose
// value changed, "add" for a new one, "remove" (with a null value) for one
// that did not come back, and nothing for a state that is as it was.
//
// A state the peer adds stays its own: when the broker refuses the add
// because another connection holds the path, or because it has no room left,
// the peer tries again with a growing pause (up to 5 s) until it succeeds,
// and then the peer's current value is the one on the bus.
class PeerAsync
{
public:
    // address: the broker's IPv4 address, or the path of its Unix socket
    // (beginning with '/'; port is then not used). name: how the peer shows
    // itself on the broker until configAsync names it (empty: anonymous).
    // trace: log every frame to standard error.
    PeerAsync(orv::sys::EventLoop& loop, const std::string& address, unsigned port,
              const std::string& name = {}, bool trace = false);
    ~PeerAsync();
    PeerAsync(const PeerAsync&) = delete;
    PeerAsync& operator=(const PeerAsync&) = delete;

    // Names this peer on the broker; debug asks the broker to log its requests.
    void configAsync(const std::string& name, bool debug, ResponseCallback response = {});

    // Adds a state owned by this peer. Without a set callback, set requests
    // from others are refused. A second add of an own path is refused by the
    // broker (error response). When another connection holds the path, or the
    // broker has no room left, the response is that error, its message says
    // the peer keeps trying, and the peer adds the state as soon as the broker
    // takes it (a log line says when). Any other refusal (e.g. the broker's
    // access policy) drops the state.
    void addStateAsync(const std::string& path, const Json::Value& value, ResponseCallback response = {},
                       SetCallback onSet = {});
    void removeStateAsync(const std::string& path, ResponseCallback response = {});
    // Changes the value of an own state; fetchers see "change".
    void notifyState(const std::string& path, const Json::Value& value);
    void notifyState(const std::string& path, const std::string& value);
    void notifyState(const std::string& path, const char* value);

    // Starts a fetch and returns its id at once. Every matching state first
    // arrives as "add", then changes as "change" and removals as "remove". The
    // response callback runs after the states present at that moment have
    // been delivered.
    int addFetchAsync(const matcher_t& matcher, FetchCallback onNotify, ResponseCallback response = {});
    void removeFetchAsync(int fetchId, ResponseCallback response = {});

    // Sends a set request to the owner of path; the response carries the
    // owner's answer as "result", or an error.
    void setAsync(const std::string& path, const Json::Value& value, ResponseCallback response = {});

    // notifyState with an answer: the response tells whether the broker took
    // the change (an error for a path this peer does not own).
    void changeStateAsync(const std::string& path, const Json::Value& value, ResponseCallback response);

    bool isConnected() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace vela

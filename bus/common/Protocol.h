#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <string_view>

// The messages of the bus dialect (JSON-RPC 2.0 over frames, see
// docs/bus-protocol.md): method names, error codes and builders shared by the
// broker, the peer library and the tests. Builders return the compact JSON
// text of one frame payload.
namespace vela::protocol {

// Raised when a message changes incompatibly; the broker refuses a hello with
// another version.
constexpr int kVersion = 1;
constexpr std::uint16_t kDefaultPort = 11122;
constexpr const char* kDefaultAddress = "127.0.0.1";

// Peer -> broker.
constexpr const char* kHello = "hello";
constexpr const char* kConfig = "config";
constexpr const char* kAdd = "add";
constexpr const char* kRemove = "remove";
constexpr const char* kChange = "change";
constexpr const char* kFetch = "fetch";
constexpr const char* kUnfetch = "unfetch";
// Peer -> broker (a set request) and broker -> owner (the routed request).
constexpr const char* kSet = "set";
// Broker -> peer notification.
constexpr const char* kNotify = "notify";

// Events of a notification.
constexpr const char* kEventAdd = "add";
constexpr const char* kEventChange = "change";
constexpr const char* kEventRemove = "remove";

// Error codes. The first four are JSON-RPC's own; the rest are the bus's.
enum ErrorCode : int
{
    kParseError = -32700,
    kInvalidRequest = -32600,
    kMethodNotFound = -32601,
    kInvalidParams = -32602,
    kHelloRequired = -32000,   // a request before hello, or an unsupported version
    kPathExists = -32001,      // add of a path that some peer owns already
    kUnknownPath = -32002,     // no state with this path
    kNotOwner = -32003,        // change/remove of another peer's state
    kNotSettable = -32004,     // the state's owner gave no set callback
    kSetTimeout = -32005,      // the owner did not answer a set request in time
    kOwnerGone = -32006,       // the owner disconnected before answering
    kUnknownFetch = -32007,    // unfetch of an id this peer never fetched
    kFetchExists = -32008,     // fetch with an id this peer uses already
    kFrameTooLarge = -32009,   // bad frame length; the connection closes
    kConnectionLost = -32010,  // local to the peer: the request was lost with the connection
    kSetFailed = -32011,       // the owner's set callback failed
    kSetRefused = -32012,      // the owner checked the value and refused it
    kNotPermitted = -32013,    // the broker's access policy does not grant this to the peer
    kLimitReached = -32014     // a quota of the broker is used up; the message names it
};

// {"jsonrpc":"2.0","id":id,"method":method,"params":params}; id null: a
// notification (no "id" member, no answer expected).
std::string request(const Json::Value& id, std::string_view method, const Json::Value& params);
std::string result(const Json::Value& id, const Json::Value& value);
// id may be null when the request could not be read.
std::string error(const Json::Value& id, int code, std::string_view message);

// A fetch notification whose value is already JSON text (the broker keeps
// values as the text their owner sent). fetchIds are the matching fetch ids
// joined by commas, like "1,4".
std::string notification(std::string_view event, std::string_view fetchIds, std::string_view path,
                         std::string_view valueText);
// The same notification split around the fetch ids: the payload is head,
// fetchIds, then tail. An event that fans out to many connections quotes its
// path and copies its value once.
void notificationParts(std::string_view event, std::string_view path, std::string_view valueText,
                       std::string& head, std::string& tail);

// The set request the broker routes to a state's owner; the value goes on as
// the JSON text the requester wrote.
std::string setRequest(std::int64_t id, std::string_view path, std::string_view valueText);

// A received message, classified.
struct Message
{
    enum class Kind
    {
        kRequest,       // method and id present
        kNotification,  // method, no id
        kResponse,      // result or error, id present
        kInvalid        // none of the above; reason in error
    };
    Kind kind = Kind::kInvalid;
    Json::Value id;      // null for notifications
    std::string method;  // requests and notifications
    Json::Value params;  // requests and notifications (null when absent)
    Json::Value body;    // responses: {"result": ...} or {"error": {...}}
    std::string error;   // kInvalid: why
};

// Classifies a parsed frame. Params must be an object when present; the id
// must be a number or a string.
Message classify(Json::Value&& frame);

}  // namespace vela::protocol

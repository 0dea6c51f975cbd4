#pragma once

#include "Frame.h"

#include <json/value.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "testsupport/ChildProcess.h"
#include "testsupport/LocalVelad.h"
#include "testsupport/LoopRun.h"

namespace bustest {

std::string veladPath();
std::string velaPath();

// The unprivileged user the access tests run their clients as.
constexpr uid_t kNobody = 65534;
constexpr gid_t kNogroup = 65534;

// Runs vela with the given arguments against port; returns the exit status
// and fills out/err.
int runVela(std::uint16_t port, const std::vector<std::string>& args, std::string* out = nullptr,
            std::string* err = nullptr, std::chrono::milliseconds timeout = std::chrono::seconds(20));

// The same as user uid, group gid and no other groups, the way an operator's
// unprivileged shell would run it; stdinText is written to its standard input.
// address is an IPv4 address, or the path of the broker's Unix socket (port
// 0: none given).
int runVelaAs(uid_t uid, gid_t gid, const std::string& address, std::uint16_t port,
              const std::vector<std::string>& args, std::string* out = nullptr, std::string* err = nullptr,
              const std::string& stdinText = {});

// count stream sockets connected to the broker (TCP on 127.0.0.1:port, or the
// Unix socket at unixPath when given) by a child process running as uid and
// gid, and handed to the caller. The broker learns a peer's user from the
// socket (who created it, who connected it), so the caller can then speak
// for that user without being it. Empty on failure.
// receiveBuffer > 0: the sockets get that SO_RCVBUF before they connect,
// so that a client that never reads takes little from the broker.
std::vector<int> socketsOf(uid_t uid, gid_t gid, std::uint16_t port, int count,
                           const std::string& unixPath = {}, int receiveBuffer = 0);

// A blocking client that speaks the frames by hand.
class RawClient
{
public:
    // Connects to 127.0.0.1:port.
    explicit RawClient(std::uint16_t port);
    // Connects to the Unix socket at path.
    explicit RawClient(const std::string& unixPath);
    // Takes a connected socket over.
    static RawClient adopt(int fd);
    ~RawClient();
    RawClient(RawClient&& other) noexcept;
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool ok() const { return m_fd >= 0; }
    int fd() const { return m_fd; }

    bool sendRaw(const std::string& bytes);
    bool sendFrame(const std::string& payload);
    // Sends a request with the next id and returns that id.
    int request(const std::string& method, const Json::Value& params);
    // hello (with an optional name) and its answer; true when answered with
    // a result.
    bool hello(const std::string& name = {});
    // Sends a request and waits for the response with its id, skipping
    // notifications; the response, or null on timeout/EOF.
    Json::Value call(const std::string& method, const Json::Value& params,
                     std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // Next frame as JSON; false at EOF or timeout.
    bool readFrame(Json::Value& out, std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // True when the broker closed the connection (within timeout).
    bool closedByPeer(std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // Shrinks the receive buffer, so that a client that stops reading stops
    // taking data soon.
    void shrinkReceiveBuffer();

private:
    int m_fd = -1;
    int m_nextId = 1;
    vela::FrameDecoder m_decoder{vela::kMaxBrokerFrameSize};
    bool m_eof = false;

    RawClient() = default;
    bool fill(std::chrono::steady_clock::time_point deadline);
};

// {"path": path, "value": value} and the like, for hand-made requests.
Json::Value params(std::initializer_list<std::pair<const char*, Json::Value>> members);
// The error code of a response, 0 when it is a result.
int errorCode(const Json::Value& response);

// The whole content of a file ("" when it cannot be read).
std::string readFile(const std::string& path);

// Peak and current resident memory of a process (KiB), from /proc.
long peakRssKiB(pid_t pid);
long rssKiB(pid_t pid);

// A file under the test's temporary directory, written at once and removed
// by the destructor.
class TempFile
{
public:
    TempFile(const std::string& name, const std::string& content);
    ~TempFile();
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

}  // namespace bustest

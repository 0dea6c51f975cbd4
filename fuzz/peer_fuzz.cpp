// Plays the broker for the peer library over a real Unix socket: the peer
// connects, owns two states (one that takes set requests, one that does not),
// fetches everything, sends a set request and names itself; then the input,
// one line per step, says what the broker does:
//
//   > JSON        send a frame holding JSON (responses, notifications, set
//                 requests, anything)
//   ! BYTES       send BYTES as they are (broken or oversized headers)
//   aN ok         answer the peer's N-th request (counted from 1 on this
//   aN err CODE   connection) with success, or with error CODE: refused
//                 adds (another owner, no room) start the add retries
//   c             close the connection (a broker restart); the peer's next
//                 connection is taken within 150 ms, at most twice per input
//   s WORD        the owner acts: "change", "remove", "unfetch", "set",
//                 "add", "config"
//
// Checks that everything the peer sends is a message the broker can read,
// that responses reach their callbacks as a result or an error, and that
// fetch callbacks see only well-formed notifications. The set callback
// answers, refuses (SetRefused) or fails (another exception) by the value it
// is given.

#include <sys/socket.h>
#include <syslog.h>
#include <sys/un.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <orv/sys/EventLoop.h>
#include <vela/PeerAsync.h>

#include "Frame.h"
#include "JsonText.h"
#include "Protocol.h"
#include "Socket.h"
#include "support/Check.h"

namespace {

struct Broker
{
    std::string path;
    int listenFd = -1;
};

const Broker& broker()
{
    static const Broker b = [] {
        Broker s;
        // The peer logs every reconnection and refusal; a mask that lets only
        // LOG_EMERG through keeps those lines off the host while the code
        // that composes them still runs.
        setlogmask(LOG_MASK(LOG_EMERG));
        s.path = "/dev/shm/tsd-fuzz-peer-" + std::to_string(::getpid()) + ".sock";
        ::unlink(s.path.c_str());
        s.listenFd = vela::socket::listenUnix(s.path);
        if (s.listenFd < 0)
            ::fuzzsupport::fail("cannot listen on the broker's socket", __FILE__, __LINE__);
        std::atexit([] { ::unlink(("/dev/shm/tsd-fuzz-peer-" + std::to_string(::getpid()) + ".sock").c_str()); });
        return s;
    }();
    return b;
}

orv::sys::EventLoop& loop()
{
    static orv::sys::EventLoop l;
    return l;
}

// One dispatch round of the loop, then another for what the first one
// deferred (the peer writes on the loop's next turn).
void turn()
{
    for (int i = 0; i < 2; ++i) {
        loop().post([] { loop().stop(); });
        loop().execute();
    }
}

void checkResponse(const Json::Value& body)
{
    FUZZ_CHECK(body.isObject());
    FUZZ_CHECK(body.isMember("result") != body.isMember("error"));
}

void checkNotification(const Json::Value& n, int fetchId)
{
    FUZZ_CHECK(fetchId == 1);
    FUZZ_CHECK(n.isObject());
    FUZZ_CHECK(n["path"].isString());
    const std::string event = n["event"].isString() ? n["event"].asString() : std::string();
    FUZZ_CHECK(event == "add" || event == "change" || event == "remove");
}

Json::Value onSet(const Json::Value& value, const std::string& path)
{
    FUZZ_CHECK(path == "own/a");
    if (value.isString() && value.asString() == "refuse")
        throw vela::SetRefused("refused");
    if (value.isString() && value.asString() == "fail")
        throw std::runtime_error("failed");
    return value;
}

// The broker's end of one connection: what the peer sent, as requests.
struct Link
{
    int fd = -1;
    vela::FrameDecoder decoder{vela::kMaxFrameSize};
    std::vector<Json::Value> requestIds;

    bool accept()
    {
        for (int i = 0; i < 150 && fd < 0; ++i) {
            turn();
            fd = ::accept4(broker().listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0) {
                pollfd p{broker().listenFd, POLLIN, 0};
                ::poll(&p, 1, 1);
            }
        }
        decoder = vela::FrameDecoder(vela::kMaxFrameSize);
        requestIds.clear();
        return fd >= 0;
    }
    void close()
    {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
    void write(std::string_view bytes)
    {
        while (fd >= 0 && !bytes.empty()) {
            const ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (n < 0 && errno == EAGAIN) {
                turn();
                read();
                continue;
            }
            if (n <= 0)
                return;
            bytes.remove_prefix(static_cast<std::size_t>(n));
        }
    }
    void read()
    {
        char buffer[65536];
        for (;;) {
            const ssize_t n = fd < 0 ? -1 : ::recv(fd, buffer, sizeof buffer, 0);
            if (n <= 0)
                break;
            decoder.feed(buffer, static_cast<std::size_t>(n));
        }
        std::string_view payload;
        vela::FrameDecoder::Result r;
        while ((r = decoder.next(payload)) == vela::FrameDecoder::Result::kFrame) {
            Json::Value json;
            std::string error;
            FUZZ_CHECK(vela::parseJson(payload, &json, &error));
            vela::protocol::Message m = vela::protocol::classify(std::move(json));
            FUZZ_CHECK(m.kind != vela::protocol::Message::Kind::kInvalid);
            if (m.kind == vela::protocol::Message::Kind::kRequest)
                requestIds.push_back(m.id);
        }
        FUZZ_CHECK(r == vela::FrameDecoder::Result::kNeedMore);
        decoder.release();
    }
};

std::size_t number(std::string_view text)
{
    std::size_t n = 0;
    for (char ch : text.substr(0, 6)) {
        if (ch < '0' || ch > '9')
            break;
        n = n * 10 + static_cast<std::size_t>(ch - '0');
    }
    return n;
}

int code(std::string_view text)
{
    const bool negative = !text.empty() && text[0] == '-';
    const int n = static_cast<int>(number(text.substr(negative ? 1 : 0)));
    return negative ? -n : n;
}

void act(vela::PeerAsync& peer, std::string_view word, int& changes)
{
    if (word == "change") {
        peer.notifyState("own/a", Json::Value(++changes));
    } else if (word == "remove") {
        peer.removeStateAsync("own/b", checkResponse);
    } else if (word == "unfetch") {
        peer.removeFetchAsync(1, checkResponse);
    } else if (word == "set") {
        peer.setAsync("other/x", Json::Value("v"), checkResponse);
    } else if (word == "add") {
        peer.addStateAsync("own/c", Json::Value(Json::objectValue), checkResponse, onSet);
    } else if (word == "config") {
        peer.configAsync("fuzz", true, checkResponse);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // A connection a peer of an earlier input made and left unaccepted
    // would be taken for this input's peer.
    for (int stale; (stale = ::accept4(broker().listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0;)
        ::close(stale);
    Link link;
    int changes = 0;
    int reconnections = 0;
    {
        vela::PeerAsync peer(loop(), broker().path, 0, "fuzz");
        peer.addStateAsync("own/a", Json::Value(1), checkResponse, onSet);
        peer.addStateAsync("own/b", Json::Value("b"), checkResponse);
        FUZZ_CHECK(peer.addFetchAsync(vela::matcher_t{}, checkNotification, checkResponse) == 1);
        peer.setAsync("other/x", Json::Value(2), checkResponse);
        peer.configAsync("fuzz", false, checkResponse);
        if (!link.accept())
            ::fuzzsupport::fail("the peer did not connect", __FILE__, __LINE__);

        std::string_view input(reinterpret_cast<const char*>(data), size);
        while (!input.empty()) {
            const std::size_t end = input.find('\n');
            const std::string_view line = input.substr(0, end);
            input = end == std::string_view::npos ? std::string_view() : input.substr(end + 1);
            if (line.empty())
                continue;
            turn();
            link.read();
            const std::string_view rest = line.size() > 2 ? line.substr(2) : std::string_view();
            if (line[0] == '>' && !rest.empty()) {
                std::string frame;
                vela::appendFrame(frame, rest);
                link.write(frame);
            } else if (line[0] == '!') {
                link.write(rest);
            } else if (line[0] == 'a' && line.size() > 1) {
                const std::size_t n = number(line.substr(1));
                if (n >= 1 && n <= link.requestIds.size()) {
                    const Json::Value& id = link.requestIds[n - 1];
                    const std::size_t err = line.find(" err");
                    std::string frame;
                    vela::appendFrame(frame, err == std::string_view::npos
                                                 ? vela::protocol::result(id, true)
                                                 : vela::protocol::error(id, code(line.substr(err + 5)), "refused"));
                    link.write(frame);
                }
            } else if (line[0] == 'c') {
                link.close();
                if (reconnections++ < 2)
                    link.accept();
            } else if (line[0] == 's') {
                act(peer, rest, changes);
            }
        }
        turn();
        link.read();
    }
    link.close();
    // Whatever the peer left behind on the loop (closing its socket) runs now.
    turn();
    return 0;
}

// The peer keeps what it has told the broker (its states with their current
// values, its fetches, its name) as the truth, and the connection as a
// replaceable channel: every (re)connection replays that record, so a broker
// restart costs the owner nothing but a log line. Requests that only make
// sense on a live connection (set, remove of a foreign path, ...) wait in a
// queue until the next connection.
//
// A state stays the peer's even when the broker refuses its add because
// another connection holds the path (or the broker is out of room): the add
// is tried again with a growing pause until it succeeds, so that a client
// that raced for the path after a broker restart holds it only until it
// leaves, and the owner's value is the one that ends on the bus.
//
// What a fetch has reported is remembered as a digest of each value's text,
// not as the value, so a fetch of large values costs about one value.
#include <vela/PeerAsync.h>

#include "Frame.h"
#include "FrameConnection.h"
#include "JsonText.h"
#include "LogLimiter.h"
#include "Matcher.h"
#include "Protocol.h"
#include "Socket.h"

#include <orv/sys/EventLoop.h>
#include <orv/sys/Timer.h>

#include <sys/epoll.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <exception>
#include <map>
#include <set>
#include <unordered_map>
#include <vector>

namespace vela {

namespace p = protocol;

namespace {

// Reconnection back-off: doubles from the first to the last value (ms).
constexpr std::chrono::milliseconds kFirstRetry(100);
constexpr std::chrono::milliseconds kMaxRetry(2000);
// After a reconnection, how long a state known before the break may take to
// reappear before its fetch is told it was removed. Every owner reconnects
// within the longest back-off, so a state that is still missing after that
// really went away while the broker was down (ms).
constexpr std::chrono::milliseconds kStaleGrace(3000);
// Retries of an add the broker refused (path held by another connection, or
// no room): the pause doubles from the first to the last value (ms).
constexpr std::chrono::milliseconds kFirstAddRetry(250);
constexpr std::chrono::milliseconds kMaxAddRetry(5000);

using Clock = std::chrono::steady_clock;

// A digest of a value's JSON text. The broker forwards every value as the
// text its owner sent, and an owner sends the same value as the same compact
// text, so equal digests mean an unchanged value. Only the owner of a state
// chooses its text, so a collision could only be made by the one peer that
// may change the value anyway.
std::uint64_t digestOf(std::string_view text)
{
    std::uint64_t h = std::hash<std::string_view>{}(text);
    return h ^ (text.size() + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2));
}

// Text from the broker on its way into syslog.
std::string logSafe(const std::string& text)
{
    return escapeLogText(text, kDefaultLogLineMax);
}

Json::Value okBody()
{
    Json::Value body(Json::objectValue);
    body["result"] = true;
    return body;
}

Json::Value errorBody(int code, const std::string& message)
{
    Json::Value body(Json::objectValue);
    body["error"]["code"] = code;
    body["error"]["message"] = message;
    return body;
}

}  // namespace

struct PeerAsync::Impl
{
    struct OwnState
    {
        Json::Value value;
        SetCallback onSet;
        // Answers owed for adds made while no connection was up; the add of
        // the next connection's replay answers them.
        std::vector<ResponseCallback> waiting;
        std::uint64_t generation = 0;
        // The broker refused the add and the peer keeps trying: the next
        // attempt is due at retryAt (none while one is on its way).
        bool contested = false;
        bool retryDue = false;
        Clock::time_point retryAt;
        std::chrono::milliseconds retryPause = kFirstAddRetry;
        unsigned attempts = 0;
    };
    struct FetchEntry
    {
        matcher_t matcher;
        FetchCallback onNotify;
        std::vector<ResponseCallback> waiting;
        // Paths this fetch has reported as present, with the digest of the
        // value last reported. A broker restart is invisible to the fetch
        // callback: after a reconnection the broker's replayed "add" of a
        // known path is swallowed when the value is the one reported before,
        // and reported as "change" when it changed during the break. Known
        // paths not reported again within kStaleGrace have vanished meanwhile
        // and get a "remove" (with a null value: the peer keeps no copy).
        std::map<std::string, std::uint64_t> known;
        std::set<std::string> stale;
    };
    enum class Kind
    {
        kPlain,
        kHello,
        kConfig,
        kAdd,
        kFetch
    };
    struct Pending
    {
        Kind kind = Kind::kPlain;
        std::vector<ResponseCallback> callbacks;
        std::string path;              // kAdd
        std::uint64_t generation = 0;  // kAdd
        int fetchId = 0;               // kFetch
        // kAdd of a state the broker had refused: removing the state does
        // not wait for this answer, so a success must be taken back.
        bool contested = false;
    };
    struct Queued
    {
        std::string method;
        Json::Value params;
        ResponseCallback callback;
        bool local = false;  // answered here with success, nothing is sent
    };
    enum class LinkLog
    {
        kSilent,       // connected at the first attempt, or never tried
        kUnreachable,  // "not reachable" was logged
        kLost          // "lost" was logged
    };

    orv::sys::EventLoop& loop;
    std::string address;  // an IPv4 address, or the path of a Unix socket
    std::uint16_t port;
    std::string name;
    bool trace;
    bool debug = false;
    bool configured = false;

    std::unique_ptr<FrameConnection> conn;
    int connectingFd = -1;
    orv::sys::Timer retryTimer;
    orv::sys::Timer staleTimer;
    orv::sys::Timer addRetryTimer;
    // Answers given here while connected run from the loop, never inside the
    // call that owes them.
    orv::sys::Timer soonTimer;
    std::vector<ResponseCallback> soon;
    std::chrono::milliseconds backoff = kFirstRetry;
    LinkLog linkLog = LinkLog::kSilent;
    bool everConnected = false;

    std::map<std::string, OwnState> states;
    std::map<int, FetchEntry> fetches;
    int nextFetchId = 1;
    std::uint64_t nextGeneration = 1;
    std::vector<ResponseCallback> configWaiting;
    std::unordered_map<std::int64_t, Pending> pending;
    std::int64_t nextRequestId = 1;
    std::deque<Queued> queue;
    std::shared_ptr<bool> alive = std::make_shared<bool>(true);

    Impl(orv::sys::EventLoop& l, const std::string& a, unsigned p, const std::string& n, bool t)
        : loop(l),
          address(a),
          port(static_cast<std::uint16_t>(p)),
          name(n),
          trace(t),
          retryTimer(l),
          staleTimer(l),
          addRetryTimer(l),
          soonTimer(l)
    {
    }

    ~Impl()
    {
        *alive = false;
        conn.reset();
        closeConnecting();
    }

    bool viaUnixSocket() const { return !address.empty() && address[0] == '/'; }
    std::string where() const { return viaUnixSocket() ? address : address + ":" + std::to_string(port); }

    // ---- connection ----

    void connect()
    {
        bool inProgress = false;
        int fd = viaUnixSocket() ? socket::connectUnix(address, &inProgress)
                                 : socket::connectTcp(address, port, &inProgress);
        if (fd < 0) {
            connectFailed(fd);
            return;
        }
        if (!inProgress) {
            established(fd);
            return;
        }
        connectingFd = fd;
        int rc = loop.addFd(fd, EPOLLOUT, [this](std::uint32_t) {
            int fdDone = connectingFd;
            loop.removeFd(fdDone);
            connectingFd = -1;
            int result = socket::connectResult(fdDone);
            if (result < 0) {
                ::close(fdDone);
                connectFailed(result);
            } else {
                established(fdDone);
            }
        });
        if (rc < 0) {
            closeConnecting();
            connectFailed(rc);
        }
    }

    void closeConnecting()
    {
        if (connectingFd >= 0) {
            loop.removeFd(connectingFd);
            ::close(connectingFd);
            connectingFd = -1;
        }
    }

    void connectFailed(int err)
    {
        if (linkLog == LinkLog::kSilent && !everConnected) {
            // At boot the broker may simply not be up yet: one line, then
            // quiet retries.
            syslog(LOG_NOTICE, "vela: broker %s not reachable (%s); retrying", where().c_str(),
                   std::strerror(-err));
            linkLog = LinkLog::kUnreachable;
        }
        scheduleRetry();
    }

    void scheduleRetry()
    {
        const std::chrono::milliseconds wait = backoff;
        backoff = std::min(backoff * 2, kMaxRetry);
        retryTimer.set(wait, false, [this](bool fired) {
            if (fired) {
                connect();
            }
        });
    }

    void established(int fd)
    {
        std::shared_ptr<bool> guard = alive;
        // The whole replay leaves in as few writes as the socket allows.
        FrameConnection::Batch batch;
        conn = std::make_unique<FrameConnection>(
            loop, fd, kMaxBrokerFrameSize, [this](std::string_view payload) { onFrame(payload); },
            [this](std::uint32_t length) {
                syslog(LOG_WARNING, "vela: broker %s sent a frame of bad length %u; reconnecting",
                       where().c_str(), length);
                conn->abort(-EPROTO);
            },
            [this](int err) { onClosed(err); });
        // Calls made in one go (a burst of notifyState) leave in one write.
        conn->setWriteOnNextTurn(true);
        backoff = kFirstRetry;
        if (linkLog == LinkLog::kLost) {
            syslog(LOG_NOTICE, "vela: connection to broker %s restored", where().c_str());
        } else if (linkLog == LinkLog::kUnreachable) {
            syslog(LOG_NOTICE, "vela: connected to broker %s", where().c_str());
        }
        linkLog = LinkLog::kSilent;
        everConnected = true;

        Json::Value hello(Json::objectValue);
        hello["protocol"] = p::kVersion;
        if (!name.empty()) {
            hello["name"] = name;
        }
        sendRequest(p::kHello, hello, Pending{Kind::kHello, {}, {}, 0, 0});
        if (configured) {
            Pending pc{Kind::kConfig, std::move(configWaiting), {}, 0, 0};
            configWaiting.clear();
            sendRequest(p::kConfig, configParams(), std::move(pc));
        }
        addRetryTimer.cancel();
        for (auto& [path, state] : states) {
            Pending pa{Kind::kAdd, std::move(state.waiting), path, state.generation, 0};
            state.waiting.clear();
            // A contested state is tried again at once on a new connection:
            // after a broker restart the race for the path starts afresh.
            state.retryDue = false;
            state.retryPause = kFirstAddRetry;
            pa.contested = state.contested;
            sendRequest(p::kAdd, addParams(path, state), std::move(pa));
        }
        for (auto& [id, fetch] : fetches) {
            // Whatever was known before the break is suspect until the
            // broker reports it again.
            for (const auto& entry : fetch.known) {
                fetch.stale.insert(entry.first);
            }
            Pending pf{Kind::kFetch, std::move(fetch.waiting), {}, 0, id};
            fetch.waiting.clear();
            sendRequest(p::kFetch, fetchParams(id, fetch), std::move(pf));
        }
        while (!queue.empty() && conn) {
            Queued q = std::move(queue.front());
            queue.pop_front();
            if (q.local) {
                call(q.callback, okBody());
                if (!*guard) {
                    return;
                }
            } else {
                sendRequest(q.method, q.params,
                            Pending{Kind::kPlain, single(std::move(q.callback)), {}, 0, 0});
            }
        }
    }

    void onClosed(int err)
    {
        std::shared_ptr<bool> guard = alive;
        // Destroying the connection inside its own handler is allowed.
        std::unique_ptr<FrameConnection> gone = std::move(conn);
        syslog(LOG_NOTICE, "vela: connection to broker %s lost (%s); reconnecting", where().c_str(),
               err < 0 ? std::strerror(-err) : "closed by the broker");
        linkLog = LinkLog::kLost;
        staleTimer.cancel();
        addRetryTimer.cancel();

        // Requests the replay will repeat keep their callbacks for it; the
        // others are lost with the connection.
        std::vector<ResponseCallback> lost;
        for (auto& [id, pend] : pending) {
            std::vector<ResponseCallback>* keep = nullptr;
            if (pend.kind == Kind::kAdd) {
                auto s = states.find(pend.path);
                if (s != states.end() && s->second.generation == pend.generation) {
                    keep = &s->second.waiting;
                }
            } else if (pend.kind == Kind::kFetch) {
                auto f = fetches.find(pend.fetchId);
                if (f != fetches.end()) {
                    keep = &f->second.waiting;
                }
            } else if (pend.kind == Kind::kConfig) {
                keep = &configWaiting;
            }
            for (auto& cb : pend.callbacks) {
                if (cb) {
                    (keep ? *keep : lost).push_back(std::move(cb));
                }
            }
        }
        pending.clear();
        scheduleRetry();
        for (auto& cb : lost) {
            call(cb, errorBody(p::kConnectionLost, "connection to the broker lost"));
            if (!*guard) {
                return;
            }
        }
    }

    // ---- sending ----

    static std::vector<ResponseCallback> single(ResponseCallback cb)
    {
        std::vector<ResponseCallback> v;
        if (cb) {
            v.push_back(std::move(cb));
        }
        return v;
    }

    void sendRequest(const std::string& method, const Json::Value& params, Pending&& pend)
    {
        // Fire-and-forget requests go as notifications: no answer to route.
        const bool wantsAnswer = pend.kind != Kind::kPlain || !pend.callbacks.empty();
        Json::Value id;
        if (wantsAnswer) {
            id = Json::Value::Int64(nextRequestId++);
            pending.emplace(id.asInt64(), std::move(pend));
        }
        sendPayload(p::request(id, method, params));
    }

    void sendPayload(const std::string& payload)
    {
        if (trace) {
            std::fprintf(stderr, "vela > %s\n", payload.c_str());
        }
        conn->send(payload);
    }

    // Sends now, or queues for the next connection.
    void requestOrQueue(const std::string& method, const Json::Value& params, ResponseCallback cb)
    {
        if (conn) {
            sendRequest(method, params, Pending{Kind::kPlain, single(std::move(cb)), {}, 0, 0});
        } else {
            queue.push_back(Queued{method, params, std::move(cb), false});
        }
    }

    void answerLocally(ResponseCallback cb)
    {
        if (cb) {
            queue.push_back(Queued{{}, {}, std::move(cb), true});
        }
    }

    // Success for a call that needs no broker, while connected.
    void answerSoon(ResponseCallback cb)
    {
        if (!cb) {
            return;
        }
        soon.push_back(std::move(cb));
        if (!soonTimer.isPending()) {
            soonTimer.set(std::chrono::milliseconds(1), false, [this](bool fired) {
                if (!fired) {
                    return;
                }
                std::shared_ptr<bool> guard = alive;
                std::vector<ResponseCallback> due;
                due.swap(soon);
                for (auto& cb2 : due) {
                    call(cb2, okBody());
                    if (!*guard) {
                        return;
                    }
                }
            });
        }
    }

    // ---- adds the broker refused ----

    // The broker refused an add of an own state; true when the peer goes on
    // trying (and then body's message says so).
    bool addRefused(OwnState& state, const std::string& path, Json::Value& body)
    {
        const int code = body["error"]["code"].asInt();
        const std::string reason = body["error"]["message"].asString();
        if (code != p::kPathExists && code != p::kLimitReached) {
            syslog(LOG_WARNING, "vela: broker %s refused state '%s': %s", where().c_str(), logSafe(path).c_str(),
                   logSafe(reason).c_str());
            return false;
        }
        ++state.attempts;
        if (!state.contested) {
            state.contested = true;
            syslog(LOG_WARNING, "vela: broker %s refused state '%s' (%s); trying again until it is free",
                   where().c_str(), logSafe(path).c_str(), logSafe(reason).c_str());
        }
        state.retryDue = true;
        state.retryAt = Clock::now() + state.retryPause;
        state.retryPause = std::min(state.retryPause * 2, kMaxAddRetry);
        body["error"]["message"] = reason + "; the peer keeps trying to add it";
        armAddRetry();
        return true;
    }

    void armAddRetry()
    {
        bool any = false;
        Clock::time_point next;
        for (const auto& entry : states) {
            const OwnState& state = entry.second;
            if (state.contested && state.retryDue && (!any || state.retryAt < next)) {
                next = state.retryAt;
                any = true;
            }
        }
        if (!any) {
            addRetryTimer.cancel();
            return;
        }
        auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now());
        addRetryTimer.set(std::max(wait, std::chrono::milliseconds(1)), false, [this](bool fired) {
            if (fired) {
                retryAdds();
            }
        });
    }

    void retryAdds()
    {
        if (!conn) {
            return;  // the next connection's replay tries them all
        }
        const Clock::time_point now = Clock::now();
        for (auto& [path, state] : states) {
            if (state.contested && state.retryDue && state.retryAt <= now) {
                state.retryDue = false;
                sendRequest(p::kAdd, addParams(path, state),
                            Pending{Kind::kAdd, {}, path, state.generation, 0, true});
            }
        }
        armAddRetry();
    }

    Json::Value configParams() const
    {
        Json::Value params(Json::objectValue);
        params["name"] = name;
        params["debug"] = debug;
        return params;
    }

    static Json::Value addParams(const std::string& path, const OwnState& state)
    {
        Json::Value params(Json::objectValue);
        params["path"] = path;
        params["value"] = state.value;
        params["settable"] = static_cast<bool>(state.onSet);
        return params;
    }

    static Json::Value fetchParams(int id, const FetchEntry& fetch)
    {
        Json::Value params(Json::objectValue);
        params["id"] = id;
        params["matcher"] = matcherToJson(fetch.matcher);
        return params;
    }

    static Json::Value pathValue(const std::string& path, const Json::Value& value)
    {
        Json::Value params(Json::objectValue);
        params["path"] = path;
        params["value"] = value;
        return params;
    }

    // ---- receiving ----

    // Runs a user callback; an exception from it must not unwind through the
    // event loop and take the whole program down.
    template <typename F>
    void guarded(const char* what, F&& f)
    {
        try {
            f();
        } catch (const std::exception& e) {
            syslog(LOG_ERR, "vela: %s threw: %s", what, e.what());
        } catch (...) {
            syslog(LOG_ERR, "vela: %s threw", what);
        }
    }

    void call(const ResponseCallback& cb, const Json::Value& body)
    {
        if (cb) {
            guarded("response callback", [&] { cb(body); });
        }
    }

    void onFrame(std::string_view payload)
    {
        if (trace) {
            std::fprintf(stderr, "vela < %.*s\n", static_cast<int>(payload.size()), payload.data());
        }
        Json::Value json;
        std::string reason;
        if (!parseJson(payload, &json, &reason)) {
            syslog(LOG_WARNING, "vela: unreadable frame from broker %s: %s", where().c_str(),
                   logSafe(reason).c_str());
            return;
        }
        p::Message m = p::classify(std::move(json));
        switch (m.kind) {
            case p::Message::Kind::kResponse:
                onResponse(m.id, m.body);
                break;
            case p::Message::Kind::kNotification:
                if (m.method == p::kNotify) {
                    onNotify(m.params, payload);
                } else if (m.method == p::kSet) {
                    onSetRequest(Json::Value(), m.params);
                }
                break;
            case p::Message::Kind::kRequest:
                if (m.method == p::kSet) {
                    onSetRequest(m.id, m.params);
                } else {
                    sendPayload(p::error(m.id, p::kMethodNotFound, "unknown method '" + m.method + "'"));
                }
                break;
            case p::Message::Kind::kInvalid:
                syslog(LOG_WARNING, "vela: invalid message from broker %s: %s", where().c_str(),
                       logSafe(m.error).c_str());
                break;
        }
    }

    void onResponse(const Json::Value& id, Json::Value& body)
    {
        if (!id.isInt64()) {
            if (body.isMember("error")) {
                syslog(LOG_WARNING, "vela: broker %s: %s", where().c_str(),
                       logSafe(body["error"]["message"].asString()).c_str());
            }
            return;
        }
        auto it = pending.find(id.asInt64());
        if (it == pending.end()) {
            return;
        }
        Pending pend = std::move(it->second);
        pending.erase(it);
        std::shared_ptr<bool> guard = alive;
        const bool failed = body.isMember("error");
        switch (pend.kind) {
            case Kind::kHello:
                if (failed) {
                    syslog(LOG_ERR, "vela: broker %s refused this peer: %s", where().c_str(),
                           logSafe(body["error"]["message"].asString()).c_str());
                }
                break;
            case Kind::kAdd: {
                auto s = states.find(pend.path);
                const bool current = s != states.end() && s->second.generation == pend.generation;
                if (failed) {
                    // A refusal that waiting may cure is tried again; any
                    // other one means the state is not this peer's to have,
                    // and it is not replayed after a reconnection.
                    if (current && !addRefused(s->second, pend.path, body)) {
                        states.erase(s);
                    }
                } else if (!current && pend.contested) {
                    // Removed while a retried add was on its way: it must
                    // not stay on the bus.
                    Json::Value params(Json::objectValue);
                    params["path"] = pend.path;
                    sendRequest(p::kRemove, params, Pending{});
                } else if (current && s->second.contested) {
                    s->second.contested = false;
                    s->second.retryPause = kFirstAddRetry;
                    syslog(LOG_NOTICE, "vela: state '%s' added on broker %s after %u refusals",
                           logSafe(pend.path).c_str(), where().c_str(), s->second.attempts);
                    s->second.attempts = 0;
                }
                break;
            }
            case Kind::kFetch:
                finishFetch(pend.fetchId);
                if (!*guard) {
                    return;
                }
                break;
            case Kind::kConfig:
            case Kind::kPlain:
                break;
        }
        for (auto& cb : pend.callbacks) {
            call(cb, body);
            if (!*guard) {
                return;
            }
        }
    }

    // The broker has delivered every state present when the fetch arrived.
    // Paths known before a reconnection and not among them may still come
    // back with their owner's own reconnection; give them kStaleGrace.
    void finishFetch(int fetchId)
    {
        auto f = fetches.find(fetchId);
        if (f == fetches.end() || f->second.stale.empty() || staleTimer.isPending()) {
            return;
        }
        staleTimer.set(kStaleGrace, false, [this](bool fired) {
            if (fired) {
                reportVanished();
            }
        });
    }

    void reportVanished()
    {
        std::shared_ptr<bool> guard = alive;
        std::vector<int> ids;
        for (const auto& [id, fetch] : fetches) {
            if (!fetch.stale.empty()) {
                ids.push_back(id);
            }
        }
        for (int fetchId : ids) {
            auto f = fetches.find(fetchId);
            if (f == fetches.end()) {
                continue;
            }
            std::set<std::string> vanished = std::move(f->second.stale);
            f->second.stale.clear();
            for (const std::string& path : vanished) {
                f = fetches.find(fetchId);
                if (f == fetches.end()) {
                    break;
                }
                Json::Value n(Json::objectValue);
                n["path"] = path;
                n["event"] = p::kEventRemove;
                n["value"] = Json::Value();
                f->second.known.erase(path);
                FetchCallback cb = f->second.onNotify;
                if (cb) {
                    guarded("fetch callback", [&] { cb(n, fetchId); });
                    if (!*guard) {
                        return;
                    }
                }
            }
        }
    }

    void onNotify(Json::Value& params, std::string_view payload)
    {
        const Json::Value& ids = params["fetches"];
        const Json::Value& path = params["path"];
        const Json::Value& event = params["event"];
        if (!ids.isArray() || !path.isString() || !event.isString()) {
            syslog(LOG_WARNING, "vela: malformed notification from broker %s", where().c_str());
            return;
        }
        // The digest comes from the value's text as the broker forwarded it.
        std::uint64_t digest = 0;
        constexpr std::string_view kKey = "value";
        if (const Json::Value* v = params.find(kKey.data(), kKey.data() + kKey.size())) {
            const auto start = static_cast<std::size_t>(v->getOffsetStart());
            const auto limit = static_cast<std::size_t>(v->getOffsetLimit());
            digest = limit > start && limit <= payload.size() ? digestOf(payload.substr(start, limit - start))
                                                               : digestOf(toCompact(*v));
        } else {
            digest = digestOf("null");
        }
        // One notification object for every fetch it concerns: the value
        // (possibly large) is moved in once and never copied.
        Json::Value n(Json::objectValue);
        n["path"] = path;
        n["event"] = event;
        n["value"].swap(params["value"]);
        const std::string pathText = path.asString();
        const std::string eventText = event.asString();
        std::shared_ptr<bool> guard = alive;
        for (const Json::Value& idValue : ids) {
            if (!idValue.isInt()) {
                continue;
            }
            const int id = idValue.asInt();
            auto f = fetches.find(id);
            if (f == fetches.end()) {
                continue;  // removed meanwhile; the unfetch is on its way
            }
            FetchEntry& fetch = f->second;
            const char* delivered = nullptr;
            if (eventText == p::kEventAdd && fetch.stale.erase(pathText) > 0) {
                // The broker's replay after a reconnection.
                std::uint64_t& before = fetch.known[pathText];
                if (before == digest) {
                    continue;
                }
                delivered = p::kEventChange;
                before = digest;
            } else if (eventText == p::kEventRemove) {
                fetch.known.erase(pathText);
                fetch.stale.erase(pathText);
            } else {
                fetch.known[pathText] = digest;
            }
            n["event"] = delivered ? Json::Value(delivered) : event;
            FetchCallback cb = fetch.onNotify;
            if (cb) {
                guarded("fetch callback", [&] { cb(n, id); });
                if (!*guard) {
                    return;
                }
            }
        }
    }

    void onSetRequest(const Json::Value& id, const Json::Value& params)
    {
        const std::string path = params["path"].asString();
        auto s = states.find(path);
        if (s == states.end() || !s->second.onSet) {
            if (!id.isNull()) {
                sendPayload(p::error(id, p::kNotSettable, "state '" + path + "' accepts no set requests"));
            }
            return;
        }
        SetCallback cb = s->second.onSet;
        std::shared_ptr<bool> guard = alive;
        Json::Value answer;
        std::string failure;
        std::string refusal;
        bool refused = false;
        try {
            answer = cb(params["value"], path);
        } catch (const SetRefused& e) {
            refused = true;
            refusal = e.what();
        } catch (const std::exception& e) {
            failure = e.what();
        } catch (...) {
            failure = "unknown exception";
        }
        if (!*guard || !conn || id.isNull()) {
            return;
        }
        if (refused) {
            sendPayload(p::error(id, p::kSetRefused, refusal));
        } else if (!failure.empty()) {
            syslog(LOG_ERR, "vela: set callback of '%s' threw: %s", path.c_str(), failure.c_str());
            sendPayload(p::error(id, p::kSetFailed, "set callback failed: " + failure));
        } else {
            sendPayload(p::result(id, answer));
        }
    }
};

PeerAsync::PeerAsync(orv::sys::EventLoop& loop, const std::string& address, unsigned port,
                     const std::string& name, bool trace)
    : m_impl(std::make_unique<Impl>(loop, address, port, name, trace))
{
    if (!m_impl->viaUnixSocket() && (port == 0 || port > 65535)) {
        syslog(LOG_ERR, "vela: invalid broker port %u", port);
        return;
    }
    m_impl->connect();
}

PeerAsync::~PeerAsync() = default;

void PeerAsync::configAsync(const std::string& name, bool debug, ResponseCallback response)
{
    Impl& d = *m_impl;
    d.name = name;
    d.debug = debug;
    d.configured = true;
    if (d.conn) {
        d.sendRequest(p::kConfig, d.configParams(),
                      Impl::Pending{Impl::Kind::kConfig, Impl::single(std::move(response)), {}, 0, 0});
    } else if (response) {
        d.configWaiting.push_back(std::move(response));
    }
}

void PeerAsync::addStateAsync(const std::string& path, const Json::Value& value, ResponseCallback response,
                              SetCallback onSet)
{
    Impl& d = *m_impl;
    if (d.states.count(path)) {
        // A second add of an own path: let the broker refuse it, as it
        // would any other duplicate.
        Json::Value params = Impl::pathValue(path, value);
        params["settable"] = static_cast<bool>(onSet);
        d.requestOrQueue(p::kAdd, params, std::move(response));
        return;
    }
    Impl::OwnState& state = d.states[path];
    state.value = value;
    state.onSet = std::move(onSet);
    state.generation = d.nextGeneration++;
    if (d.conn) {
        d.sendRequest(
            p::kAdd, Impl::addParams(path, state),
            Impl::Pending{Impl::Kind::kAdd, Impl::single(std::move(response)), path, state.generation, 0});
    } else if (response) {
        state.waiting.push_back(std::move(response));
    }
}

void PeerAsync::removeStateAsync(const std::string& path, ResponseCallback response)
{
    Impl& d = *m_impl;
    auto s = d.states.find(path);
    if (s != d.states.end() && s->second.contested && d.conn) {
        // Not on the bus: another connection holds the path. An add on its
        // way that succeeds after all is taken back when its answer comes.
        d.states.erase(s);
        d.answerSoon(std::move(response));
        d.armAddRetry();
        return;
    }
    if (s == d.states.end() || d.conn) {
        if (s != d.states.end()) {
            d.states.erase(s);
        }
        Json::Value params(Json::objectValue);
        params["path"] = path;
        d.requestOrQueue(p::kRemove, params, std::move(response));
        return;
    }
    // Never reached the broker, or went with the last connection: it is
    // gone already.
    for (auto& cb : s->second.waiting) {
        d.answerLocally(std::move(cb));
    }
    d.states.erase(s);
    d.answerLocally(std::move(response));
}

void PeerAsync::notifyState(const std::string& path, const Json::Value& value)
{
    Impl& d = *m_impl;
    auto s = d.states.find(path);
    if (s != d.states.end()) {
        s->second.value = value;
        if (s->second.contested) {
            return;  // the add that finally succeeds carries it
        }
    }
    if (d.conn) {
        d.sendRequest(p::kChange, Impl::pathValue(path, value), Impl::Pending{});
    }
}

void PeerAsync::notifyState(const std::string& path, const std::string& value)
{
    notifyState(path, Json::Value(value));
}

void PeerAsync::notifyState(const std::string& path, const char* value)
{
    notifyState(path, value ? Json::Value(value) : Json::Value());
}

void PeerAsync::changeStateAsync(const std::string& path, const Json::Value& value, ResponseCallback response)
{
    Impl& d = *m_impl;
    auto s = d.states.find(path);
    if (s != d.states.end()) {
        s->second.value = value;
        if (!d.conn) {
            // The replay of the next connection carries the new value.
            d.answerLocally(std::move(response));
            return;
        }
        if (s->second.contested) {
            // So does the add that finally succeeds.
            d.answerSoon(std::move(response));
            return;
        }
    }
    d.requestOrQueue(p::kChange, Impl::pathValue(path, value), std::move(response));
}

int PeerAsync::addFetchAsync(const matcher_t& matcher, FetchCallback onNotify, ResponseCallback response)
{
    Impl& d = *m_impl;
    const int id = d.nextFetchId++;
    Impl::FetchEntry& fetch = d.fetches[id];
    fetch.matcher = matcher;
    fetch.onNotify = std::move(onNotify);
    if (d.conn) {
        d.sendRequest(p::kFetch, Impl::fetchParams(id, fetch),
                      Impl::Pending{Impl::Kind::kFetch, Impl::single(std::move(response)), {}, 0, id});
    } else if (response) {
        fetch.waiting.push_back(std::move(response));
    }
    return id;
}

void PeerAsync::removeFetchAsync(int fetchId, ResponseCallback response)
{
    Impl& d = *m_impl;
    auto f = d.fetches.find(fetchId);
    if (f == d.fetches.end() || d.conn) {
        if (f != d.fetches.end()) {
            d.fetches.erase(f);
        }
        Json::Value params(Json::objectValue);
        params["id"] = fetchId;
        d.requestOrQueue(p::kUnfetch, params, std::move(response));
        return;
    }
    for (auto& cb : f->second.waiting) {
        d.answerLocally(std::move(cb));
    }
    d.fetches.erase(f);
    d.answerLocally(std::move(response));
}

void PeerAsync::setAsync(const std::string& path, const Json::Value& value, ResponseCallback response)
{
    m_impl->requestOrQueue(p::kSet, Impl::pathValue(path, value), std::move(response));
}

bool PeerAsync::isConnected() const
{
    return m_impl->conn != nullptr;
}

}  // namespace vela

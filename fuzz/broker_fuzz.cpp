// Drives the broker's whole request path (BrokerCore, as the socket layer
// drives it) with a script of connection events taken from the input, one
// per line:
//
//   +N UID     connection N (0-7) is accepted for user UID ("?" unknown);
//              its rights come from a fixed access policy
//   -N         connection N goes away
//   N JSON     connection N sends a frame holding JSON
//   rN [err]   connection N answers the last set request it was sent
//   bN LEN     connection N announces a frame length outside the limit
//   kN BYTES   connection N has BYTES of unread output from now on
//   dN         connection N read all its output (drained, when asked for)
//   tMS        MS milliseconds pass, expiries run
//
// The quotas are small, so that the input reaches every one of them. Checks
// that every frame the broker sends goes to a connection it has and is a
// message a peer can read, that a connection the broker closes gets no more
// frames after its disconnection, that the stored-value budget is kept, and
// that once every connection has gone nothing is left behind: no state, no
// stored byte, no set request waiting.

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "Acl.h"
#include "BrokerCore.h"
#include "Frame.h"
#include "JsonText.h"
#include "Protocol.h"
#include "support/Check.h"

namespace {

using vela::ConnId;

// uid 0 may do everything; 1000 owns and sets below "a/"; 1001 may only
// set; 1002 owns one exact path; everyone (unknown users included) fetches.
constexpr const char kPolicy[] =
    "user 0 own,set,fetch *\n"
    "user 1000 own,set a/*\n"
    "user 1001 set *\n"
    "user 1002 own b\n"
    "group 2000 own,fetch g/*\n"
    "all fetch *\n";

constexpr ConnId kConnections = 8;

vela::Limits smallLimits()
{
    vela::Limits l;
    l.helloTimeout = std::chrono::milliseconds(1000);
    l.maxStatesPerConnection = 4;
    l.maxFetchesPerConnection = 2;
    l.maxPendingSetsPerConnection = 2;
    l.maxPathLength = 32;
    l.maxStoredBytes = 1024;
    l.maxBacklogBytes = 4096;
    l.setTimeout = std::chrono::milliseconds(500);
    l.peerLogRate = 1;
    l.peerLogBurst = 2;
    return l;
}

class Sink : public vela::BrokerSink
{
public:
    std::set<ConnId> open;
    std::set<ConnId> closing;
    std::map<ConnId, std::size_t> backlogs;
    std::map<ConnId, std::size_t> drainMarks;
    std::map<ConnId, std::int64_t> lastSetToken;

    void send(ConnId conn, std::string payload) override
    {
        FUZZ_CHECK(open.count(conn) == 1);
        Json::Value json;
        std::string error;
        FUZZ_CHECK(vela::parseJson(payload, &json, &error));
        vela::protocol::Message m = vela::protocol::classify(std::move(json));
        FUZZ_CHECK(m.kind != vela::protocol::Message::Kind::kInvalid);
        if (m.kind == vela::protocol::Message::Kind::kRequest && m.method == vela::protocol::kSet) {
            FUZZ_CHECK(m.id.isInt64());
            lastSetToken[conn] = m.id.asInt64();
        }
    }
    void closeAfterFlush(ConnId conn) override
    {
        FUZZ_CHECK(open.count(conn) == 1);
        closing.insert(conn);
    }
    void log(const std::string& line) override { FUZZ_CHECK(!line.empty()); }
    std::size_t backlog(ConnId conn) const override
    {
        auto it = backlogs.find(conn);
        return it == backlogs.end() ? 0 : it->second;
    }
    void wantDrain(ConnId conn, std::size_t mark) override
    {
        FUZZ_CHECK(open.count(conn) == 1);
        drainMarks[conn] = mark;
    }
};

const vela::Acl& policy()
{
    static const vela::Acl acl = [] {
        vela::Acl a;
        std::string error;
        if (!vela::Acl::parse(kPolicy, a, error))
            ::fuzzsupport::fail("the fixed policy does not parse", __FILE__, __LINE__);
        return a;
    }();
    return acl;
}

vela::Grants grantsFor(std::string_view uid)
{
    vela::PeerIdentity id;
    if (uid == "?" || uid.empty()) {
        id.why = "fuzz";
        return policy().grantsFor(id);
    }
    id.known = true;
    id.uid = 0;
    for (char ch : uid.substr(0, 5)) {
        if (ch < '0' || ch > '9')
            break;
        id.uid = id.uid * 10 + static_cast<uid_t>(ch - '0');
    }
    id.groups.push_back(id.uid + 1000);
    id.groupNames.emplace_back();
    return policy().grantsFor(id);
}

// The connection number a line names (its first byte after the op, if any).
bool connOf(char ch, ConnId& conn)
{
    if (ch < '0' || ch >= static_cast<char>('0' + kConnections))
        return false;
    conn = static_cast<ConnId>(ch - '0');
    return true;
}

std::size_t number(std::string_view text)
{
    std::size_t n = 0;
    for (char ch : text.substr(0, 9)) {
        if (ch < '0' || ch > '9')
            break;
        n = n * 10 + static_cast<std::size_t>(ch - '0');
    }
    return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const vela::Limits limits = smallLimits();
    Sink sink;
    vela::BrokerCore core(sink, limits);
    vela::BrokerCore::Clock::time_point now{};
    // The socket layer numbers connections and never reuses a number; the
    // script's N maps to the current incarnation of slot N.
    ConnId ids[kConnections] = {};
    ConnId nextId = 1;

    auto drop = [&](ConnId conn) {
        core.disconnected(conn);
        sink.open.erase(conn);
        sink.closing.erase(conn);
        sink.backlogs.erase(conn);
        sink.drainMarks.erase(conn);
    };

    std::string_view input(reinterpret_cast<const char*>(data), size);
    while (!input.empty()) {
        const std::size_t end = input.find('\n');
        std::string_view line = input.substr(0, end);
        input = end == std::string_view::npos ? std::string_view() : input.substr(end + 1);
        if (line.size() < 2)
            continue;
        ConnId slot = 0;
        const char op = line[0];
        if (op == 't') {
            now += std::chrono::milliseconds(number(line.substr(1)));
            core.expire(now);
        } else if (op == '+' && connOf(line[1], slot)) {
            if (ids[slot] != 0)
                drop(ids[slot]);
            ids[slot] = nextId++;
            sink.open.insert(ids[slot]);
            core.connected(ids[slot], "fuzz peer", grantsFor(line.size() > 3 ? line.substr(3) : ""), now);
        } else if (op == '-' && connOf(line[1], slot)) {
            if (ids[slot] != 0)
                drop(ids[slot]);
            ids[slot] = 0;
        } else if (connOf(op, slot) && ids[slot] != 0) {
            core.frame(ids[slot], line.substr(line[1] == ' ' ? 2 : 1), now);
        } else if (op == 'r' && connOf(line[1], slot) && ids[slot] != 0) {
            auto it = sink.lastSetToken.find(ids[slot]);
            if (it != sink.lastSetToken.end()) {
                const std::string answer = line.find("err") != std::string_view::npos
                                               ? vela::protocol::error(it->second, -32000, "refused")
                                               : vela::protocol::result(it->second, true);
                core.frame(ids[slot], answer, now);
            }
        } else if (op == 'b' && connOf(line[1], slot) && ids[slot] != 0) {
            core.badFrame(ids[slot], static_cast<std::uint32_t>(number(line.substr(2)) + vela::kMaxFrameSize + 1));
        } else if (op == 'k' && connOf(line[1], slot) && ids[slot] != 0) {
            sink.backlogs[ids[slot]] = number(line.substr(2));
        } else if (op == 'd' && connOf(line[1], slot) && ids[slot] != 0) {
            sink.backlogs[ids[slot]] = 0;
            if (sink.drainMarks.erase(ids[slot]) == 1)
                core.drained(ids[slot]);
        }
        // The socket layer ends a closed connection once its output is
        // written and reports it; here that is at once.
        while (!sink.closing.empty()) {
            const ConnId conn = *sink.closing.begin();
            for (ConnId& id : ids)
                if (id == conn)
                    id = 0;
            drop(conn);
        }
        FUZZ_CHECK(core.storedBytes() <= limits.maxStoredBytes);
        FUZZ_CHECK(core.connectionCount() == sink.open.size());
    }

    for (ConnId id : ids)
        if (id != 0)
            drop(id);
    FUZZ_CHECK(core.connectionCount() == 0);
    FUZZ_CHECK(core.stateCount() == 0);
    FUZZ_CHECK(core.storedBytes() == 0);
    FUZZ_CHECK(!core.hasPendingSets());
    FUZZ_CHECK(!core.hasDeadlines());
    return 0;
}

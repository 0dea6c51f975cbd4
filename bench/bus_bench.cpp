// Compares velad with mosquitto under the same shapes of load, both brokers
// started here on free loopback ports and ended by pid at the end:
//
//   fan-out   one owner changes one state (a ~100-byte JSON value) and 10
//             fetchers receive every change; with MQTT, one publisher and 10
//             subscribers of one topic. Run once flat out (notifications/s)
//             and once paced (latency p50/p99, from publish to receipt).
//   set       one requester sends set requests one after the other through
//             the broker to the owner, which answers; with MQTT, a request
//             topic and a reply topic. Round trips/s and latency.
//   memory    broker RSS idle and with 10 000 states (MQTT: 10 000 retained
//             messages) of ~100 bytes.
//
// Every client runs on a thread of its own on both sides, and every receiver
// parses the JSON it gets, so the client-side work is the same.
//
// velad runs with an access policy that grants by path patterns rather than
// on every path, so each request and each notification is checked the way a
// module's policy checks it. mosquitto is the private copy unpacked beside
// the build (scripts/private-daemons), never an installed one.
//
// usage: bus_bench [--quick]
#include <orv/sys/EventLoop.h>
#include <orv/sys/Timer.h>
#include <vela/PeerAsync.h>

#include <json/json.h>
#include <mosquitto.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kFetchers = 10;
constexpr int kRssStates = 10000;

struct Params
{
    int blastMessages = 20000;  // per run, each seen by every fetcher
    int pacedRate = 2000;       // messages/s in the latency run
    int pacedMessages = 4000;
    int roundTrips = 5000;
    // Each load runs this often per broker, alternating between them; the
    // medians are reported, since the machine is shared and one run can be
    // disturbed by anything else that runs.
    int repeats = 3;
};

std::int64_t nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

// ~100 bytes of JSON carrying its send time.
std::string makeValue(int seq, std::int64_t t)
{
    std::string v = "{\"seq\":" + std::to_string(seq) + ",\"t\":" + std::to_string(t) + ",\"pad\":\"";
    v += std::string(100 > v.size() + 2 ? 100 - v.size() - 2 : 8, 'p');
    v += "\"}";
    return v;
}

Json::Value parse(const char* data, std::size_t n)
{
    thread_local std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value v;
    std::string err;
    reader->parse(data, data + n, &v, &err);
    return v;
}

Json::Value parseText(const std::string& text)
{
    return parse(text.data(), text.size());
}

struct Stats
{
    double rate = 0;  // per second
    double p50us = 0;
    double p99us = 0;
    std::size_t delivered = 0;
    std::size_t expected = 0;
};

void percentiles(std::vector<std::int64_t>& ns, Stats& s)
{
    if (ns.empty()) {
        return;
    }
    std::sort(ns.begin(), ns.end());
    s.p50us = static_cast<double>(ns[ns.size() / 2]) / 1000.0;
    s.p99us = static_cast<double>(ns[std::min(ns.size() - 1, ns.size() * 99 / 100)]) / 1000.0;
}

// Collects receipts of one receiver; written by its thread only until joined.
struct Receiver
{
    std::atomic<int> count{0};
    std::vector<std::int64_t> latencies;
    std::atomic<std::int64_t> lastNs{0};
    void record(std::int64_t sentNs)
    {
        const std::int64_t now = nowNs();
        latencies.push_back(now - sentNs);
        lastNs.store(now);
        count.fetch_add(1);
    }
};

bool waitFor(const std::function<bool()>& pred, std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    while (!pred()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// ---- processes ----

class Child
{
public:
    Child(const std::vector<std::string>& argv, bool captureStdout)
    {
        int out[2] = {-1, -1};
        if (captureStdout && ::pipe2(out, O_CLOEXEC) < 0) {
            return;
        }
        m_pid = ::fork();
        if (m_pid == 0) {
            if (captureStdout) {
                ::dup2(out[1], 1);
            }
            int devnull = ::open("/dev/null", O_WRONLY);
            ::dup2(devnull, 2);
            std::vector<char*> args;
            for (const auto& a : argv) {
                args.push_back(const_cast<char*>(a.c_str()));
            }
            args.push_back(nullptr);
            ::execv(args[0], args.data());
            ::_exit(127);
        }
        if (captureStdout) {
            ::close(out[1]);
            m_out = out[0];
        }
    }
    ~Child()
    {
        if (m_pid > 0) {
            ::kill(m_pid, SIGTERM);
            for (int i = 0; i < 200 && ::waitpid(m_pid, nullptr, WNOHANG) == 0; ++i) {
                std::this_thread::sleep_for(10ms);
            }
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
        if (m_out >= 0) {
            ::close(m_out);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return m_pid; }

    std::string readLine(std::chrono::milliseconds timeout)
    {
        std::string line;
        const auto deadline = Clock::now() + timeout;
        char c;
        while (Clock::now() < deadline) {
            pollfd p{m_out, POLLIN, 0};
            if (::poll(&p, 1, 50) <= 0) {
                continue;
            }
            if (::read(m_out, &c, 1) != 1) {
                break;
            }
            if (c == '\n') {
                return line;
            }
            line += c;
        }
        return line;
    }

private:
    pid_t m_pid = -1;
    int m_out = -1;
};

long rssKiB(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    while (in >> key) {
        if (key == "VmRSS:") {
            long kib = 0;
            in >> kib;
            return kib;
        }
        in.ignore(1 << 20, '\n');
    }
    return -1;
}

std::uint16_t freePort()
{
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    ::close(fd);
    return ntohs(addr.sin_port);
}

bool canConnect(std::uint16_t port)
{
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    ::close(fd);
    return ok;
}

std::string exeDir()
{
    char buf[4096];
    ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
    std::string path(buf, n > 0 ? static_cast<std::size_t>(n) : 0);
    return path.substr(0, path.rfind('/'));
}

// ---- vela side ----

// One PeerAsync on its own loop and thread. Set it up with setup() before
// start(); afterwards only stop() and atomics cross threads.
class VelaClient
{
public:
    explicit VelaClient(std::uint16_t port) : m_peer(m_loop, "127.0.0.1", port, "bench"), m_tick(m_loop) {}
    ~VelaClient() { stop(); }
    vela::PeerAsync& peer() { return m_peer; }
    orv::sys::EventLoop& loop() { return m_loop; }
    // Runs fn on the client's thread every millisecond until it returns
    // false.
    void onTick(std::function<bool()> fn)
    {
        m_tick.set(1ms, true, [this, fn = std::move(fn)](bool fired) {
            if (fired && !fn()) {
                m_tick.cancel();
            }
        });
    }
    void start()
    {
        m_thread = std::thread([this] { m_loop.execute(); });
    }
    void stop()
    {
        if (m_thread.joinable()) {
            m_loop.stop();
            m_thread.join();
        }
    }

private:
    orv::sys::EventLoop m_loop;
    vela::PeerAsync m_peer;
    orv::sys::Timer m_tick;
    std::thread m_thread;
};

Stats velaFanOut(std::uint16_t port, int messages, int rate)
{
    std::vector<std::unique_ptr<VelaClient>> fetchers;
    std::vector<Receiver> receivers(kFetchers);
    std::atomic<int> ready{0};
    vela::matcher_t m;
    m.equals = "bench/fan";
    for (int i = 0; i < kFetchers; ++i) {
        fetchers.push_back(std::make_unique<VelaClient>(port));
        Receiver& r = receivers[static_cast<std::size_t>(i)];
        fetchers.back()->peer().addFetchAsync(
            m,
            [&r](const Json::Value& n, int) {
                if (n["event"].asString() == "change") {
                    r.record(n["value"]["t"].asInt64());
                }
            },
            [&ready](const Json::Value&) { ready.fetch_add(1); });
    }
    VelaClient owner(port);
    std::atomic<bool> added{false};
    std::atomic<bool> go{false};
    std::atomic<std::int64_t> firstNs{0};
    owner.peer().addStateAsync("bench/fan", Json::Value(0), [&](const Json::Value&) { added = true; });
    int sent = 0;
    const int perTick = rate > 0 ? std::max(1, rate / 1000) : messages;
    owner.onTick([&] {
        if (!go) {
            return true;
        }
        if (sent == 0) {
            firstNs = nowNs();
        }
        for (int i = 0; i < perTick && sent < messages; ++i, ++sent) {
            owner.peer().notifyState("bench/fan", parseText(makeValue(sent, nowNs())));
        }
        return sent < messages;
    });
    for (auto& f : fetchers) {
        f->start();
    }
    owner.start();
    waitFor([&] { return added && ready == kFetchers; }, 10s);
    go = true;
    const auto deadline = std::chrono::milliseconds(30000);
    waitFor(
        [&] {
            for (auto& r : receivers) {
                if (r.count < messages) {
                    return false;
                }
            }
            return true;
        },
        deadline);
    owner.stop();
    for (auto& f : fetchers) {
        f->stop();
    }
    Stats s;
    std::vector<std::int64_t> all;
    std::int64_t last = 0;
    for (auto& r : receivers) {
        s.delivered += static_cast<std::size_t>(r.count.load());
        all.insert(all.end(), r.latencies.begin(), r.latencies.end());
        last = std::max(last, r.lastNs.load());
    }
    s.expected = static_cast<std::size_t>(messages) * kFetchers;
    s.rate =
        last > firstNs ? static_cast<double>(s.delivered) * 1e9 / static_cast<double>(last - firstNs) : 0;
    percentiles(all, s);
    return s;
}

Stats velaSetRoundTrips(std::uint16_t port, int trips)
{
    VelaClient owner(port);
    std::atomic<bool> added{false};
    owner.peer().addStateAsync(
        "bench/set", Json::Value(0), [&](const Json::Value&) { added = true; },
        [](const Json::Value& value, const std::string&) { return value; });
    VelaClient requester(port);
    std::vector<std::int64_t> latencies;
    std::atomic<int> done{0};
    std::atomic<bool> go{false};
    std::int64_t t0 = 0;
    std::atomic<std::int64_t> tEnd{0};
    std::function<void()> next = [&] {
        const std::int64_t t = nowNs();
        requester.peer().setAsync("bench/set", parseText(makeValue(done, t)), [&, t](const Json::Value& r) {
            if (r.isMember("result")) {
                latencies.push_back(nowNs() - t);
            }
            if (done.fetch_add(1) + 1 < trips) {
                next();
            } else {
                tEnd = nowNs();
            }
        });
    };
    requester.onTick([&] {
        if (!go) {
            return true;
        }
        t0 = nowNs();
        next();
        return false;
    });
    owner.start();
    requester.start();
    waitFor([&] { return added.load(); }, 10s);
    waitFor([&] { return requester.peer().isConnected(); }, 10s);
    go = true;
    waitFor([&] { return done >= trips; }, 30s);
    requester.stop();
    owner.stop();
    Stats s;
    s.delivered = latencies.size();
    s.expected = static_cast<std::size_t>(trips);
    s.rate = tEnd > t0 ? static_cast<double>(s.delivered) * 1e9 / static_cast<double>(tEnd - t0) : 0;
    percentiles(latencies, s);
    return s;
}

bool velaAddStates(std::uint16_t port, VelaClient& owner, int count)
{
    std::atomic<int> answered{0};
    for (int i = 0; i < count; ++i) {
        owner.peer().addStateAsync("bench/rss/" + std::to_string(i), parseText(makeValue(i, 0)),
                                   [&](const Json::Value&) { answered.fetch_add(1); });
    }
    (void)port;
    owner.start();
    return waitFor([&] { return answered == count; }, 30s);
}

// ---- mosquitto side ----

struct MqttClient
{
    mosquitto* m = nullptr;
    std::string subscribeTopic;
    std::atomic<bool> subscribed{false};
    std::function<void(const mosquitto_message*)> onMessage;

    MqttClient(std::uint16_t port, const std::string& topic) : subscribeTopic(topic)
    {
        m = mosquitto_new(nullptr, true, this);
        // The bus peers disable Nagle's algorithm too; compare like with like.
        mosquitto_int_option(m, MOSQ_OPT_TCP_NODELAY, 1);
        mosquitto_connect_callback_set(m, [](mosquitto* mq, void* self, int rc) {
            auto* c = static_cast<MqttClient*>(self);
            if (rc == 0 && !c->subscribeTopic.empty()) {
                mosquitto_subscribe(mq, nullptr, c->subscribeTopic.c_str(), 0);
            } else if (rc == 0) {
                c->subscribed = true;
            }
        });
        mosquitto_subscribe_callback_set(m, [](mosquitto*, void* self, int, int, const int*) {
            static_cast<MqttClient*>(self)->subscribed = true;
        });
        mosquitto_message_callback_set(m, [](mosquitto*, void* self, const mosquitto_message* msg) {
            auto* c = static_cast<MqttClient*>(self);
            if (c->onMessage) {
                c->onMessage(msg);
            }
        });
        mosquitto_connect(m, "127.0.0.1", port, 60);
        mosquitto_loop_start(m);
    }
    ~MqttClient()
    {
        mosquitto_disconnect(m);
        mosquitto_loop_stop(m, false);
        mosquitto_destroy(m);
    }
    void publish(const std::string& topic, const std::string& payload, bool retain = false)
    {
        mosquitto_publish(m, nullptr, topic.c_str(), static_cast<int>(payload.size()), payload.data(), 0,
                          retain);
    }
};

Stats mqttFanOut(std::uint16_t port, int messages, int rate)
{
    std::vector<std::unique_ptr<MqttClient>> subs;
    std::vector<Receiver> receivers(kFetchers);
    for (int i = 0; i < kFetchers; ++i) {
        subs.push_back(std::make_unique<MqttClient>(port, "bench/fan"));
        Receiver& r = receivers[static_cast<std::size_t>(i)];
        subs.back()->onMessage = [&r](const mosquitto_message* msg) {
            Json::Value v =
                parse(static_cast<const char*>(msg->payload), static_cast<std::size_t>(msg->payloadlen));
            r.record(v["t"].asInt64());
        };
    }
    MqttClient pub(port, "");
    waitFor(
        [&] {
            if (!pub.subscribed) {
                return false;
            }
            for (auto& s : subs) {
                if (!s->subscribed) {
                    return false;
                }
            }
            return true;
        },
        10s);
    const std::int64_t firstNs = nowNs();
    if (rate <= 0) {
        for (int i = 0; i < messages; ++i) {
            Json::Value v = parseText(makeValue(i, nowNs()));
            pub.publish("bench/fan", Json::writeString(Json::StreamWriterBuilder(), v));
        }
    } else {
        const int perTick = std::max(1, rate / 1000);
        auto tick = Clock::now();
        for (int sent = 0; sent < messages;) {
            for (int i = 0; i < perTick && sent < messages; ++i, ++sent) {
                Json::Value v = parseText(makeValue(sent, nowNs()));
                pub.publish("bench/fan", Json::writeString(Json::StreamWriterBuilder(), v));
            }
            tick += 1ms;
            std::this_thread::sleep_until(tick);
        }
    }
    waitFor(
        [&] {
            for (auto& r : receivers) {
                if (r.count < messages) {
                    return false;
                }
            }
            return true;
        },
        30s);
    subs.clear();  // joins the network threads before the receipts are read
    Stats s;
    std::vector<std::int64_t> all;
    std::int64_t last = 0;
    for (auto& r : receivers) {
        s.delivered += static_cast<std::size_t>(r.count.load());
        all.insert(all.end(), r.latencies.begin(), r.latencies.end());
        last = std::max(last, r.lastNs.load());
    }
    s.expected = static_cast<std::size_t>(messages) * kFetchers;
    s.rate =
        last > firstNs ? static_cast<double>(s.delivered) * 1e9 / static_cast<double>(last - firstNs) : 0;
    percentiles(all, s);
    return s;
}

Stats mqttSetRoundTrips(std::uint16_t port, int trips)
{
    MqttClient owner(port, "bench/set/req");
    owner.onMessage = [&owner](const mosquitto_message* msg) {
        Json::Value v =
            parse(static_cast<const char*>(msg->payload), static_cast<std::size_t>(msg->payloadlen));
        owner.publish("bench/set/resp", Json::writeString(Json::StreamWriterBuilder(), v));
    };
    MqttClient requester(port, "bench/set/resp");
    std::vector<std::int64_t> latencies;
    std::atomic<int> done{0};
    std::int64_t sentAt = 0;
    std::atomic<std::int64_t> tEnd{0};
    auto send = [&] {
        sentAt = nowNs();
        requester.publish("bench/set/req", makeValue(done, sentAt));
    };
    requester.onMessage = [&](const mosquitto_message* msg) {
        parse(static_cast<const char*>(msg->payload), static_cast<std::size_t>(msg->payloadlen));
        latencies.push_back(nowNs() - sentAt);
        if (done.fetch_add(1) + 1 < trips) {
            send();
        } else {
            tEnd = nowNs();
        }
    };
    waitFor([&] { return owner.subscribed && requester.subscribed; }, 10s);
    const std::int64_t t0 = nowNs();
    send();
    waitFor([&] { return done >= trips; }, 30s);
    Stats s;
    s.delivered = static_cast<std::size_t>(done.load());
    s.expected = static_cast<std::size_t>(trips);
    s.rate = tEnd > t0 ? static_cast<double>(s.delivered) * 1e9 / static_cast<double>(tEnd - t0) : 0;
    percentiles(latencies, s);
    return s;
}

bool mqttRetain(std::uint16_t port, int count)
{
    MqttClient pub(port, "");
    waitFor([&] { return pub.subscribed.load(); }, 10s);
    for (int i = 0; i < count; ++i) {
        pub.publish("bench/rss/" + std::to_string(i), makeValue(i, 0), true);
    }
    // Reading them back proves the broker holds them all.
    std::atomic<int> seen{0};
    MqttClient check(port, "bench/rss/#");
    check.onMessage = [&](const mosquitto_message*) { seen.fetch_add(1); };
    bool ok = false;
    for (int attempt = 0; attempt < 3 && !ok; ++attempt) {
        ok = waitFor([&] { return seen >= count; }, 10s);
    }
    return ok;
}

// Runs both loads params.repeats times, alternating, and returns the median
// of each figure.
template <typename A, typename B>
std::pair<Stats, Stats> compare(int repeats, A velaRun, B mqttRun)
{
    std::vector<Stats> v, m;
    for (int i = 0; i < repeats; ++i) {
        v.push_back(velaRun());
        m.push_back(mqttRun());
    }
    auto median = [](std::vector<Stats> runs) {
        Stats out = runs.front();
        auto pick = [&](double Stats::*field) {
            std::sort(runs.begin(), runs.end(),
                      [&](const Stats& a, const Stats& b) { return a.*field < b.*field; });
            out.*field = runs[runs.size() / 2].*field;
        };
        pick(&Stats::rate);
        pick(&Stats::p50us);
        pick(&Stats::p99us);
        for (const Stats& r : runs) {
            out.delivered = std::min(out.delivered, r.delivered);
        }
        return out;
    };
    return {median(v), median(m)};
}

void row(const char* what, const std::string& a, const std::string& b)
{
    std::printf("%-36s %16s %16s\n", what, a.c_str(), b.c_str());
}

std::string num(double v, int decimals = 0)
{
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
    return buf;
}

std::string lat(const Stats& s)
{
    return num(s.p50us, 1) + " / " + num(s.p99us, 1);
}

}  // namespace

int main(int argc, char** argv)
{
    Params params;
    if (argc > 1 && std::strcmp(argv[1], "--quick") == 0) {
        params.blastMessages = 5000;
        params.pacedMessages = 1000;
        params.roundTrips = 1000;
        params.repeats = 1;
    }
    signal(SIGPIPE, SIG_IGN);
    mosquitto_lib_init();

    char dirTemplate[] = "/tmp/bus_bench.XXXXXX";
    const char* dir = ::mkdtemp(dirTemplate);
    if (!dir) {
        std::perror("mkdtemp");
        return 1;
    }
    const std::string conf = std::string(dir) + "/mosquitto.conf";
    const std::string acl = std::string(dir) + "/acl.conf";
    {
        std::ofstream out(acl);
        out << "user root own,set bench/*\n"
            << "user root fetch bench/* sync/*\n"
            << "all fetch sync/*\n";
    }
    const std::uint16_t mqttPort = freePort();
    {
        std::ofstream out(conf);
        out << "listener " << mqttPort << " 127.0.0.1\n"
            << "allow_anonymous true\n"
            << "persistence false\n"
            << "log_dest none\n"
            // No per-client queue limit: the comparison is about speed, not
            // about which broker drops first.
            << "max_queued_messages 0\n"
            << "max_inflight_messages 0\n"
            << "set_tcp_nodelay true\n";
    }
    ::chmod(dir, 0755);
    ::chmod(conf.c_str(), 0644);

    int status = 0;
    {
        Child velad({exeDir() + "/velad", "--port", "0", "--quiet", "--acl", acl}, true);
        const std::string line = velad.readLine(5s);
        const std::uint16_t velaPort =
            line.rfind(':') == std::string::npos
                ? 0
                : static_cast<std::uint16_t>(std::stoul(line.substr(line.rfind(':') + 1)));
        Child mosq({std::string(TSD_PRIVATE_ROOT) + "/usr/sbin/mosquitto", "-c", conf}, false);
        if (velaPort == 0 || !waitFor([&] { return canConnect(mqttPort); }, 5s)) {
            std::fprintf(stderr, "bus_bench: brokers did not start (velad: '%s')\n", line.c_str());
            status = 1;
        } else {
            std::printf("brokers: velad 127.0.0.1:%u (pid %d), mosquitto 127.0.0.1:%u (pid %d)\n",
                        unsigned{velaPort}, velad.pid(), unsigned{mqttPort}, mosq.pid());
            std::printf("fan-out: 1 owner -> %d fetchers, ~100-byte JSON values; medians of %d runs\n\n",
                        kFetchers, params.repeats);
            row("", "velad", "mosquitto");
            const long velaIdle = rssKiB(velad.pid());
            const long mqttIdle = rssKiB(mosq.pid());

            auto [vb, mb] = compare(
                params.repeats, [&] { return velaFanOut(velaPort, params.blastMessages, 0); },
                [&] { return mqttFanOut(mqttPort, params.blastMessages, 0); });
            row("fan-out flat out: notifications/s", num(vb.rate), num(mb.rate));
            row("  delivered / expected", std::to_string(vb.delivered) + "/" + std::to_string(vb.expected),
                std::to_string(mb.delivered) + "/" + std::to_string(mb.expected));
            row("  latency p50 / p99 (us)", lat(vb), lat(mb));

            auto [vp, mp] = compare(
                params.repeats, [&] { return velaFanOut(velaPort, params.pacedMessages, params.pacedRate); },
                [&] { return mqttFanOut(mqttPort, params.pacedMessages, params.pacedRate); });
            const std::string paced = "fan-out at " + std::to_string(params.pacedRate) + "/s: p50 / p99 (us)";
            row(paced.c_str(), lat(vp), lat(mp));
            row("  delivered / expected", std::to_string(vp.delivered) + "/" + std::to_string(vp.expected),
                std::to_string(mp.delivered) + "/" + std::to_string(mp.expected));

            auto [vs, ms] = compare(
                params.repeats, [&] { return velaSetRoundTrips(velaPort, params.roundTrips); },
                [&] { return mqttSetRoundTrips(mqttPort, params.roundTrips); });
            row("set round trips/s", num(vs.rate), num(ms.rate));
            row("  round trip p50 / p99 (us)", lat(vs), lat(ms));
            row("  completed / expected", std::to_string(vs.delivered) + "/" + std::to_string(vs.expected),
                std::to_string(ms.delivered) + "/" + std::to_string(ms.expected));

            VelaClient rssOwner(velaPort);
            const bool velaStored = velaAddStates(velaPort, rssOwner, kRssStates);
            const bool mqttStored = mqttRetain(mqttPort, kRssStates);
            const long velaFull = rssKiB(velad.pid());
            const long mqttFull = rssKiB(mosq.pid());
            row("broker RSS idle (KiB)", std::to_string(velaIdle), std::to_string(mqttIdle));
            row("broker RSS, 10000 states (KiB)",
                std::to_string(velaFull) + (velaStored ? "" : " (incomplete)"),
                std::to_string(mqttFull) + (mqttStored ? "" : " (incomplete)"));
            rssOwner.stop();

            std::printf("\ngoals:\n");
            std::printf("  fan-out rate >= 5 x mosquitto:    %s (%.1f x)\n", vb.rate >= 5 * mb.rate ? "met" : "MISSED",
                        mb.rate > 0 ? vb.rate / mb.rate : 0.0);
            std::printf("  paced fan-out p99 <= mosquitto:   %s\n", vp.p99us <= mp.p99us ? "met" : "MISSED");
            std::printf("  set round trip p99 <= mosquitto:  %s\n", vs.p99us <= ms.p99us ? "met" : "MISSED");
            std::printf("  RSS with 10000 states < 20 MiB:   %s\n",
                        velaFull > 0 && velaFull < 20 * 1024 ? "met" : "MISSED");
        }
    }
    ::unlink(conf.c_str());
    ::unlink(acl.c_str());
    ::rmdir(dir);
    mosquitto_lib_cleanup();
    return status;
}

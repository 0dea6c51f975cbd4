// vela: the command-line client of the bus. Each command is one PeerAsync on
// one EventLoop; get and list are fetches that end with the fetch's answer,
// which the broker sends after the states present at that moment.
#include "CliOptions.h"
#include "JsonText.h"
#include "OwnLine.h"

#include <orv/sys/EventLoop.h>
#include <orv/sys/Timer.h>
#include <vela/PeerAsync.h>

#include <signal.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <optional>
#include <string>

namespace {

using vela::cli::CliOptions;

orv::sys::EventLoop* g_loop = nullptr;

void onStopSignal(int)
{
    if (g_loop) {
        g_loop->stop();
    }
}

void printLine(const std::string& line)
{
    std::string out = line;
    out += '\n';
    std::fwrite(out.data(), 1, out.size(), stdout);
    std::fflush(stdout);
}

std::string errorText(const Json::Value& response)
{
    return response["error"]["message"].asString();
}

std::chrono::milliseconds toMs(double seconds)
{
    return std::chrono::milliseconds(static_cast<long long>(seconds * 1000.0 + 0.5));
}

// One command run: the loop, the peer, the exit status.
class Command
{
public:
    Command(orv::sys::EventLoop& loop, const CliOptions& options)
        : m_loop(loop),
          m_options(options),
          m_peer(loop, options.address, options.port, "vela", options.trace),
          m_deadline(loop),
          m_reachCheck(loop)
    {
    }

    int status() const { return m_status; }

    void finish(int status)
    {
        m_status = status;
        m_loop.stop();
    }

    void fail(const std::string& message)
    {
        std::fprintf(stderr, "vela: %s\n", message.c_str());
        finish(1);
    }

    // get, list and set give up when the broker cannot be reached or does
    // not answer, instead of waiting forever.
    void armTimeout()
    {
        m_reachCheck.set(std::min(toMs(m_options.timeout), std::chrono::milliseconds(3000)), false,
                         [this](bool fired) {
                             if (fired && !m_peer.isConnected()) {
                                 fail("cannot reach the broker at " + where());
                             }
                         });
        m_deadline.set(toMs(m_options.timeout), false, [this](bool fired) {
            if (fired) {
                fail("no answer from the broker at " + where());
            }
        });
    }

    std::string where() const { return m_options.address + ":" + std::to_string(m_options.port); }

    void get(const std::string& path)
    {
        armTimeout();
        vela::matcher_t m;
        m.equals = path;
        m_peer.addFetchAsync(
            m,
            [this](const Json::Value& n, int) {
                if (n["event"].asString() != "remove") {
                    m_value = n["value"];
                }
            },
            [this, path](const Json::Value& response) {
                if (response.isMember("error")) {
                    fail(errorText(response));
                } else if (!m_value) {
                    fail("no state '" + path + "'");
                } else {
                    printLine(vela::toCompact(*m_value));
                    finish(0);
                }
            });
    }

    void list(const std::string& prefix)
    {
        armTimeout();
        vela::matcher_t m;
        m.startsWith = prefix;
        m_peer.addFetchAsync(
            m,
            [this](const Json::Value& n, int) {
                const std::string path = n["path"].asString();
                if (n["event"].asString() == "remove") {
                    m_list.erase(path);
                } else {
                    m_list[path] = vela::toCompact(n["value"]);
                }
            },
            [this](const Json::Value& response) {
                if (response.isMember("error")) {
                    fail(errorText(response));
                    return;
                }
                // The map keeps the paths sorted.
                for (const auto& [path, value] : m_list) {
                    printLine(path + "\t" + value);
                }
                finish(0);
            });
    }

    void set(const std::string& path, const Json::Value& value)
    {
        armTimeout();
        m_peer.setAsync(path, value, [this](const Json::Value& response) {
            if (response.isMember("error")) {
                fail(errorText(response));
            } else {
                printLine(vela::toCompact(response["result"]));
                finish(0);
            }
        });
    }

    void watch(const std::string& prefix)
    {
        if (m_options.forSeconds >= 0) {
            m_deadline.set(std::max(toMs(m_options.forSeconds), std::chrono::milliseconds(1)), false,
                           [this](bool fired) {
                               if (fired) {
                                   finish(0);
                               }
                           });
        }
        vela::matcher_t m;
        m.startsWith = prefix;
        m_peer.addFetchAsync(m, [this](const Json::Value& n, int) {
            if (m_stopped) {
                return;
            }
            Json::Value line(Json::objectValue);
            line["event"] = n["event"];
            line["path"] = n["path"];
            line["value"] = n["value"];
            printLine(vela::toCompact(line));
            if (m_options.count > 0 && ++m_lines >= m_options.count) {
                m_stopped = true;
                finish(0);
            }
        });
    }

    // `vela own`: stdin lines become own states; each gets its ok/error in
    // input order once the broker has acknowledged it.
    int own()
    {
        int rc = m_loop.addFd(STDIN_FILENO, EPOLLIN, [this](std::uint32_t) { readStdin(); });
        if (rc == -EPERM) {
            // A regular file cannot be watched by epoll; it never blocks, so
            // read it all now.
            while (!m_eof) {
                readStdin();
            }
            return 0;
        }
        if (rc < 0) {
            std::fprintf(stderr, "vela: cannot watch stdin: %s\n", std::strerror(-rc));
            return -1;
        }
        m_watchingStdin = true;
        return 0;
    }

private:
    orv::sys::EventLoop& m_loop;
    const CliOptions& m_options;
    vela::PeerAsync m_peer;
    orv::sys::Timer m_deadline;
    orv::sys::Timer m_reachCheck;
    int m_status = 0;

    std::optional<Json::Value> m_value;
    std::map<std::string, std::string> m_list;
    long m_lines = 0;
    bool m_stopped = false;

    std::string m_partial;
    bool m_eof = false;
    bool m_watchingStdin = false;
    // Answers in input order: a slot per line, printed once all earlier
    // slots are.
    std::deque<std::optional<std::string>> m_answers;
    std::size_t m_firstSlot = 0;

    void readStdin()
    {
        char buf[65536];
        // One read per wake-up: stdin stays blocking (it may be shared with
        // the caller), and after EPOLLIN one read does not block.
        ssize_t n = ::read(STDIN_FILENO, buf, sizeof buf);
        if (n < 0 && errno == EINTR) {
            return;
        }
        if (n <= 0) {
            if (!m_partial.empty()) {
                handleLine(m_partial);
                m_partial.clear();
            }
            m_eof = true;
            if (m_watchingStdin) {
                m_loop.removeFd(STDIN_FILENO);
                m_watchingStdin = false;
            }
            maybeDone();
            return;
        }
        m_partial.append(buf, static_cast<std::size_t>(n));
        std::size_t start = 0;
        for (std::size_t nl = m_partial.find('\n'); nl != std::string::npos;
             nl = m_partial.find('\n', start)) {
            handleLine(m_partial.substr(start, nl - start));
            start = nl + 1;
        }
        m_partial.erase(0, start);
    }

    void handleLine(const std::string& line)
    {
        vela::cli::OwnLine parsed;
        std::string error;
        const std::size_t slot = m_firstSlot + m_answers.size();
        if (!vela::cli::parseOwnLine(line, parsed, error)) {
            m_answers.emplace_back("error: " + error);
            flushAnswers();
            return;
        }
        if (parsed.op == vela::cli::OwnLine::Op::kNone) {
            return;
        }
        m_answers.emplace_back();
        auto answer = [this, slot](const Json::Value& response) {
            m_answers[slot - m_firstSlot] =
                response.isMember("error") ? "error: " + errorText(response) : std::string("ok");
            flushAnswers();
            maybeDone();
        };
        switch (parsed.op) {
            case vela::cli::OwnLine::Op::kAdd:
                m_peer.addStateAsync(parsed.path, parsed.value, answer,
                                     [](const Json::Value& value, const std::string& path) {
                                         Json::Value request(Json::objectValue);
                                         request["set"] = path;
                                         request["value"] = value;
                                         printLine(vela::toCompact(request));
                                         return Json::Value();
                                     });
                break;
            case vela::cli::OwnLine::Op::kChange:
                m_peer.changeStateAsync(parsed.path, parsed.value, answer);
                break;
            case vela::cli::OwnLine::Op::kRemove:
                m_peer.removeStateAsync(parsed.path, answer);
                break;
            case vela::cli::OwnLine::Op::kNone:
                break;
        }
    }

    void flushAnswers()
    {
        while (!m_answers.empty() && m_answers.front()) {
            printLine(*m_answers.front());
            m_answers.pop_front();
            ++m_firstSlot;
        }
    }

    void maybeDone()
    {
        if (m_eof && m_answers.empty()) {
            finish(0);
        }
    }
};

}  // namespace

int main(int argc, char** argv)
{
    CliOptions options;
    std::string error;
    if (!vela::cli::parseCliOptions(argc, argv, options, error)) {
        std::fprintf(stderr, "vela: %s\n%s", error.c_str(), vela::cli::usageText());
        return 2;
    }
    if (options.help) {
        std::fputs(vela::cli::usageText(), stdout);
        return 0;
    }
    Json::Value setValue;
    if (options.command == "set" && !vela::parseJson(options.args[1], &setValue, &error)) {
        std::fprintf(stderr, "vela: invalid JSON value: %s\n", error.c_str());
        return 1;
    }

    // SIGPIPE stays at its default: `vela watch | head -1` must end when its
    // reader does. The bus socket never raises it (MSG_NOSIGNAL).
    orv::sys::EventLoop loop;
    g_loop = &loop;
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = onStopSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    Command command(loop, options);
    const std::string arg0 = options.args.empty() ? std::string() : options.args[0];
    if (options.command == "get") {
        command.get(arg0);
    } else if (options.command == "list") {
        command.list(arg0);
    } else if (options.command == "set") {
        command.set(arg0, setValue);
    } else if (options.command == "watch") {
        command.watch(arg0);
    } else if (command.own() < 0) {
        return 1;
    }
    int rc = loop.execute();
    g_loop = nullptr;
    if (rc < 0) {
        std::fprintf(stderr, "vela: event loop failed: %s\n", std::strerror(-rc));
        return 1;
    }
    return command.status();
}

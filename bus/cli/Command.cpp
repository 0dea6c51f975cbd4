// get and list are fetches that end with the fetch's answer, which the broker
// sends after the states present at that moment; no extra broker method is
// needed for them.
#include "Command.h"

#include "JsonText.h"
#include "LogLimiter.h"
#include "OwnLine.h"

#include <orv/sys/EventLoop.h>

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace vela::cli {

namespace {

void printLine(const std::string& line)
{
    std::string out = line;
    out += '\n';
    std::fwrite(out.data(), 1, out.size(), stdout);
    std::fflush(stdout);
}

// An error's message carries text of other peers (an owner's reason for
// refusing a set, paths): escaped, so that it cannot drive the terminal.
std::string errorText(const Json::Value& response)
{
    const std::string message = response["error"]["message"].asString();
    return vela::escapeLogText(message, message.size() * 4 + 1);
}

std::chrono::milliseconds toMs(double seconds)
{
    return std::chrono::milliseconds(static_cast<long long>(seconds * 1000.0 + 0.5));
}

}  // namespace

Command::Command(orv::sys::EventLoop& loop, const CliOptions& options)
    : m_loop(loop),
      m_options(options),
      m_peer(loop, options.address, options.port, "vela", options.trace),
      m_deadline(loop),
      m_reachCheck(loop)
{
}

void Command::finish(int status)
{
    m_status = status;
    m_loop.stop();
}

void Command::fail(const std::string& message)
{
    std::fprintf(stderr, "vela: %s\n", message.c_str());
    finish(1);
}

void Command::armTimeout()
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

void Command::get(const std::string& path)
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

void Command::list(const std::string& prefix)
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

void Command::set(const std::string& path, const Json::Value& value)
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

void Command::watch(const std::string& prefix)
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

int Command::own()
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

void Command::readStdin()
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
    for (std::size_t nl = m_partial.find('\n'); nl != std::string::npos; nl = m_partial.find('\n', start)) {
        handleLine(m_partial.substr(start, nl - start));
        start = nl + 1;
    }
    m_partial.erase(0, start);
}

void Command::handleLine(const std::string& line)
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

void Command::flushAnswers()
{
    while (!m_answers.empty() && m_answers.front()) {
        printLine(*m_answers.front());
        m_answers.pop_front();
        ++m_firstSlot;
    }
}

void Command::maybeDone()
{
    if (m_eof && m_answers.empty()) {
        finish(0);
    }
}

std::string Command::where() const
{
    return m_options.address + ":" + std::to_string(m_options.port);
}

}  // namespace vela::cli

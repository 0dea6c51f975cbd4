#include "tsdsim/Publisher.h"

#include <json/writer.h>

#include "LineReader.h"
#include "tsdsim/ChildProcess.h"

namespace tsdsim {

namespace {

std::string compact(const Json::Value& v)
{
    Json::StreamWriterBuilder b;
    b["indentation"] = "";
    return Json::writeString(b, v);
}

}  // namespace

Publisher::Publisher(LoopThread& io, const SyncParam& param)
    : m_param(param), m_reader(std::make_unique<LineReader>(io))
{
}

Publisher::~Publisher()
{
    detach();
}

void Publisher::attach(ChildProcess& client)
{
    detach();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_linesSent = 0;
        m_linesAnswered = 0;
    }
    m_client = &client;
    m_reader->start(client.stdoutFd(),
                    [this](const std::vector<std::string>& lines) { countAnswers(lines); });
    if (m_paramPublished) {
        send("add sync/param " + compact(m_param.toJson()));
    }
    for (const auto& path : m_reachable) {
        send("add " + path + " {}");
    }
}

void Publisher::detach()
{
    if (!m_client) {
        return;
    }
    m_reader->stop();
    m_client->closeStdin();
    m_client = nullptr;
}

void Publisher::countAnswers(const std::vector<std::string>& lines)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const std::string& line : lines) {
        if (line == "ok") {
            ++m_linesAnswered;
        } else if (line.rfind("error", 0) == 0) {
            ++m_linesAnswered;
            m_lastError = line;
        }
    }
    m_answered.notify_all();
}

void Publisher::send(const std::string& line)
{
    if (!m_client) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_linesSent;
    }
    m_client->writeLine(line);
}

bool Publisher::waitPublished(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_answered.wait_for(lock, timeout, [this] { return m_linesAnswered >= m_linesSent; });
}

std::string Publisher::lastError() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lastError;
}

void Publisher::setParam(const SyncParam& param)
{
    m_param = param;
    send((m_paramPublished ? "change sync/param " : "add sync/param ") + compact(m_param.toJson()));
    m_paramPublished = true;
}

void Publisher::removeParam()
{
    if (m_paramPublished) {
        m_paramPublished = false;
        send("remove sync/param");
    }
}

void Publisher::setReachable(const std::set<std::string>& paths)
{
    for (const auto& p : m_reachable) {
        if (!paths.count(p)) {
            send("remove " + p);
        }
    }
    for (const auto& p : paths) {
        if (!m_reachable.count(p)) {
            send("add " + p + " {}");
        }
    }
    m_reachable = paths;
}

}  // namespace tsdsim

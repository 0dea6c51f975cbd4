#include "tsdsim/BusObserver.h"

#include <json/reader.h>

#include "LineReader.h"

namespace tsdsim {

namespace {

bool parseJson(const std::string& text, Json::Value& out)
{
    Json::CharReaderBuilder b;
    std::unique_ptr<Json::CharReader> r(b.newCharReader());
    std::string errors;
    return r->parse(text.data(), text.data() + text.size(), &out, &errors);
}

}  // namespace

BusObserver::BusObserver(LoopThread& io, SimClock clock, std::function<void()> onRecord)
    : m_clock(clock), m_onRecord(std::move(onRecord)), m_reader(std::make_unique<LineReader>(io))
{
}

BusObserver::~BusObserver()
{
    detach();
}

void BusObserver::attach(int fd)
{
    m_reader->start(fd, [this](const std::vector<std::string>& lines) { record(lines); });
}

void BusObserver::detach()
{
    m_reader->stop();
}

void BusObserver::forgetStates()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_states.clear();
}

void BusObserver::record(const std::vector<std::string>& lines)
{
    store(lines);
    if (m_onRecord) {
        m_onRecord();
    }
}

void BusObserver::store(const std::vector<std::string>& lines)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const std::string& line : lines) {
        Json::Value v;
        if (!parseJson(line, v) || !v.isObject()) {
            continue;
        }
        Event e;
        e.time = m_clock.now();
        e.event = v["event"].asString();
        e.path = v["path"].asString();
        e.value = v["value"];
        if (e.event == "remove") {
            m_states.erase(e.path);
        } else {
            m_states[e.path] = e.value;
        }
        m_events.push_back(std::move(e));
    }
}

Json::Value BusObserver::state(const std::string& path) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_states.find(path);
    return it == m_states.end() ? Json::Value() : it->second;
}

std::map<std::string, Json::Value> BusObserver::states(const std::string& prefix) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::map<std::string, Json::Value> out;
    for (const auto& s : m_states) {
        if (s.first.rfind(prefix, 0) == 0) {
            out.insert(s);
        }
    }
    return out;
}

std::vector<BusObserver::Event> BusObserver::events() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events;
}

}  // namespace tsdsim

// The bus peer of the fuzz targets: the same interface as the peer library,
// but every call lands in the record at once instead of on a broker. It keeps
// what a broker would enforce and a target wants to see: which states the
// peer owns (a second add of one is counted), which fetches it holds with
// their callbacks (so that a target can deliver notifications the way the
// bus does), and every published value in order.
#include <vela/PeerAsync.h>

#include "Record.h"

namespace vela {

struct PeerAsync::Impl
{
};

namespace {

void noteCallback(const ResponseCallback& response)
{
    if (response) {
        ++fuzzsupport::record().callbacksPassed;
    }
}

}  // namespace

PeerAsync::PeerAsync(orv::sys::EventLoop&, const std::string&, unsigned, const std::string&, bool) {}

PeerAsync::~PeerAsync() = default;

void PeerAsync::configAsync(const std::string&, bool, ResponseCallback response)
{
    noteCallback(response);
}

void PeerAsync::addStateAsync(const std::string& path, const Json::Value& value, ResponseCallback response,
                              SetCallback onSet)
{
    noteCallback(response);
    fuzzsupport::Record& r = fuzzsupport::record();
    if (r.states.count(path) != 0) {
        // The broker refuses it and the first owner's value stays.
        ++r.duplicateAdds;
        return;
    }
    r.states[path] = fuzzsupport::OwnState{value, std::move(onSet)};
    r.published.push_back({path, value});
}

void PeerAsync::removeStateAsync(const std::string& path, ResponseCallback response)
{
    noteCallback(response);
    fuzzsupport::Record& r = fuzzsupport::record();
    r.states.erase(path);
    r.removed.push_back(path);
}

void PeerAsync::notifyState(const std::string& path, const Json::Value& value)
{
    fuzzsupport::Record& r = fuzzsupport::record();
    auto state = r.states.find(path);
    if (state != r.states.end()) {
        state->second.value = value;
    }
    r.published.push_back({path, value});
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
    noteCallback(response);
    notifyState(path, value);
}

int PeerAsync::addFetchAsync(const matcher_t& matcher, FetchCallback onNotify, ResponseCallback response)
{
    noteCallback(response);
    fuzzsupport::Record& r = fuzzsupport::record();
    const int id = r.nextFetchId++;
    r.fetches[id] = fuzzsupport::Fetch{matcher, std::move(onNotify)};
    return id;
}

void PeerAsync::removeFetchAsync(int fetchId, ResponseCallback response)
{
    noteCallback(response);
    fuzzsupport::record().fetches.erase(fetchId);
}

void PeerAsync::setAsync(const std::string&, const Json::Value&, ResponseCallback response)
{
    noteCallback(response);
}

bool PeerAsync::isConnected() const
{
    return true;
}

}  // namespace vela

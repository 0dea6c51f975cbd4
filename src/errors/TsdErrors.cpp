#include "errors/TsdErrors.h"

#include <syslog.h>

#include <cstdio>

#include <json/value.h>
#include <vela/PeerAsync.h>

namespace orv::tsd {
namespace {

const char kErrorPathPrefix[] = "sync/errors";

std::map<int, std::string> makeErrorTexts()
{
    // Code 5 is positive on purpose: bus clients already match on it.
    return {
        {-1, "Did not receive sync notification from all modules on back"},
        {-2, "Did not receive sync notification from all modules on front"},
        {-3, "Wrong interface"},
        {-4, "File open error"},
        {5, "Configuration file error"},
        {-6, "Exception"},
        {-7, "File write error"},
    };
}

// Fills the table during static initialisation, so that it exists before
// main whatever the order in which other translation units start.
struct ErrorTextsBeforeMain
{
    ErrorTextsBeforeMain() { errorTexts(); }
} const g_errorTextsBeforeMain;

std::string errorPath(int code)
{
    char number[16];
    std::snprintf(number, sizeof number, "%d", code);
    return std::string(kErrorPathPrefix) + "/" + number;
}

}  // namespace

std::map<int, std::string>& errorTexts()
{
    static std::map<int, std::string> texts = makeErrorTexts();
    return texts;
}

TsdErrors::TsdErrors(vela::PeerAsync& peer) : m_peer(peer) {}

TsdErrors::~TsdErrors()
{
    // std::map iterates in ascending code order, the order bus clients see
    // the states go.
    for (const auto& error : m_active)
        m_peer.removeStateAsync(error.second, {});
    m_active.clear();
}

void TsdErrors::add(int code, const std::string& info)
{
    // The first report of a fault stands; repeats would only flood the bus.
    if (m_active.count(code) != 0)
        return;

    const std::string path = errorPath(code);
    // operator[] on purpose: an unknown code gets an empty text and keeps it.
    const std::string text = errorTexts()[code];

    Json::Value value(Json::objectValue);
    value["error"] = code;
    value["txt"] = text;
    value["info"] = info;

    syslog(LOG_NOTICE, "ADD ERROR : %s", text.c_str());
    m_peer.addStateAsync(path, value, {}, {});
    m_active[code] = path;
}

void TsdErrors::add(int code, const std::string& info, const std::string& scope, const std::string& function,
                    int line)
{
    add(code, "[" + std::to_string(line) + "]" + scope + "::" + function + "[" + info + "]");
}

void TsdErrors::remove(int code)
{
    const auto active = m_active.find(code);
    if (active == m_active.end())
        return;

    const std::string text = errorTexts()[code];
    syslog(LOG_NOTICE, "REMOVE ERROR : %s", text.c_str());
    m_peer.removeStateAsync(active->second, {});
    m_active.erase(active);
}

}  // namespace orv::tsd

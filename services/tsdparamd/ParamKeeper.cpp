#include "ParamKeeper.h"

#include <syslog.h>

#include <cstring>
#include <stdexcept>

#include <vela/PeerAsync.h>

#include "AtomicFile.h"
#include "JsonText.h"
#include "ParamFile.h"
#include "ParamRules.h"
#include "Printable.h"
#include "ServiceLog.h"

namespace orv::services {

ParamKeeper::ParamKeeper(vela::PeerAsync& peer, const ParamRules& rules, Files files, FileSystem& fs)
    : m_peer(peer), m_rules(rules), m_files(std::move(files)), m_fs(fs)
{
}

void ParamKeeper::start(std::function<void(const std::string& error)> added)
{
    m_value = startingValue();
    m_peer.addStateAsync(
        kPath, m_value,
        [added = std::move(added)](const Json::Value& response) {
            if (added) {
                added(response.isMember("error") ? response["error"]["message"].asString() : std::string());
            }
        },
        [this](const Json::Value& request, const std::string&) { return cbSet(request); });
}

void ParamKeeper::stop(std::function<void()> removed)
{
    m_peer.removeStateAsync(kPath, [removed = std::move(removed)](const Json::Value&) {
        if (removed) {
            removed();
        }
    });
}

Json::Value ParamKeeper::validFrom(const std::string& path, bool& present, std::string& why)
{
    Json::Value read;
    present = true;
    switch (readParamFile(path, read, why)) {
        case ParamFileStatus::Missing:
            present = false;
            return Json::Value();
        case ParamFileStatus::Bad:
            why = printable(why, 200);
            return Json::Value();
        case ParamFileStatus::Read:
            break;
    }
    // A file may give only some keys; the built-ins fill in the rest.
    const Json::Value merged = mergeParams(builtinParams(), read);
    why = read.isObject() ? m_rules.check(merged) : m_rules.check(read);
    return why.empty() ? merged : Json::Value();
}

Json::Value ParamKeeper::startingValue()
{
    bool present = false;
    std::string why;
    Json::Value value = validFrom(m_files.state, present, why);
    if (!value.isNull()) {
        syslog(LOG_INFO, "sync/param from %s", printable(m_files.state).c_str());
        return value;
    }
    if (present) {
        const std::string aside = m_files.state + ".bad";
        if (m_fs.renameFile(m_files.state, aside) == 0) {
            syslog(LOG_ERR, "state file %s holds no valid value (%s); kept as %s, defaults used",
                   printable(m_files.state).c_str(), why.c_str(), printable(aside).c_str());
        } else {
            syslog(LOG_ERR,
                   "state file %s holds no valid value (%s) and cannot be moved to %s: %s; defaults used",
                   printable(m_files.state).c_str(), why.c_str(), printable(aside).c_str(),
                   std::strerror(errno));
        }
    }

    value = validFrom(m_files.defaults, present, why);
    if (!value.isNull()) {
        syslog(LOG_INFO, "sync/param from %s", printable(m_files.defaults).c_str());
        return value;
    }
    if (present) {
        syslog(LOG_ERR, "defaults file %s holds no valid value (%s); built-in defaults used",
               printable(m_files.defaults).c_str(), why.c_str());
    }

    value = builtinParams();
    why = m_rules.check(value);
    if (!why.empty()) {
        // Still published: tsd needs some value, and it ignores one whose
        // time source it does not know.
        syslog(LOG_ERR, "the built-in defaults do not pass the checks either (%s); used anyway", why.c_str());
    } else {
        syslog(LOG_INFO, "sync/param from the built-in defaults");
    }
    return value;
}

Json::Value ParamKeeper::cbSet(const Json::Value& request)
{
    if (isDebug()) {
        syslog(LOG_DEBUG, "set request on sync/param: %s", printable(vela::toCompact(request), 512).c_str());
    }
    const std::string fault =
        request.isObject() ? m_rules.check(mergeParams(m_value, request)) : m_rules.check(request);
    if (!fault.empty()) {
        logRefusal(fault);
        throw vela::SetRefused(fault);
    }
    const Json::Value merged = mergeParams(m_value, request);
    if (merged == m_value) {
        return m_value;
    }
    // Stored first: what the bus shows must survive a power cut, or tsd
    // would act on a value the module forgets at the next boot.
    const AtomicWrite written = writeFileAtomically(m_fs, m_files.state, paramFileText(merged));
    if (!written.replaced) {
        syslog(LOG_ERR, "cannot store sync/param in %s (%s: %s); the value stays as it was",
               printable(m_files.state).c_str(), written.step.c_str(), std::strerror(written.error));
        throw std::runtime_error("cannot store the value (" + written.step + ": " +
                                 std::strerror(written.error) + ")");
    }
    if (written.error != 0) {
        // The file holds the new value already, so the bus follows it.
        syslog(LOG_ERR,
               "sync/param stored in %s, but the %s failed (%s); a power cut may bring back the old value",
               printable(m_files.state).c_str(), written.step.c_str(), std::strerror(written.error));
    }
    m_value = merged;
    m_peer.notifyState(kPath, m_value);
    syslog(LOG_INFO, "sync/param set to %s", printable(vela::toCompact(m_value)).c_str());
    return m_value;
}

void ParamKeeper::logRefusal(const std::string& fault)
{
    const auto now = std::chrono::steady_clock::now();
    if (m_refusalsInWindow == 0 || now - m_windowStart >= kRefusalWindow) {
        if (m_refusalsUnlogged > 0) {
            syslog(LOG_WARNING, "%u more set requests on sync/param were refused and not logged",
                   m_refusalsUnlogged);
        }
        m_windowStart = now;
        m_refusalsInWindow = 0;
        m_refusalsUnlogged = 0;
    }
    if (m_refusalsInWindow < kMaxLoggedRefusals) {
        ++m_refusalsInWindow;
        syslog(LOG_WARNING, "set request on sync/param refused: %s", fault.c_str());
        return;
    }
    ++m_refusalsUnlogged;
}

}  // namespace orv::services

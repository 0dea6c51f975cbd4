#include "DevicePublisher.h"

#include <syslog.h>

#include <vela/PeerAsync.h>

#include "DeviceChanges.h"
#include "Printable.h"
#include "ServiceLog.h"

namespace orv::services {

DevicePublisher::DevicePublisher(vela::PeerAsync& peer, std::string sysfsRoot)
    : m_peer(peer), m_root(std::move(sysfsRoot))
{
}

bool DevicePublisher::rescan()
{
    const ScanResult scan = scanReachableDevices(m_root);
    logProblems(scan);
    if (!scan.complete) {
        return false;
    }
    const DeviceChanges changes = compareDevices(m_published, scan.devices);
    for (const std::string& path : changes.removed) {
        remove(path);
    }
    for (const auto& [path, value] : changes.added) {
        add(path, value);
    }
    for (const auto& [path, value] : changes.changed) {
        if (isDebug()) {
            syslog(LOG_DEBUG, "device %s changed", printable(path).c_str());
        }
        m_published[path] = value;
        m_peer.notifyState(path, value);
    }
    return true;
}

void DevicePublisher::logProblems(const ScanResult& scan)
{
    if (!scan.complete) {
        if (scan.failure != m_loggedFailure) {
            syslog(LOG_ERR, "scan incomplete, the bus stays as it is: %s", scan.failure.c_str());
            m_loggedFailure = scan.failure;
        }
        return;
    }
    if (!m_loggedFailure.empty()) {
        syslog(LOG_NOTICE, "scan complete again");
        m_loggedFailure.clear();
    }
    std::set<std::string> now(scan.problems.begin(), scan.problems.end());
    for (const std::string& problem : scan.problems) {
        if (m_loggedProblems.count(problem) == 0) {
            syslog(LOG_WARNING, "%s", problem.c_str());
        }
    }
    m_loggedProblems.swap(now);
}

void DevicePublisher::add(const std::string& path, const Json::Value& value)
{
    if (isDebug()) {
        syslog(LOG_DEBUG, "device %s appeared", printable(path).c_str());
    }
    m_published[path] = value;
    ++m_pending;
    m_peer.addStateAsync(path, value, [this, path, value](const Json::Value& response) {
        if (response.isMember("error")) {
            // Someone else holds the path (a stale owner, say). Forget it, so
            // that the next rescan offers it again; say so once.
            const auto it = m_published.find(path);
            if (it != m_published.end() && it->second == value) {
                m_published.erase(it);
            }
            if (m_refusedPaths.insert(path).second) {
                syslog(LOG_WARNING, "the bus refused %s: %s", printable(path).c_str(),
                       printable(response["error"]["message"].asString(), 200).c_str());
            }
        } else {
            m_refusedPaths.erase(path);
        }
        answered();
    });
}

void DevicePublisher::remove(const std::string& path)
{
    if (isDebug()) {
        syslog(LOG_DEBUG, "device %s vanished", printable(path).c_str());
    }
    m_published.erase(path);
    ++m_pending;
    m_peer.removeStateAsync(path, [this](const Json::Value&) { answered(); });
}

void DevicePublisher::answered()
{
    if (m_pending > 0 && --m_pending == 0 && m_settled) {
        m_settled();
    }
}

}  // namespace orv::services

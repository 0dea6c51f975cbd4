#include "sync/NtpManage.h"

#include <syslog.h>

#include "main/Debug.h"
#include "sync/CommandRunner.h"
#include "sync/PTPManage.h"

namespace orv::tsd {

NtpManage& NtpManage::instance()
{
    static NtpManage manager;
    return manager;
}

void NtpManage::start(CommandRunner& runner, const std::string& ntpCfg, PTPManage& ptp)
{
    if (isDebugMode()) {
        debugLog("****** start NTP *******");
    }
    // Only one time service may feed the chain at a time.
    if (ptp.isRunning()) {
        ptp.stop(runner);
    }
    writeConfig(runner, ntpCfg);
    if (m_running) {
        stopService(runner);
    }
    startService(runner);
}

void NtpManage::restart(CommandRunner& runner, const std::string& ntpCfg)
{
    if (isDebugMode()) {
        debugLog("***** restart NTP ******");
    }
    writeConfig(runner, ntpCfg);
    stopService(runner);
    startService(runner);
}

void NtpManage::stop(CommandRunner& runner)
{
    if (isDebugMode()) {
        debugLog("****** stop NTP *******");
    }
    stopService(runner);
}

void NtpManage::stopService(CommandRunner& runner)
{
    if (!m_running) {
        return;
    }
    // A failed stop keeps the flag, so the next election that does not need
    // NTP tries to stop it again.
    if (runner.run(kStopCommand) == 0) {
        m_running = false;
    } else {
        syslog(LOG_ERR, "error stoping ntpd");
    }
}

void NtpManage::startService(CommandRunner& runner)
{
    // A failed start leaves the flag clear, so the next election starts again.
    if (runner.run(kStartCommand) == 0) {
        m_running = true;
    } else {
        syslog(LOG_ERR, "error starting ntpd");
    }
}

void NtpManage::writeConfig(CommandRunner& runner, const std::string& ntpCfg)
{
    // /var/run is a tmpfs that starts empty at boot; the scripts expect the
    // directory to exist.
    runner.run("mkdir -p /var/run");
    runner.run("mkdir -p /var/run/timesync");
    if (!writeServiceFile(kServerFile, ntpCfg)) {
        syslog(LOG_ERR, " (NTP) error creating NTPSERVER_IP file");
    }
}

}  // namespace orv::tsd

#include "sync/PTPManage.h"

#include <syslog.h>

#include "main/Debug.h"
#include "sync/CommandRunner.h"
#include "sync/NtpManage.h"

namespace orv::tsd {

PTPManage& PTPManage::instance()
{
    static PTPManage manager;
    return manager;
}

void PTPManage::start(CommandRunner& runner, const std::string& ptpCfg, NtpManage& ntp)
{
    if (isDebugMode()) {
        debugLog("****** start PTP *******");
    }
    // Only one time service may feed the chain at a time.
    if (ntp.isRunning()) {
        ntp.stop(runner);
    }
    writeConfig(ptpCfg);
    if (!m_running) {
        // Set before the script runs: a failing start is not retried.
        m_running = true;
        if (runner.run(kStartCommand) != 0) {
            syslog(LOG_ERR, "error starting ptpd");
        }
    }
}

void PTPManage::restart(CommandRunner& runner, const std::string& ptpCfg)
{
    if (isDebugMode()) {
        debugLog("***** restart PTP ******");
    }
    writeConfig(ptpCfg);
    if (m_running) {
        if (runner.run(kRestartCommand) != 0) {
            syslog(LOG_ERR, "error restarting ptpd");
        }
    }
}

void PTPManage::stop(CommandRunner& runner)
{
    if (isDebugMode()) {
        debugLog("****** stop PTP *******");
    }
    if (m_running) {
        // Cleared before the script runs: a failing stop is not retried.
        m_running = false;
        if (runner.run(kStopCommand) != 0) {
            syslog(LOG_ERR, "error stoping ptpd");
        }
    }
}

void PTPManage::writeConfig(const std::string& ptpCfg)
{
    if (!writeServiceFile(kConfigFile, ptpCfg)) {
        syslog(LOG_ERR, "(PTP) error creating PTP4L_CFG");
    }
}

}  // namespace orv::tsd
